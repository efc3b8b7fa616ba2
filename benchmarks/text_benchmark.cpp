// Texts beside GLib (URLs) and Abseil (case, splitting, HTML, SQL): both get the same text, which
// stays theirs, and give a new one. A ratio is the time of a kiv_ line by that of the other line of
// the same name, which ends in the size of the text.
//
// The texts are words of random letters, from 1 to 14 of them. After a word stands a byte that the
// operation has to change or to look for: after every second one in "mixed" texts, after every
// twentieth in "sparse" ones. "dense" texts have such bytes only, "plain" ones none.

#include "KivFramework/KivStringHelper.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <benchmark/benchmark.h>
#ifdef KIV_HAVE_GLIB
#include <glib.h>
#endif
#ifdef KIV_HAVE_ABSEIL
#include <absl/strings/ascii.h>
#include <absl/strings/str_replace.h>
#include <absl/strings/str_split.h>
#endif

namespace {

using namespace KivFramework;

enum class mix { plain, sparse, mixed, dense };

// Every function under test gets its text by this type, and copies it where it has to.
using text = const std::string&;

std::string make_text(std::size_t size, mix kind, std::string_view special) {
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    constexpr std::size_t longest_word = 14;
    std::mt19937 random(5); // NOLINT(cert-msc51-cpp): the same text in every run
    const auto any_of = [&](std::string_view bytes) { return bytes[random() % bytes.size()]; };
    std::string made;
    for (std::size_t word = 1; made.size() < size; ++word) {
        if (kind != mix::dense) {
            for (std::size_t left = 1 + random() % longest_word; left > 0; --left) {
                made += any_of(letters);
            }
        }
        if (kind == mix::dense || (kind == mix::mixed && word % 2 == 0) ||
            (kind == mix::sparse && word % 20 == 0)) {
            made += any_of(special);
        }
    }
    made.resize(size);
    return made;
}

template <typename function>
void run(benchmark::State& state, const std::string& given, function operation) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(operation(given));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(given.size()));
}

// Registers an operation for every size and the mixes that it is meant for.
template <typename function>
void measure(const std::string& name, std::string_view special, std::vector<mix> kinds,
             function operation, std::string (*prepare)(std::string) = nullptr) {
    constexpr const char* kind_names[] = {"plain", "sparse", "mixed", "dense"};
    constexpr std::size_t sizes[] = {64, 4096, std::size_t{1} << 20U};
    for (const mix kind : kinds) {
        for (const std::size_t size : sizes) {
            std::string given = make_text(size, kind, special);
            if (prepare != nullptr) {
                given = prepare(given);
            }
            const std::string full_name = name + "/" + kind_names[static_cast<std::size_t>(kind)] +
                                          "/" + std::to_string(size);
            benchmark::RegisterBenchmark(
                full_name.c_str(),
                [given, operation](benchmark::State& state) { run(state, given, operation); });
        }
    }
}

#ifdef KIV_HAVE_GLIB
struct glib_deleter {
    void operator()(char* owned) const { ::g_free(owned); }
};
using glib_text = std::unique_ptr<char, glib_deleter>;

glib_text glib_encode_url(text given) {
    return glib_text(::g_uri_escape_string(given.c_str(), "/", /*allow_utf8=*/FALSE));
}

glib_text glib_decode_url(text given) {
    return glib_text(::g_uri_unescape_string(given.c_str(), /*illegal_characters=*/nullptr));
}
#endif

void measure_urls() {
    constexpr std::string_view special = " +?&=:,;%()";
    const std::vector<mix> kinds = {mix::plain, mix::sparse, mix::mixed, mix::dense};
    measure("kiv_encode_url", special, kinds,
            [](text given) { return KivStringHelper::EncodeURL(given); });
#ifdef KIV_HAVE_GLIB
    measure("glib_encode_url", special, kinds, glib_encode_url);
#endif
    // Without spaces, so that the text has the sequences that GLib would write, too.
    constexpr std::string_view decoded_special = "+?&=:,;%()";
    measure(
        "kiv_decode_url", decoded_special, kinds,
        [](text given) { return KivStringHelper::DecodeURL(given); }, KivStringHelper::EncodeURL);
#ifdef KIV_HAVE_GLIB
    measure("glib_decode_url", decoded_special, kinds, glib_decode_url, KivStringHelper::EncodeURL);
#endif
}

void measure_escaping() {
    const std::vector<mix> kinds = {mix::plain, mix::sparse, mix::mixed, mix::dense};
    measure("kiv_encode_html", "&<>", kinds,
            [](text given) { return KivStringHelper::EncodeHTML(given); });
    measure("kiv_encode_sql", "'", kinds,
            [](text given) { return KivStringHelper::EncodeSQL(given); });
#ifdef KIV_HAVE_ABSEIL
    measure("absl_encode_html", "&<>", kinds, [](text given) {
        return absl::StrReplaceAll(given, {{"&", "&amp;"}, {"<", "&lt;"}, {">", "&gt;"}});
    });
    measure("absl_encode_sql", "'", kinds, [](text given) {
        return absl::StrReplaceAll(given, {{"'", "''"}});
    });
#endif
}

void measure_case() {
    measure("kiv_to_lower", " ", {mix::mixed},
            [](text given) { return KivStringHelper::ToLower(given); });
    measure("kiv_to_upper", " ", {mix::mixed},
            [](text given) { return KivStringHelper::ToUpper(given); });
#ifdef KIV_HAVE_ABSEIL
    measure("absl_to_lower", " ", {mix::mixed},
            [](text given) { return absl::AsciiStrToLower(given); });
    measure("absl_to_upper", " ", {mix::mixed},
            [](text given) { return absl::AsciiStrToUpper(given); });
#endif
}

void measure_splitting() {
    const std::vector<mix> kinds = {mix::sparse, mix::mixed, mix::dense};
    measure("kiv_split", ",", kinds,
            [](text given) { return KivStringHelper::TokenizeString(given, ","); });
    measure("kiv_split_to_set", ",", kinds,
            [](text given) { return KivStringHelper::TokenizeStringToSet(given, ","); });
#ifdef KIV_HAVE_ABSEIL
    measure("absl_split", ",", kinds, [](text given) {
        const std::vector<std::string> pieces = absl::StrSplit(given, ',');
        return pieces;
    });
    measure("absl_split_to_set", ",", kinds, [](text given) {
        const std::set<std::string> pieces = absl::StrSplit(given, ',');
        return pieces;
    });
#endif
}

} // namespace

int main(int argc, char** argv) {
    measure_urls();
    measure_escaping();
    measure_case();
    measure_splitting();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return EXIT_FAILURE;
    }
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
