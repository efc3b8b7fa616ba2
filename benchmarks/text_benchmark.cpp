// Texts beside Abseil, APR, Boost, GLib and POCO: each gets the same text, which stays the
// caller's, and gives a new one. The last number of a name is the size of the text.
//
// APR writes to the caller's memory, so it is asked for the size first; both calls count.
//
// The texts are words of random letters, from 1 to 14 of them. After a word stands a byte that the
// operation has to change or to look for: after every second one in "mixed" texts, after every
// twentieth in "sparse" ones. "dense" texts have such bytes only, "plain" ones none.

#include "KivFramework/KivStringHelper.h"

#include "benchmarks/run_benchmarks.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#ifdef KIV_HAVE_ABSEIL
#include <absl/strings/ascii.h>
#include <absl/strings/str_replace.h>
#include <absl/strings/str_split.h>
#endif
#ifdef KIV_HAVE_APR
#include <apr_escape.h>
#endif
#ifdef KIV_HAVE_BOOST
#include <boost/algorithm/string.hpp>
#endif
#ifdef KIV_HAVE_GLIB
#include <glib.h>
#endif
#ifdef KIV_HAVE_POCO
#include <Poco/String.h>
#include <Poco/StringTokenizer.h>
#include <Poco/URI.h>
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

using preparation = std::string (*)(std::string);

// Registers an operation for every size and the mixes that it is meant for.
template <typename function>
void measure(const std::string& name, std::string_view special, const std::vector<mix>& kinds,
             function operation, preparation prepare = nullptr) {
    constexpr const char* kind_names[] = {"plain", "sparse", "mixed", "dense"};
    constexpr std::size_t sizes[] = {64, std::size_t{1} << 20U};
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
    void operator()(char** owned) const { ::g_strfreev(owned); }
};
using glib_text = std::unique_ptr<char, glib_deleter>;
using glib_texts = std::unique_ptr<char*, glib_deleter>;
#endif

#ifdef KIV_HAVE_APR
// Calls an operation twice, without a destination for the size of its result, and with one.
template <typename function>
std::string apr_text(function operation) {
    apr_size_t size = 0; // with the final zero
    operation(nullptr, &size);
    std::string result(size, '\0');
    operation(result.data(), &size);
    result.pop_back();
    return result;
}
#endif

void measure_encoding_urls() {
    constexpr std::string_view special = " +?&=:,;%()";
    const std::vector<mix> kinds = {mix::plain, mix::mixed, mix::dense};
    measure("encode_url/kiv", special, kinds,
            [](text given) { return KivStringHelper::EncodeURL(given); });
#ifdef KIV_HAVE_GLIB
    measure("encode_url/glib", special, kinds, [](text given) {
        return glib_text(::g_uri_escape_string(given.c_str(), "/", /*allow_utf8=*/FALSE));
    });
#endif
#ifdef KIV_HAVE_POCO
    measure("encode_url/poco", special, kinds, [](text given) {
        std::string encoded;
        Poco::URI::encode(given, "+?&=:,;()", encoded);
        return encoded;
    });
#endif
#ifdef KIV_HAVE_APR
    measure("encode_url/apr", special, kinds, [](text given) {
        return apr_text([&given](char* out, apr_size_t* size) {
            ::apr_escape_urlencoded(out, given.c_str(), static_cast<apr_ssize_t>(given.size()),
                                    size);
        });
    });
#endif
}

void measure_decoding_urls() {
    // Without spaces, so that the text has the sequences that GLib would write, too.
    constexpr std::string_view special = "+?&=:,;%()";
    const std::vector<mix> kinds = {mix::plain, mix::mixed, mix::dense};
    const preparation prepare = KivStringHelper::EncodeURL;
    measure(
        "decode_url/kiv", special, kinds,
        [](text given) { return KivStringHelper::DecodeURL(given); }, prepare);
#ifdef KIV_HAVE_GLIB
    measure(
        "decode_url/glib", special, kinds,
        [](text given) {
            return glib_text(::g_uri_unescape_string(given.c_str(), /*illegal=*/nullptr));
        },
        prepare);
#endif
#ifdef KIV_HAVE_POCO
    measure(
        "decode_url/poco", special, kinds,
        [](text given) {
            std::string decoded;
            Poco::URI::decode(given, decoded);
            return decoded;
        },
        prepare);
#endif
#ifdef KIV_HAVE_APR
    measure(
        "decode_url/apr", special, kinds,
        [](text given) {
            return apr_text([&given](char* out, apr_size_t* size) {
                ::apr_unescape_url(out, given.c_str(), static_cast<apr_ssize_t>(given.size()),
                                   /*forbid=*/nullptr, /*reserved=*/nullptr, /*plus=*/0, size);
            });
        },
        prepare);
#endif
}

