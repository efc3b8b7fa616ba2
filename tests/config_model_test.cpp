// Configuration files against the literal model: whole loads and saves, single edits, and the
// editor through long sequences of edits on one text.

#include "KivFramework/KivConfigFile.h"
#include "KivFramework/internal/config_text.h"

#include "tests/oracle/config_text_model.h"
#include "tests/support/config_generator.h"
#include "tests/support/memory_file.h"
#include "tests/support/temp_directory.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory_resource>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace KivFramework;
using internal::config_text;

std::string whole_text(config_text& edited) {
    edited.finish();
    std::string text;
    edited.for_each_part([&text](std::string_view part) { text += part; });
    return text;
}

TEST(ConfigText, EqualsTheModelAfterEveryEdit) {
    for (unsigned int seed = 0; seed < 1500; ++seed) {
        SCOPED_TRACE(seed);
        kiv_test::config_generator make(seed);
        std::string expected = make.text(seed % 40);
        std::pmr::monotonic_buffer_resource memory;
        config_text edited(std::pmr::string(expected, &memory), memory);
        ASSERT_EQ(whole_text(edited), expected);
        for (int sections = 0; sections < 12; ++sections) {
            const std::string section = make.section();
            for (std::size_t keys = make.below(6); keys > 0; --keys) {
                const std::string key = make.key();
                const std::string value = make.value();
                const std::string previous = expected;
                edited.replace_key(section, key, value);
                kiv_oracle::replace_key(expected, section, key, value);
                ASSERT_EQ(whole_text(edited), expected)
                    << "section \"" << section << "\", key \"" << key << "\", value \"" << value
                    << "\"\nin the text:\n"
                    << previous;
            }
        }
    }
}

TEST(ConfigText, EqualsTheModelWhenManyEditsFollowEachOther) {
    for (unsigned int seed = 0; seed < 10; ++seed) {
        SCOPED_TRACE(seed);
        kiv_test::config_generator make(seed);
        std::vector<std::string> texts;
        for (int i = 0; i < 600; ++i) {
            texts.push_back(make.key() + std::to_string(make.below(200)));
            texts.push_back(make.value());
        }
        std::string expected = "[a]\n";
        for (std::size_t i = 0; i < texts.size(); i += 4) {
            expected += texts[i] + "=" + make.value().substr(0, 3) + "\n";
        }
        expected += make.text(4);
        std::pmr::monotonic_buffer_resource memory;
        config_text edited(std::pmr::string(expected, &memory), memory);
        for (std::size_t i = 0; i < texts.size(); i += 2) {
            edited.replace_key("a", texts[i], texts[i + 1]);
            kiv_oracle::replace_key(expected, "a", texts[i], texts[i + 1]);
        }
        ASSERT_EQ(whole_text(edited), expected);
    }
}

TEST(ConfigText, StaysInOrderWhenLinesComeBetweenTheSameTwoLinesAgainAndAgain) {
    // Each value splits the line that the one before has made, so that the numbers between two
    // neighbours run out.
    std::string expected = "[a]\nk\n\n[b]\n";
    std::pmr::monotonic_buffer_resource memory;
    config_text edited(std::pmr::string(expected, &memory), memory);
    for (int i = 0; i < 300; ++i) {
        const std::string value = std::to_string(i) + "\nk\nx" + std::to_string(i);
        edited.replace_key("a", "k", value);
        kiv_oracle::replace_key(expected, "a", "k", value);
        ASSERT_EQ(whole_text(edited), expected) << i;
        if (expected.size() > 8000) {
            break;
        }
    }
}

TEST(ConfigText, StaysInOrderWhenLinesComeBehindTheSameLineAgainAndAgain) {
    // The scan goes on in the line that the empty key has just been written to, and each time puts
    // the lines of the value behind it.
    for (const char* const value : {"\n", "x\n\ny", "[b]\nx\n"}) {
        std::string expected = "[a]\n" + std::string(3000, '\n') + "k = v\n\n[b]\n";
        std::pmr::monotonic_buffer_resource memory;
        config_text edited(std::pmr::string(expected, &memory), memory);
        for (const char* const key : {"", "k", "x", ""}) {
            edited.replace_key("a", key, value);
            kiv_oracle::replace_key(expected, "a", key, value);
            ASSERT_EQ(whole_text(edited), expected) << key << '=' << value;
        }
    }
}

// Counts the bytes that are taken from it.
class counted_memory : public std::pmr::memory_resource {
public:
    std::size_t bytes() const { return bytes_; }

private:
    void* do_allocate(std::size_t size, std::size_t alignment) override {
        bytes_ += size;
        return std::pmr::new_delete_resource()->allocate(size, alignment);
    }
    void do_deallocate(void* memory, std::size_t size, std::size_t alignment) override {
        std::pmr::new_delete_resource()->deallocate(memory, size, alignment);
    }
    bool do_is_equal(const memory_resource& other) const noexcept override {
        return this == &other;
    }

