// Configuration files beside GLib's key files, SimpleIni, Boost's property trees, POCO and inih:
// the same text is loaded (and released), or changed in memory and saved, by all of them. A save
// that keeps comments and order has to read the file first; the peers write what they have in
// memory.
//
// - GLib keeps comments only where a file is loaded to be saved. Its save puts a new file in the
//   place of the old one and waits for the disk. Files lie in memory where the system has a place
//   for them, so that nobody's disk is measured.
// - SimpleIni finds its keys with their case, which saves it the folding, and writes no mark.
// - inih only parses, so its values go to a hash table, as a program of its own would keep them.
// - POCO loads files of this format and cannot save them; like this library, it ignores case.
//
// "one" texts have a single section, "many" have ten keys in each; their keys are numbered through.
// In "shuffled" texts, the worst case, the keys of a single section are in no order at all.

#include "KivFramework/KivConfigFile.h"
#include "KivFramework/internal/unique_fd.h"

#include "benchmarks/run_benchmarks.h"

#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>
#ifdef KIV_HAVE_BOOST
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#endif
#ifdef KIV_HAVE_GLIB
#include <glib.h>
#endif
#ifdef KIV_HAVE_INIH
#include <ini.h>
#endif
#ifdef KIV_HAVE_POCO
#include <Poco/AutoPtr.h>
#include <Poco/Util/IniFileConfiguration.h>
#endif
#ifdef KIV_HAVE_SIMPLEINI
#define SI_NO_CONVERSION // the wide characters, which nobody uses here, need another library
#include <SimpleIni.h>
#endif

namespace {

using namespace KivFramework;
using internal::unique_fd;

enum class layout { one, many, shuffled };

// The values that a save writes, beside those that the file has.
enum class change { one, all_longer, all_shorter };

// What a load is for.
enum class purpose { reading, editing };

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
    std::string path_ = std::string(::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") +
                        "/kiv-config-benchmark-XXXXXX";
};

class kiv_file {
public:
    bool load(const char* path, purpose /*why*/) { return LoadConfigFile(&manager_, path); }
    void set(const setting& entry, const std::string& value) {
        SetConfigValue(&manager_, entry.section.c_str(), entry.key.c_str(), value.c_str());
    }
    bool save(const char* path) { return SaveConfigFile(&manager_, path); }

private:
    kivConfigManager manager_;
};

// The limit: the bytes of the file are read, or written.
class raw_file {
public:
    bool load(const char* path, purpose /*why*/) {
        const unique_fd file(::open(path, O_RDONLY));
        text_.resize(static_cast<std::size_t>(::lseek(file.get(), 0, SEEK_END)));
        return ::pread(file.get(), text_.data(), text_.size(), 0) ==
               static_cast<ssize_t>(text_.size());
    }
    void set(const setting& /*entry*/, const std::string& /*value*/) {}
    bool save(const char* path) {
        const unique_fd file(::open(path, O_WRONLY | O_TRUNC));
        return ::write(file.get(), text_.data(), text_.size()) ==
               static_cast<ssize_t>(text_.size());
    }

private:
    std::string text_;
};

#ifdef KIV_HAVE_GLIB
class glib_file {
public:
    bool load(const char* path, purpose why) {
        const GKeyFileFlags flags =
            why == purpose::editing ? G_KEY_FILE_KEEP_COMMENTS : G_KEY_FILE_NONE;
        return g_key_file_load_from_file(file_.get(), path, flags, nullptr) != FALSE;
    }
    void set(const setting& entry, const std::string& value) {
        g_key_file_set_value(file_.get(), entry.section.c_str(), entry.key.c_str(), value.c_str());
    }
    bool save(const char* path) {
        return g_key_file_save_to_file(file_.get(), path, nullptr) != FALSE;
    }

private:
    std::unique_ptr<GKeyFile, decltype(&g_key_file_free)> file_{g_key_file_new(), &g_key_file_free};
};
#endif

#ifdef KIV_HAVE_SIMPLEINI
class simpleini_file {
public:
    bool load(const char* path, purpose /*why*/) { return file_.LoadFile(path) == SI_OK; }
    void set(const setting& entry, const std::string& value) {
        file_.SetValue(entry.section.c_str(), entry.key.c_str(), value.c_str());
    }
    bool save(const char* path) { return file_.SaveFile(path, /*a_bAddSignature=*/false) == SI_OK; }

private:
    CSimpleIniCaseA file_;
};
#endif

#ifdef KIV_HAVE_BOOST
class boost_file {
public:
    bool load(const char* path, purpose /*why*/) {
        boost::property_tree::read_ini(path, tree_);
        return !tree_.empty();
    }
    void set(const setting& entry, const std::string& value) {
        tree_.put(entry.section + "." + entry.key, value);
    }
    bool save(const char* path) {
        boost::property_tree::write_ini(path, tree_);
        return true; // it throws otherwise
    }

private:
    boost::property_tree::ptree tree_;
};
#endif

#ifdef KIV_HAVE_POCO
class poco_file {
public:
    bool load(const char* path, purpose /*why*/) {
        file_ = new Poco::Util::IniFileConfiguration(path);
        return file_->has("main.key0") || file_->has("section0.key0");
    }

private:
    Poco::AutoPtr<Poco::Util::IniFileConfiguration> file_;
};
#endif

#ifdef KIV_HAVE_INIH
class inih_file {
public:
    bool load(const char* path, purpose /*why*/) { return ini_parse(path, take, this) == 0; }

private:
    using section = std::unordered_map<std::string, std::string>;