void measure_html() {
    const std::vector<mix> kinds = {mix::plain, mix::mixed, mix::dense};
    measure("encode_html/kiv", "&<>", kinds,
            [](text given) { return KivStringHelper::EncodeHTML(given); });
#ifdef KIV_HAVE_ABSEIL
    measure("encode_html/abseil", "&<>", kinds, [](text given) {
        return absl::StrReplaceAll(given, {{"&", "&amp;"}, {"<", "&lt;"}, {">", "&gt;"}});
    });
#endif
#ifdef KIV_HAVE_GLIB
    measure("encode_html/glib", "&<>", kinds, [](text given) {
        return glib_text(::g_markup_escape_text(given.c_str(), static_cast<gssize>(given.size())));
    });
#endif
#ifdef KIV_HAVE_APR
    measure("encode_html/apr", "&<>", kinds, [](text given) {
        return apr_text([&given](char* out, apr_size_t* size) {
            ::apr_escape_entity(out, given.c_str(), static_cast<apr_ssize_t>(given.size()),
                                /*toasc=*/0, size);
        });
    });
#endif
}

void measure_sql() {
    const std::vector<mix> kinds = {mix::plain, mix::mixed, mix::dense};
    measure("encode_sql/kiv", "'", kinds,
            [](text given) { return KivStringHelper::EncodeSQL(given); });
#ifdef KIV_HAVE_ABSEIL
    measure("encode_sql/abseil", "'", kinds, [](text given) {
        return absl::StrReplaceAll(given, {{"'", "''"}});
    });
#endif
#ifdef KIV_HAVE_BOOST
    measure("encode_sql/boost", "'", kinds,
            [](text given) { return boost::replace_all_copy(given, "'", "''"); });
#endif
#ifdef KIV_HAVE_POCO
    measure("encode_sql/poco", "'", kinds,
            [](text given) { return Poco::replace(given, "'", "''"); });
#endif
}

void measure_case() {
    measure("to_lower/kiv", " ", {mix::mixed},
            [](text given) { return KivStringHelper::ToLower(given); });
    measure("to_upper/kiv", " ", {mix::mixed},
            [](text given) { return KivStringHelper::ToUpper(given); });
#ifdef KIV_HAVE_ABSEIL
    measure("to_lower/abseil", " ", {mix::mixed},
            [](text given) { return absl::AsciiStrToLower(given); });
    measure("to_upper/abseil", " ", {mix::mixed},
            [](text given) { return absl::AsciiStrToUpper(given); });
#endif
#ifdef KIV_HAVE_GLIB
    measure("to_lower/glib", " ", {mix::mixed}, [](text given) {
        return glib_text(::g_ascii_strdown(given.c_str(), static_cast<gssize>(given.size())));
    });
    measure("to_upper/glib", " ", {mix::mixed}, [](text given) {
        return glib_text(::g_ascii_strup(given.c_str(), static_cast<gssize>(given.size())));
    });
#endif
#ifdef KIV_HAVE_POCO
    measure("to_lower/poco", " ", {mix::mixed}, [](text given) { return Poco::toLower(given); });
    measure("to_upper/poco", " ", {mix::mixed}, [](text given) { return Poco::toUpper(given); });
#endif
}

// `TokenizeString` takes its text by value. What a caller hands over is not the splitter's work, so
// each of them is given a text of its own.
void measure_splitting() {
    const std::vector<mix> kinds = {mix::sparse, mix::mixed, mix::dense};
    measure("split/kiv", ",", kinds, [](std::string given) {
        return KivStringHelper::TokenizeString(std::move(given), ",");
    });
    measure("split_to_set/kiv", ",", kinds, [](std::string given) {
        return KivStringHelper::TokenizeStringToSet(std::move(given), ",");
    });
#ifdef KIV_HAVE_ABSEIL
    measure("split/abseil", ",", kinds, [](std::string given) {
        const std::vector<std::string> pieces = absl::StrSplit(given, ',');
        return pieces;
    });
    measure("split_to_set/abseil", ",", kinds, [](std::string given) {
        const std::set<std::string> pieces = absl::StrSplit(given, ',');
        return pieces;
    });
#endif
#ifdef KIV_HAVE_BOOST
    measure("split/boost", ",", kinds, [](std::string given) {
        std::vector<std::string> pieces;
        boost::split(pieces, given, [](char byte) { return byte == ','; });
        return pieces;
    });
    measure("split_to_set/boost", ",", kinds, [](std::string given) {
        std::set<std::string> pieces;
        boost::split(pieces, given, [](char byte) { return byte == ','; });
        return pieces;
    });
#endif
#ifdef KIV_HAVE_GLIB
    measure("split/glib", ",", kinds,
            [](std::string given) { return glib_texts(::g_strsplit(given.c_str(), ",", -1)); });
#endif
#ifdef KIV_HAVE_POCO
    measure("split/poco", ",", kinds,
            [](std::string given) { return Poco::StringTokenizer(given, ","); });
#endif
}

} // namespace

int main(int argc, char** argv) {
    measure_encoding_urls();
    measure_decoding_urls();
    measure_html();
    measure_sql();
    measure_case();
    measure_splitting();
    return run_benchmarks(argc, argv);
}
