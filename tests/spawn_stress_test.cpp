#include "KivFramework/KivProcesses.h"

#include "tests/support/temp_directory.h"
#include "tests/support/wait_until.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace KivFramework::KivProcesses;

// The environment variable asks for long runs; without it the tests stay short.
int spawns_to_make(int otherwise) {
    const char* text = std::getenv("KIV_TEST_SPAWNS"); // NOLINT(concurrency-mt-unsafe): read only
    return text != nullptr ? std::atoi(text) : otherwise;
}

std::string own_user_name() {
    // Called before other threads run. NOLINTNEXTLINE(concurrency-mt-unsafe)
    const passwd* user = ::getpwuid(::getuid());
    return user != nullptr ? user->pw_name : "";
}

// Somebody whom the children may become.
std::string other_user_name() {
    return ::getuid() == 0 ? "nobody" : own_user_name();
}

bool has_children() {
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

// Memory that the process asked the system for: what it holds, and how much address space.
struct memory_use {
    std::size_t allocated;
    std::size_t mapped_pages;
};

memory_use memory_now() {
    memory_use use{};
    const struct mallinfo2 info = ::mallinfo2();
    use.allocated = info.uordblks + info.hblkhd;
    std::ifstream("/proc/self/statm") >> use.mapped_pages;
    return use;
}

bool start_and_wait(const std::string& path, const std::string& arguments,
                    const std::string& user) {
    int error_code = -1;
    std::string error_text;
    kivProcess* process = SpawnProcess(path.c_str(), arguments.c_str(), "", nullptr, nullptr,
                                       error_code, error_text, user.c_str(), "");
    if (process == nullptr) {
        return false;
    }
    long exit_code = -1;
    const int result = WaitProcess(process, /*block=*/true, 0, exit_code);
    CloseProcess(process);
    return result == 1 && exit_code == 0;
}

// Fails the test when the start does not fail in this way.
void expect_failed_start(const std::string& path, const std::string& user, int code) {
    int error_code = -1;
    std::string error_text;
    kivProcess* process = SpawnProcess(path.c_str(), "", "", nullptr, CreateEnvironment(true),
                                       error_code, error_text, user.c_str(), "");
    EXPECT_EQ(process, nullptr);
    EXPECT_EQ(error_code, code);
}

void expect_killed_child() {
    int error_code = -1;
    std::string error_text;
    kivPipeHandles* pipes = CreatePipes(true);
    kivProcess* process = SpawnProcess("/bin/sleep", "1000", "", pipes, CreateEnvironment(true),
                                       error_code, error_text, "", "");
    EXPECT_NE(process, nullptr) << error_text;
    ClosePipeHandle(pipes->parent_stdin_write);
    ClosePipeHandle(pipes->parent_stdout_read);
    DeletePipes(pipes, false);
    TerminateProcess(process);
    CloseProcess(process);
}

// Success, exec failure, unknown user and a child that is killed, in turn.
void spawn_in_all_ways(int spawns) {
    for (int i = 0; i < spawns; ++i) {
        switch (i % 4) {
        case 0:
            EXPECT_TRUE(start_and_wait("/bin/true", "", ""));
            break;
        case 1:
            expect_failed_start("/kiv/none", "", ENOENT);
            break;
        case 2:
            expect_failed_start("/bin/true", "kiv-no-such-user", 0);
            break;
        default:
            expect_killed_child();
            break;
        }
    }
}

// Runs `work` over and over on a thread until the end of the scope.
class busy_thread {
public:
    explicit busy_thread(void (*work)())
        : thread_([this, work] {
              while (!stop_) {
                  work();
              }
          }) {}
    ~busy_thread() {
        stop_ = true;
        thread_.join();
    }
    busy_thread(const busy_thread&) = delete;
    busy_thread& operator=(const busy_thread&) = delete;

private:
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

// The library's locks of these are the ones that a child must not need.
void look_up_users() {
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(16384);
    ::getpwnam_r("root", &entry, buffer.data(), buffer.size(), &found);
    ::getpwnam_r("kiv-no-such-user", &entry, buffer.data(), buffer.size(), &found);
}

void allocate() {
    std::vector<std::unique_ptr<std::string>> texts;
    for (std::size_t size = 1; size < (1U << 17U); size *= 2) {
        texts.push_back(std::make_unique<std::string>(size, 'x'));
    }
}

void tell_the_time() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::tzset();
    ::localtime_r(&now, &local);
}

void write_to_the_system_log() {
    ::syslog(LOG_DEBUG, "%s", "spawn stress");
}

TEST(SpawnProcess, WorksFromManyThreadsBesideThreadsThatHoldTheLocksOfTheSystemsLibrary) {
    // The resource check of every test sees descriptors, threads and children.
    constexpr int threads = 8;
    const int spawns_per_thread = spawns_to_make(800) / threads;
    const int dumpable = ::prctl(PR_GET_DUMPABLE);
    const std::string user = other_user_name();
    std::atomic<int> failures = 0;
    {
        const busy_thread users(look_up_users);
        const busy_thread memory(allocate);
        const busy_thread time(tell_the_time);
        const busy_thread log(write_to_the_system_log);
        std::vector<std::thread> spawners;
        spawners.reserve(static_cast<std::size_t>(threads));
        for (int i = 0; i < threads; ++i) {
            spawners.emplace_back([&] {
                for (int n = 0; n < spawns_per_thread; ++n) {
                    failures += start_and_wait("/bin/true", "", user) ? 0 : 1;
                }
            });
        }
        for (std::thread& spawner : spawners) {
            spawner.join();
        }
    }
    ::closelog();
    EXPECT_EQ(failures, 0);
    EXPECT_FALSE(has_children());
    EXPECT_EQ(::prctl(PR_GET_DUMPABLE), dumpable);
}

TEST(SpawnProcess, LeavesMemoryDescriptorsThreadsAndChildrenAsTheyWereAfterManyStarts) {
    // The allocator counts the freed blocks that it keeps at hand for a thread. Of one that has
    // ended it keeps none.
    const auto spawn_in_a_thread = [](int count) { std::thread(spawn_in_all_ways, count).join(); };
    spawn_in_a_thread(40); // whatever is set up once and for all is now
    const int spawns = spawns_to_make(800);
    const memory_use before = memory_now();
    spawn_in_a_thread(spawns);
    const memory_use after = memory_now();
    // Were a single block left by one of the four ways, it would reach this.
    constexpr std::size_t smallest_block = 24;
    EXPECT_LT(after.allocated,
              before.allocated + static_cast<std::size_t>(spawns / 4) * smallest_block);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(after.mapped_pages, before.mapped_pages);
#endif
    EXPECT_FALSE(has_children());
}

} // namespace
