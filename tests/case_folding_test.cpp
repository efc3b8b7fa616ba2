#include "KivFramework/KivStringHelper.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstddef>
#include <string>

#include <locale.h> // NOLINT(modernize-deprecated-headers): newlocale is POSIX's

namespace {

// Whether the C library folds the letters of ISO 8859-1, too, as it does in some locales.
bool knows_latin_letters = false;

constexpr int latin_a = 0xE4; // with a diaeresis, and 0xC4 in upper case
constexpr int case_bit = 0x20;

} // namespace

// The program's own definitions go before the C library's, for the library under test as well.
// NOLINTBEGIN: the names are the C library's
extern "C" int tolower(int byte) noexcept {
    const bool folds =
        (byte >= 'A' && byte <= 'Z') || (knows_latin_letters && byte == (latin_a & ~case_bit));
    return folds ? byte | case_bit : byte;
}

extern "C" int toupper(int byte) noexcept {
    const bool folds = (byte >= 'a' && byte <= 'z') || (knows_latin_letters && byte == latin_a);
    return folds ? byte & ~case_bit : byte;
}
// NOLINTEND

namespace {

using namespace KivFramework::KivStringHelper;

// Gives the thread a locale of its own, with or without those letters, while it lives.
class thread_locale {
public:
    explicit thread_locale(bool latin_letters)
        : locale_(::newlocale(LC_ALL_MASK, "C", nullptr)), previous_(::uselocale(locale_)) {
        knows_latin_letters = latin_letters;
    }
    ~thread_locale() {
        knows_latin_letters = false;
        ::uselocale(previous_);
        ::freelocale(locale_);
    }
    thread_locale(const thread_locale&) = delete;
    thread_locale& operator=(const thread_locale&) = delete;

private:
    locale_t locale_;
    locale_t previous_;
};

std::string repeated(const std::string& text, int times) {
    std::string made;
    for (; times > 0; --times) {
        made += text;
    }
    return made;
}

TEST(CaseFolding, FollowsTheLocaleOfTheThreadInTextsOfEveryLength) {
    const thread_locale latin(/*latin_letters=*/true);
    for (const int times : {1, 10, 100, 1000}) {
        SCOPED_TRACE(times);
        EXPECT_EQ(ToLower(repeated("aZ\xC4\xE4[", times)), repeated("az\xE4\xE4[", times));
        EXPECT_EQ(ToUpper(repeated("aZ\xC4\xE4{", times)), repeated("AZ\xC4\xC4{", times));
    }
}

TEST(CaseFolding, FollowsTheGlobalLocale) {
    if (std::setlocale(LC_ALL, "C.UTF-8") == nullptr) { // NOLINT(concurrency-mt-unsafe): alone
        GTEST_SKIP() << "there is no locale but \"C\"";
    }
    knows_latin_letters = true;
    EXPECT_EQ(ToLower("\xC4"), "\xE4");
    EXPECT_EQ(ToLower(repeated("\xC4", 1000)), repeated("\xE4", 1000));
    EXPECT_EQ(ToUpper(repeated("\xE4", 1000)), repeated("\xC4", 1000));
    knows_latin_letters = false;
    std::setlocale(LC_ALL, "C"); // NOLINT(concurrency-mt-unsafe): alone
}

TEST(CaseFolding, ChangesAsciiLettersAloneInALocaleThatHasNoOthers) {
    const thread_locale plain(/*latin_letters=*/false);
    for (const int times : {1, 10, 100, 1000}) {
        SCOPED_TRACE(times);
        EXPECT_EQ(ToLower(repeated("aZ@[\xC4\xE4", times)), repeated("az@[\xC4\xE4", times));
        EXPECT_EQ(ToUpper(repeated("aZ`{\xC4\xE4", times)), repeated("AZ`{\xC4\xE4", times));
    }
}

TEST(CaseFolding, ChangesEveryByteByItselfInTextsOfEveryLength) {
    std::string text;
    std::string lower;
    std::string upper;
    for (int byte = 0; byte < 600; ++byte) {
        const char given = static_cast<char>(byte);
        const bool is_upper = given >= 'A' && given <= 'Z';
        const bool is_lower = given >= 'a' && given <= 'z';
        text += given;
        lower += is_upper ? static_cast<char>(given + 'a' - 'A') : given;
        upper += is_lower ? static_cast<char>(given + 'A' - 'a') : given;
        ASSERT_EQ(ToLower(text), lower);
        ASSERT_EQ(ToUpper(text), upper);
    }
}

} // namespace
