// A full snapshot of the process table beside a plain reader and libproc2. The argument of each is
// the number of processes in the table; idle children fill it up to that number.
//
// The table of the whole machine has its other processes too, and a number that it exceeds already
// is skipped. A table of its own has room for small numbers:
//
//     unshare --pid --fork --mount-proc build/release/benchmarks/process_table_benchmark

#include "KivFramework/KivProcesses.h"

#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <list>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#ifdef KIV_HAVE_LIBPROC2
#include <libproc2/pids.h>
#endif

using namespace KivFramework::KivProcesses;

namespace {

struct process {
    std::string name;
    int pid = 0;
    int ppid = 0;
};

// As one writes it without a thought about speed: directory stream, buffered file, scanf.
std::vector<process> plain_snapshot() {
    std::vector<process> processes;
    DIR* directory = ::opendir("/proc");
    if (directory == nullptr) {
        return processes;
    }
    // readdir is safe here: the stream is this function's alone.
    while (const dirent* entry = ::readdir(directory)) { // NOLINT(concurrency-mt-unsafe): see above
        if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0) {
            continue;
        }
        char path[300];
        std::snprintf(path, sizeof(path), "/proc/%s/stat", entry->d_name);
        std::FILE* file = std::fopen(path, "r");
        if (file == nullptr) {
            continue;
        }
        char line[1024];
        if (std::fgets(line, sizeof(line), file) != nullptr) {
            process found;
            char name[64] = "";
            char state = '\0';
            if (std::sscanf(line, "%d (%63[^)]) %c %d", &found.pid, name, &state, &found.ppid) ==
                4) {
                found.name = name;
                processes.push_back(found);
            }
        }
        std::fclose(file);
    }
    ::closedir(directory);
    return processes;
}

// Idle children that fill the process table; killed and reaped at the end of the program.
class idle_children {
public:
    idle_children() = default;
    ~idle_children() {
        while (!children_.empty()) {
            end_one();
        }
    }
    idle_children(const idle_children&) = delete;
    idle_children& operator=(const idle_children&) = delete;

    // Starts or ends children until the table has `count` processes, and returns true. False says
    // that the processes of others are more already.
    bool fill_table(std::size_t count) {
        std::size_t present = plain_snapshot().size();
        for (; present < count; ++present) {
            start_one();
        }
        for (; present > count && !children_.empty(); --present) {
            end_one();
        }
        return present == count;
    }

private:
    void start_one() {
        const pid_t child = ::fork();
        if (child == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) {
                ::pause();
            }
        }
        if (child == -1) {
            std::perror("fork");
            std::exit(EXIT_FAILURE); // NOLINT(concurrency-mt-unsafe): there is one thread
        }
        children_.push_back(child);
    }

    void end_one() {
        ::kill(children_.back(), SIGKILL);
        ::waitpid(children_.back(), nullptr, 0);
        children_.pop_back();
    }

    std::vector<pid_t> children_;
};

bool fill_table(benchmark::State& state) {
    static idle_children children;
    const bool filled = children.fill_table(static_cast<std::size_t>(state.range(0)));
    if (!filled) {
        state.SkipWithError("the table has more processes");
    }
    return filled;
}

void library_snapshot(benchmark::State& state) {
    if (!fill_table(state)) {
        return;
    }
    std::list<_procs_snapshot*> list;
    for (auto _ : state) {
        CreateProcsSnapshot(&list, -1);
        benchmark::DoNotOptimize(list.size());
        DeleteProcsSnapshot(&list);
    }
}

void plain_reader(benchmark::State& state) {
    if (!fill_table(state)) {
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(plain_snapshot());
    }
}

#ifdef KIV_HAVE_LIBPROC2
// The peer keeps its context and its buffers from one snapshot to the next.
void libproc2(benchmark::State& state) {
    if (!fill_table(state)) {
        return;
    }
    pids_item items[] = {PIDS_ID_PID, PIDS_ID_PPID, PIDS_CMD};
    pids_info* info = nullptr;
    if (procps_pids_new(&info, items, std::size(items)) < 0) {
        state.SkipWithError("libproc2 does not start");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(procps_pids_reap(info, PIDS_FETCH_TASKS_ONLY));
    }
    procps_pids_unref(&info);
}
#endif

void populations(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(50)->Arg(1000)->Unit(benchmark::kMicrosecond);
}

BENCHMARK(library_snapshot)->Name("snapshot/kiv")->Apply(populations);
BENCHMARK(plain_reader)->Name("snapshot/plain")->Apply(populations);
#ifdef KIV_HAVE_LIBPROC2
BENCHMARK(libproc2)->Name("snapshot/libproc2")->Apply(populations);
#endif

} // namespace

BENCHMARK_MAIN();
