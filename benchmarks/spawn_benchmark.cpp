// The time to start /bin/true and wait for its end, beside the ways other libraries do it and, as
// the limits, beside posix_spawn and fork themselves; the number says how much memory the parent
// has touched, in MiB. Nobody redirects, changes directory or sets an environment.

#include "KivFramework/KivProcesses.h"

#include <cstddef>
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(KIV_HAVE_GLIB)
#include <glib.h>
#endif
#if defined(KIV_HAVE_BOOST_FILESYSTEM)
#include <boost/process.hpp>
#endif
#if defined(KIV_HAVE_LIBUV)
#include <uv.h>
#endif
#if defined(KIV_HAVE_POCO)
#include <Poco/Process.h>
#endif

namespace {

namespace kiv = KivFramework::KivProcesses;

constexpr const char* program = "/bin/true";

// Private memory that was written to, so that a copy of the process would have to map all of it.
class touched_memory {
public:
    explicit touched_memory(std::size_t mebibytes) : size_(mebibytes << 20U) {
        if (size_ == 0) {
            return;
        }
        memory_ =
            ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory_ == MAP_FAILED) {
            memory_ = nullptr;
            return;
        }
        // Many small pages are what a real heap consists of, and what costs most to copy.
        ::madvise(memory_, size_, MADV_NOHUGEPAGE);
        std::memset(memory_, 1, size_);
    }
    ~touched_memory() {
        if (memory_ != nullptr) {
            ::munmap(memory_, size_);
        }
    }
    touched_memory(const touched_memory&) = delete;
    touched_memory& operator=(const touched_memory&) = delete;

    bool valid() const { return size_ == 0 || memory_ != nullptr; }

private:
    std::size_t size_;
    void* memory_ = nullptr;
};

bool with_this_library() {
    int error_code = 0;
    std::string error_text;
    kiv::kivProcess* process =
        kiv::SpawnProcess(program, "", nullptr, nullptr, nullptr, error_code, error_text, "", "");
    if (process == nullptr) {
        return false;
    }
    long exit_code = -1;
    const int result = kiv::WaitProcess(process, /*block=*/true, 0, exit_code);
    kiv::CloseProcess(process);
    return result == 1 && exit_code == 0;
}

bool with_posix_spawn() {
    char name[] = "/bin/true";
    char* arguments[] = {name, nullptr};
    pid_t pid = 0;
    int status = -1;
    return ::posix_spawn(&pid, program, nullptr, nullptr, arguments, ::environ) == 0 &&
           ::waitpid(pid, &status, 0) == pid && status == 0;
}

bool with_fork() {
    char name[] = "/bin/true";
    char* arguments[] = {name, nullptr};
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::execv(program, arguments);
        ::_exit(127);
    }
    int status = -1;
    return ::waitpid(pid, &status, 0) == pid && status == 0;
}

#if defined(KIV_HAVE_GLIB)
bool with_glib() {
    char name[] = "/bin/true";
    char* arguments[] = {name, nullptr};
    GPid pid = 0;
    int status = -1;
    const bool started = g_spawn_async(nullptr, arguments, nullptr, G_SPAWN_DO_NOT_REAP_CHILD,
                                       nullptr, nullptr, &pid, nullptr) != FALSE;
    return started && ::waitpid(pid, &status, 0) == pid && status == 0;
}
#endif

#if defined(KIV_HAVE_BOOST_FILESYSTEM)
bool with_boost() {
    boost::process::child child(program);
    child.wait();
    return child.exit_code() == 0;
}
#endif

#if defined(KIV_HAVE_LIBUV)
bool with_libuv() {
    static uv_loop_t* loop = uv_default_loop();
    char name[] = "/bin/true";
    char* arguments[] = {name, nullptr};
    long status = -1;
    uv_process_t process{};
    process.data = &status;
    uv_process_options_t options{};
    options.file = program;
    options.args = arguments;
    options.exit_cb = [](uv_process_t* ended, int64_t exit_status, int /*signal*/) {
        *static_cast<long*>(ended->data) = static_cast<long>(exit_status);
        uv_close(reinterpret_cast<uv_handle_t*>(ended), nullptr);
    };
    return uv_spawn(loop, &process, &options) == 0 && uv_run(loop, UV_RUN_DEFAULT) == 0 &&
           status == 0;
}
#endif

#if defined(KIV_HAVE_POCO)
bool with_poco() {
    return Poco::Process::launch(program, {}).wait() == 0;
}
#endif

template <bool (*start_and_wait)()>
void start_and_wait_for_true(benchmark::State& state) {
    const touched_memory memory(static_cast<std::size_t>(state.range(0)));
    if (!memory.valid()) {
        state.SkipWithError("not enough memory");
        return;
    }
    for (auto _ : state) {
        if (!start_and_wait()) {
            state.SkipWithError("the program could not be run");
            return;
        }
    }
}

constexpr int much_memory = 1024;

// The child's work counts, so the clock on the wall decides, not the parent's processor time.
#define KIV_SPAWN_BENCHMARK(name, way)                                                             \
    BENCHMARK_TEMPLATE(start_and_wait_for_true, way)                                               \
        ->Name("spawn/" name)                                                                      \
        ->Arg(0)                                                                                   \
        ->Arg(much_memory)                                                                         \
        ->UseRealTime()                                                                            \
        ->Unit(benchmark::kMicrosecond)

KIV_SPAWN_BENCHMARK("kiv", with_this_library);
KIV_SPAWN_BENCHMARK("posix_spawn", with_posix_spawn);
KIV_SPAWN_BENCHMARK("fork", with_fork)->Iterations(20);
#if defined(KIV_HAVE_GLIB)
KIV_SPAWN_BENCHMARK("glib", with_glib);
#endif
#if defined(KIV_HAVE_BOOST_FILESYSTEM)
KIV_SPAWN_BENCHMARK("boost", with_boost);
#endif
#if defined(KIV_HAVE_LIBUV)
KIV_SPAWN_BENCHMARK("libuv", with_libuv);
#endif
#if defined(KIV_HAVE_POCO)
KIV_SPAWN_BENCHMARK("poco", with_poco);
#endif

} // namespace

BENCHMARK_MAIN();