    static int take(void* user, const char* section_name, const char* key, const char* value) {
        auto& self = *static_cast<inih_file*>(user);
        if (self.current_ == nullptr || self.current_->first != section_name) {
            self.current_ = &*self.sections_.try_emplace(section_name).first;
        }
        self.current_->second.insert_or_assign(key, value);
        return 1;
    }

    std::unordered_map<std::string, section> sections_;
    std::pair<const std::string, section>* current_ = nullptr; // nodes of the table stay in place
};
#endif

std::string changed_value(const std::string& value, change what) {
    switch (what) {
    case change::all_longer:
        return value + " and a little more";
    case change::all_shorter:
        return value.substr(7);
    default:
        return value;
    }
}

template <typename file_type>
void load(benchmark::State& state, layout how) {
    const temporary_file file;
    file.write(settings(state.range(0), how));
    for (auto _ : state) {
        file_type loaded;
        if (!loaded.load(file.path(), purpose::reading)) {
            state.SkipWithError("the file cannot be loaded");
        }
    }
}

template <typename file_type>
void load_and_change(file_type& loaded, const temporary_file& file,
                     const std::vector<setting>& content, change what) {
    loaded.load(file.path(), purpose::editing);
    for (const setting& entry : content) {
        loaded.set(entry, changed_value(entry.value, what));
    }
    if (what == change::one) {
        loaded.set(content[content.size() / 2], "a new value");
    }
}

// Whoever saves first after very many changes also pays for the heap, which then tidies up what
// they freed.
template <typename file_type>
void first_save(benchmark::State& state, layout how) {
    const std::vector<setting> content = settings(state.range(0), how);
    const temporary_file file;
    for (auto _ : state) {
        state.PauseTiming();
        file.write(content);
        std::optional<file_type> loaded(std::in_place);
        load_and_change(*loaded, file, content, change::all_longer);
        state.ResumeTiming();
        if (!loaded->save(file.path())) {
            state.SkipWithError("the file cannot be saved");
        }
        state.PauseTiming();
        loaded.reset();
        state.ResumeTiming();
    }
}

// The saves after that one.
template <typename file_type>
void save(benchmark::State& state, layout how, change what) {
    const std::vector<setting> content = settings(state.range(0), how);
    const temporary_file file;
    file.write(content);
    file_type loaded;
    load_and_change(loaded, file, content, what);
    loaded.save(file.path());
    for (auto _ : state) {
        state.PauseTiming();
        file.write(content);
        state.ResumeTiming();
        if (!loaded.save(file.path())) {
            state.SkipWithError("the file cannot be saved");
        }
    }
}

const char* name_of(layout how) {
    constexpr const char* names[] = {"one", "many", "shuffled"};
    return names[static_cast<std::size_t>(how)];
}

constexpr layout layouts[] = {layout::one, layout::many, layout::shuffled};

template <typename file_type>
void measure_load(const std::string& who) {
    for (const layout how : layouts) {
        benchmark::RegisterBenchmark(("load/" + who + "/" + name_of(how)).c_str(), load<file_type>,
                                     how)
            ->Arg(1000)
            ->Arg(10000)
            ->Arg(100000);
    }
}

template <typename file_type>
void measure_save(const std::string& who) {
    const std::pair<const char*, change> changes[] = {{"save_one_changed", change::one},
                                                      {"save_all_longer", change::all_longer},
                                                      {"save_all_shorter", change::all_shorter}};
    for (const layout how : layouts) {
        benchmark::RegisterBenchmark(("first_save/" + who + "/" + name_of(how)).c_str(),
                                     first_save<file_type>, how)
            ->Arg(1000)
            ->Arg(10000)
            ->Arg(100000);
        for (const auto& [name, what] : changes) {
            benchmark::RegisterBenchmark(
                (std::string(name) + "/" + who + "/" + name_of(how)).c_str(), save<file_type>, how,
                what)
                ->Arg(1000)
                ->Arg(10000)
                ->Arg(100000);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    measure_load<kiv_file>("kiv");
    measure_save<kiv_file>("kiv");
    measure_load<raw_file>("read");
    measure_save<raw_file>("write");
#ifdef KIV_HAVE_GLIB
    measure_load<glib_file>("glib");
    measure_save<glib_file>("glib");
#endif
#ifdef KIV_HAVE_SIMPLEINI
    measure_load<simpleini_file>("simpleini");
    measure_save<simpleini_file>("simpleini");
#endif
#ifdef KIV_HAVE_BOOST
    measure_load<boost_file>("boost");
    measure_save<boost_file>("boost");
#endif
#ifdef KIV_HAVE_INIH
    measure_load<inih_file>("inih");
#endif
#ifdef KIV_HAVE_POCO
    measure_load<poco_file>("poco");
#endif
    return run_benchmarks(argc, argv);
}