    std::size_t bytes_ = 0;
};

TEST(ConfigText, TakesMemoryLikeTheTextWhenTheRestOfALineIsRewrittenAgainAndAgain) {
    // The empty key holds in what follows it on the line that it has just been written to, so the
    // scan of an empty line goes on there for as many bytes as the section has.
    std::string expected = "[a]\n" + std::string(4000, '\n');
    counted_memory counted;
    std::pmr::monotonic_buffer_resource memory(&counted);
    config_text edited(std::pmr::string(expected, &memory), memory);
    for (const char* const value : {"", "x", "= ="}) {
        edited.replace_key("a", "", value);
        kiv_oracle::replace_key(expected, "a", "", value);
        ASSERT_EQ(whole_text(edited), expected);
    }
    // Copies of all the 4,000 rests would be thousands of texts. Memory is taken ahead.
    EXPECT_LT(counted.bytes(), 30 * expected.size());
}

TEST(GetConfigValuesectbound, EqualsTheModel) {
    for (unsigned int seed = 0; seed < 6000; ++seed) {
        SCOPED_TRACE(seed);
        kiv_test::config_generator make(seed);
        std::string text = make.text(seed % 20);
        std::string section = make.section();
        long start = 7;
        long end = 7;
        long expected_start = 0;
        long expected_end = 0;
        GetConfigValuesectbound(text, section, start, end);
        kiv_oracle::section_bounds(text, section, expected_start, expected_end);
        ASSERT_EQ(start, expected_start) << text;
        ASSERT_EQ(end, expected_end) << text;
    }
}

TEST(ConfigReplaceKey, EqualsTheModel) {
    for (unsigned int seed = 0; seed < 6000; ++seed) {
        SCOPED_TRACE(seed);
        kiv_test::config_generator make(seed);
        std::string text = make.text(seed % 20);
        const std::string section = make.section();
        const std::string key = make.key();
        const std::string value = make.value();
        std::string expected = text;
        ConfigReplaceKey(text, section, key, value);
        kiv_oracle::replace_key(expected, section, key, value);
        ASSERT_EQ(text, expected);
    }
}

// A file's bytes: a generated text, sometimes with old headers, footers, zero bytes and long lines.
std::string file_bytes(kiv_test::config_generator& make) {
    std::string bytes;
    for (std::size_t parts = make.below(6); parts > 0; --parts) {
        switch (make.below(7)) {
        case 0:
            bytes += "## This file was autogenerated on 01/02/2003 04:05 ##\n\n";
            break;
        case 1:
            bytes += "\n\n## End of autogenerated file ##\n";
            break;
        case 2:
            bytes += std::string(make.below(2), '\0') + make.text(3);
            break;
        case 3: // around the size of the line buffer
            bytes +=
                "k=" + std::string(2040 + make.below(12), 'x') + std::string(make.below(2), '\n');
            break;
        case 4:
            bytes += std::string(make.below(5000), ' ') + make.text(2);
            break;
        default:
            bytes += make.text(12);
        }
    }
    return bytes;
}

TEST(LoadConfigFile, EqualsTheModel) {
    const kiv_test::memory_file file;
    ASSERT_TRUE(file.valid());
    for (unsigned int seed = 0; seed < 3000; ++seed) {
        SCOPED_TRACE(seed);
        kiv_test::config_generator make(seed);
        kiv_test::write_file(file.path(), file_bytes(make));
        kivConfigManager manager;
        ASSERT_TRUE(LoadConfigFile(&manager, file.path()));
        ASSERT_EQ(manager.values, kiv_oracle::load(file.path()).values);
    }
}

TEST(SaveConfigFile, EqualsTheModel) {
    const kiv_test::memory_file file;
    ASSERT_TRUE(file.valid());
    for (unsigned int seed = 0; seed < 3000; ++seed) {
        SCOPED_TRACE(seed);
        kiv_test::config_generator make(seed);
        kiv_test::write_file(file.path(), file_bytes(make));
        kivConfigManager manager;
        if (make.below(2) == 0) {
            LoadConfigFile(&manager, file.path());
        }
        for (std::size_t i = make.below(9); i > 0; --i) {
            manager.values[make.section() + "#" + make.key()] = make.value();
        }
        manager.values["no number sign"] = "is skipped";

        const std::string before = kiv_test::read_file(file.path());
        ASSERT_TRUE(SaveConfigFile(&manager, file.path()));
        const std::string after = kiv_test::read_file(file.path());
        const std::string header = after.substr(0, after.find("##\n\n") + 4);
        kiv_test::write_file(file.path(), before);
        ASSERT_EQ(after, kiv_oracle::saved_text(file.path(), manager.values, header));
    }
}

} // namespace
