// Configuration files beside GLib's key files: the same text is loaded (and released), or changed
// in memory and saved, by both. A ratio is the time of a kiv_ line by that of the glib_ line of the
// same name, which ends in the number of keys. A save that keeps comments and order has to read
// the file first; GLib writes what it has in memory.
//
// "one" texts have a single section, "many" have ten keys in each; their keys are numbered through.
// In "shuffled" texts, the worst case, the keys of a single section are in no order at all.

#include "KivFramework/KivConfigFile.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <glib.h>
#include <unistd.h>

namespace {

using namespace KivFramework;

enum class layout { one, many, shuffled };

// The values that a save writes, beside those that the file has.
enum class change { one, all_longer, all_same_length, all_shorter };

struct setting {
    std::string section;
    std::string key;
    std::string value;
};

std::vector<setting> settings(long count, layout how) {
    constexpr long keys_per_section = 10;
    constexpr long stride = 7919; // a prime: every number comes once
    std::vector<setting> made;
    for (long i = 0; i < count; ++i) {
        const long number = how == layout::shuffled ? i * stride % count : i;
        made.push_back(
            {how == layout::many ? "section" + std::to_string(i / keys_per_section) : "main",
             "key" + std::to_string(number), "value number " + std::to_string(number * 7)});
    }
    return made;
}

class temporary_file {
public:
    temporary_file() { ::close(::mkstemp(path_.data())); }
    ~temporary_file() { ::unlink(path_.c_str()); }
    temporary_file(const temporary_file&) = delete;
    temporary_file& operator=(const temporary_file&) = delete;

    const char* path() const { return path_.c_str(); }

    void write(const std::vector<setting>& content) const {
        std::ofstream stream(path_, std::ios::trunc);
        std::string section;
        for (const setting& entry : content) {
            if (entry.section != section) {
                section = entry.section;
                stream << "\n[" << section << "]\n\n";
            }
            stream << entry.key << " = " << entry.value << "\n";
        }
    }

private:
    std::string path_ = "/tmp/kiv-config-benchmark-XXXXXX";
};

std::string changed_value(const std::string& value, change what) {
    switch (what) {
    case change::all_longer:
        return value + " and a little more";
    case change::all_shorter:
        return value.substr(7);
    case change::all_same_length:
        return "VALUE" + value.substr(5);
    default:
        return value;
    }
}

void kiv_load(benchmark::State& state, layout how) {
    const temporary_file file;
    file.write(settings(state.range(0), how));
    for (auto _ : state) {
        kivConfigManager manager;
        if (!LoadConfigFile(&manager, file.path())) {
            state.SkipWithError("the file cannot be loaded");
        }
    }
}

using key_file = std::unique_ptr<GKeyFile, decltype(&g_key_file_free)>;

void glib_load(benchmark::State& state, layout how) {
    const temporary_file file;
    file.write(settings(state.range(0), how));
    for (auto _ : state) {
        const key_file loaded(g_key_file_new(), &g_key_file_free);
        if (!g_key_file_load_from_file(loaded.get(), file.path(), G_KEY_FILE_NONE, nullptr)) {
            state.SkipWithError("the file cannot be loaded");
        }
    }
}

void kiv_save(benchmark::State& state, layout how, change what) {
    const std::vector<setting> content = settings(state.range(0), how);
    const temporary_file file;
    file.write(content);
    kivConfigManager manager;
    LoadConfigFile(&manager, file.path());
    for (const setting& entry : content) {
        SetConfigValue(&manager, entry.section.c_str(), entry.key.c_str(),
                       changed_value(entry.value, what).c_str());
    }
    if (what == change::one) {
        const setting& middle = content[content.size() / 2];
        SetConfigValue(&manager, middle.section.c_str(), middle.key.c_str(), "a new value");
    }
    for (auto _ : state) {
        state.PauseTiming();
        file.write(content);
        state.ResumeTiming();
        if (!SaveConfigFile(&manager, file.path())) {
            state.SkipWithError("the file cannot be saved");
        }
    }
}

void glib_save(benchmark::State& state, layout how, change what) {
    const std::vector<setting> content = settings(state.range(0), how);
    const temporary_file file;
    file.write(content);
    const key_file loaded(g_key_file_new(), &g_key_file_free);
    g_key_file_load_from_file(loaded.get(), file.path(), G_KEY_FILE_KEEP_COMMENTS, nullptr);
    for (const setting& entry : content) {
        g_key_file_set_value(loaded.get(), entry.section.c_str(), entry.key.c_str(),
                             changed_value(entry.value, what).c_str());
    }
    if (what == change::one) {
        const setting& middle = content[content.size() / 2];
        g_key_file_set_value(loaded.get(), middle.section.c_str(), middle.key.c_str(),
                             "a new value");
    }
    for (auto _ : state) {
        state.PauseTiming();
        file.write(content);
        state.ResumeTiming();
        if (!g_key_file_save_to_file(loaded.get(), file.path(), nullptr)) {
            state.SkipWithError("the file cannot be saved");
        }
    }
}

void for_each_size(benchmark::internal::Benchmark* registered) {
    registered->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);
}

} // namespace

BENCHMARK_CAPTURE(kiv_load, one, layout::one)->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_load, one, layout::one)->Apply(for_each_size);
BENCHMARK_CAPTURE(kiv_load, many, layout::many)->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_load, many, layout::many)->Apply(for_each_size);
BENCHMARK_CAPTURE(kiv_load, shuffled, layout::shuffled)->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_load, shuffled, layout::shuffled)->Apply(for_each_size);
BENCHMARK_CAPTURE(kiv_save, one_one_change, layout::one, change::one)->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_save, one_one_change, layout::one, change::one)->Apply(for_each_size);
BENCHMARK_CAPTURE(kiv_save, one_all_longer, layout::one, change::all_longer)->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_save, one_all_longer, layout::one, change::all_longer)->Apply(for_each_size);
BENCHMARK_CAPTURE(kiv_save, one_all_same_length, layout::one, change::all_same_length)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_save, one_all_same_length, layout::one, change::all_same_length)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(kiv_save, one_all_shorter, layout::one, change::all_shorter)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_save, one_all_shorter, layout::one, change::all_shorter)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(kiv_save, many_one_change, layout::many, change::one)->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_save, many_one_change, layout::many, change::one)->Apply(for_each_size);
BENCHMARK_CAPTURE(kiv_save, many_all_longer, layout::many, change::all_longer)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_save, many_all_longer, layout::many, change::all_longer)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(kiv_save, many_all_shorter, layout::many, change::all_shorter)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_save, many_all_shorter, layout::many, change::all_shorter)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(kiv_save, shuffled_one_change, layout::shuffled, change::one)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_save, shuffled_one_change, layout::shuffled, change::one)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(kiv_save, shuffled_all_longer, layout::shuffled, change::all_longer)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_save, shuffled_all_longer, layout::shuffled, change::all_longer)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(kiv_save, shuffled_all_shorter, layout::shuffled, change::all_shorter)
    ->Apply(for_each_size);
BENCHMARK_CAPTURE(glib_save, shuffled_all_shorter, layout::shuffled, change::all_shorter)
    ->Apply(for_each_size);

BENCHMARK_MAIN();
