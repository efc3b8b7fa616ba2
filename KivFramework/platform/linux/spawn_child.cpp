#include "KivFramework/platform/spawn_child.h"

#include "KivFramework/internal/read_fully.h"
#include "KivFramework/internal/unique_fd.h"

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

// Code of the child must stay free of sanitizer calls: it runs on a foreign stack, never returns,
// and shares the caller's thread-local state, which such calls would leave unbalanced.
#if defined(__clang__)
#define KIV_CHILD_CODE [[clang::disable_sanitizer_instrumentation]]
#else
#define KIV_CHILD_CODE [[gnu::no_sanitize("address", "thread", "undefined")]]
#endif

// The C library's clone under its other name, which no sanitizer replaces: the thread sanitizer
// would take the child for a copy of the process and repair its own state in it, which is shared.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the C library's own
extern "C" int __clone(int (*function)(void*), void* stack, int flags, void* argument, ...);

namespace KivFramework::platform {
namespace {

using internal::unique_fd;

constexpr int first_number_above_standard_streams = 3;
constexpr int failed_setup_status = 1;
constexpr int failed_exec_status = -1;

// The kernel's own signal set, which, unlike the C library's, reaches the two signals that the
// library keeps for itself.
using kernel_sigset = std::uint64_t;
constexpr kernel_sigset every_signal = ~kernel_sigset{0};
constexpr int signal_count = 64;

// The kernel's own sigaction record. All zero, it stands for the default action.
struct kernel_sigaction {
    void (*handler)(int);
    unsigned long flags;
    void (*restorer)();
    kernel_sigset mask;
};
constexpr kernel_sigaction default_action{};

// Where the plain numbers still take 16-bit ids, the wide calls have names of their own.
#ifdef SYS_setuid32
constexpr long set_uid_call = SYS_setuid32;
constexpr long set_gid_call = SYS_setgid32;
#else
constexpr long set_uid_call = SYS_setuid;
constexpr long set_gid_call = SYS_setgid;
#endif

// What a failing child sends through the status pipe.
struct failure_report {
    spawn_step step;
    int error;
};

// All that the child needs, prepared by the parent.
struct child_plan {
    const char* path;
    char* const* arguments;
    char* const* environment;
    const descriptor_copy* copies;
    std::size_t copy_count;
    const int* closes;
    std::size_t close_count;
    bool switch_identity;
    bool has_identity;
    uid_t uid;
    gid_t gid;
    int status_read;
    int status_write;
    kernel_sigset caller_mask;
};

// From here to run_child: the code of the child. It shares the parent's memory and thread-local
// storage, so it makes raw system calls and nothing else: these take no lock, allocate nothing and
// are async-signal-safe. The C library's own setuid and setgid would switch every thread of the
// parent. Only errno is overwritten in the parent, which expects it.

KIV_CHILD_CODE [[noreturn]] void end_child(int status) {
    for (;;) {
        ::syscall(SYS_exit_group, status);
    }
}

KIV_CHILD_CODE [[noreturn]] void fail_child(const child_plan& plan, spawn_step step, int status) {
    const failure_report report{step, errno};
    // The parent sees nothing when this fails, and takes the child for a started one that ended.
    ::syscall(SYS_write, plan.status_write, &report, sizeof(report));
    end_child(status);
}

KIV_CHILD_CODE bool copy_descriptor(const descriptor_copy& copy) {
    if (copy.from == copy.to) { // dup2 would only look whether it is open, dup3 refuses
        return ::syscall(SYS_fcntl, copy.from, F_GETFD) != -1;
    }
    return ::syscall(SYS_dup3, copy.from, copy.to, 0) != -1;
}

KIV_CHILD_CODE bool arrange_descriptors(const child_plan& plan) {
    for (std::size_t i = 0; i < plan.copy_count; ++i) {
        if (!copy_descriptor(plan.copies[i])) {
            return false;
        }
    }
    for (std::size_t i = 0; i < plan.close_count; ++i) {
        if (::syscall(SYS_close, plan.closes[i]) == -1) {
            return false;
        }
    }
    return true;
}

KIV_CHILD_CODE bool switch_identity(const child_plan& plan) {
    // The group first: afterwards the child has no right to change it.
    return plan.has_identity && ::syscall(set_gid_call, plan.gid) == 0 &&
           ::syscall(set_uid_call, plan.uid) == 0;
}

// A handler of the host must not run in the child, where it would work on the parent's memory.
// Ignored signals stay ignored, as they do across fork and exec.
KIV_CHILD_CODE void drop_signal_handlers() {
    for (int signal = 1; signal <= signal_count; ++signal) {
        kernel_sigaction action;
        if (::syscall(SYS_rt_sigaction, signal, nullptr, &action, sizeof(kernel_sigset)) == 0 &&
            action.handler != SIG_DFL && action.handler != SIG_IGN) {
            ::syscall(SYS_rt_sigaction, signal, &default_action, nullptr, sizeof(kernel_sigset));
        }
    }
}

KIV_CHILD_CODE int run_child(void* argument) {
    const auto& plan = *static_cast<const child_plan*>(argument);
    ::syscall(SYS_close, plan.status_read);
    if (!arrange_descriptors(plan)) {
        fail_child(plan, spawn_step::descriptors, failed_setup_status);
    }
    if (plan.switch_identity && !switch_identity(plan)) {
        fail_child(plan, spawn_step::identity, failed_setup_status);
    }
    drop_signal_handlers();
    ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &plan.caller_mask, nullptr, sizeof(kernel_sigset));
    ::syscall(SYS_execve, plan.path, plan.arguments, plan.environment);
    fail_child(plan, spawn_step::exec, failed_exec_status);
}

// End of the child's code.

// Blocks every signal for the calling thread, so that none finds a child that shares its memory.
class signals_blocked {
public:
    signals_blocked() {
        ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &every_signal, &before_, sizeof(before_));
    }
    ~signals_blocked() {
        ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &before_, nullptr, sizeof(before_));
    }
    signals_blocked(const signals_blocked&) = delete;
    signals_blocked& operator=(const signals_blocked&) = delete;

    kernel_sigset before() const { return before_; }

private:
    kernel_sigset before_ = 0;
};

// Changing the user marks the memory of a process as not to be dumped, and until its exec the
// child's memory is the parent's. While children that switch exist the mark protects the parent
// from their new owner; after the last of them it is put back to what it was.
class dumpable_kept {
public:
    explicit dumpable_kept(bool needed) : needed_(needed) {
        if (!needed_) {
            return;
        }
        const std::lock_guard guard(lock);
        if (switching_children++ == 0) {
            dumpable = ::prctl(PR_GET_DUMPABLE);
        }
    }
    ~dumpable_kept() {
        if (!needed_) {
            return;
        }
        const std::lock_guard guard(lock);
        if (--switching_children == 0 && ::prctl(PR_GET_DUMPABLE) != dumpable) {
            // Refused only for the system's own mode 2, which is then in force already.
            ::prctl(PR_SET_DUMPABLE, dumpable);
        }
    }
    dumpable_kept(const dumpable_kept&) = delete;
    dumpable_kept& operator=(const dumpable_kept&) = delete;

private:
    static inline std::mutex lock;
    static inline int switching_children = 0;
    static inline int dumpable = 0;
    bool needed_;
};

struct status_pipe {
    unique_fd read_end;
    unique_fd write_end;

    // Both ends are close-on-exec from birth: no child started meanwhile holds them open. They are
    // non-blocking, because a process forked meanwhile by another thread may hold them without
    // ever calling exec; when the parent reads, everything there will be has been written.
    bool open() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
            return false;
        }
        read_end.reset(ends[0]);
        write_end.reset(ends[1]);
        if (write_end.get() >= first_number_above_standard_streams) {
            return true;
        }
        // In a host without standard streams the copies of the child would overwrite it.
        write_end.reset(::fcntl(ends[1], F_DUPFD_CLOEXEC, first_number_above_standard_streams));
        return write_end.valid();
    }
};

// The child runs on memory of its own; what it calls needs a few hundred bytes of it.
constexpr std::size_t child_stack_size = 32768;

struct made_child {
    pid_t pid;
    int error;
};

// Suspends the calling thread until the child has called exec or ended.
made_child run_to_exec(child_plan& plan) {
    const auto stack = std::make_unique_for_overwrite<std::byte[]>(child_stack_size);
    const dumpable_kept dumpable(plan.switch_identity);
    const signals_blocked signals;
    plan.caller_mask = signals.before();
    const pid_t pid = ::__clone(run_child, stack.get() + child_stack_size,
                                CLONE_VM | CLONE_VFORK | SIGCHLD, &plan);
    const int error = errno;
    return {pid, error};
}

// The pointers of the process's environment. They are a copy, so that a setenv of another thread,
// which may move the array, does not pull it away from under the child.
std::vector<char*> present_environment() {
    std::vector<char*> pointers;
    for (char** variable = ::environ; variable != nullptr && *variable != nullptr; ++variable) {
        pointers.push_back(*variable);
    }
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace
} // namespace KivFramework::platform

using namespace KivFramework;

platform::spawn_result platform::spawn_child(const spawn_request& request) {
    const std::vector<char*> inherited =
        request.environment == nullptr ? present_environment() : std::vector<char*>();
    status_pipe status;
    if (!status.open()) {
        return {0, spawn_step::status_pipe, errno};
    }

    child_plan plan{};
    plan.path = request.path;
    plan.arguments = request.arguments;
    plan.environment = request.environment == nullptr ? inherited.data() : request.environment;
    plan.copies = request.copies.data();
    plan.copy_count = request.copies.size();
    plan.closes = request.closes.data();
    plan.close_count = request.closes.size();
    plan.switch_identity = request.switch_identity;
    plan.has_identity = request.identity.has_value();
    if (plan.has_identity) {
        plan.uid = request.identity->uid;
        plan.gid = request.identity->gid;
    }
    plan.status_read = status.read_end.get();
    plan.status_write = status.write_end.get();

    const made_child child = run_to_exec(plan);
    if (child.pid == -1) {
        return {0, spawn_step::process, child.error};
    }
    failure_report report{};
    // A report is written whole or not at all; the read never waits.
    if (internal::read_fully(status.read_end.get(), &report, sizeof(report)) != sizeof(report)) {
        return {child.pid, spawn_step::none, 0};
    }
    return {child.pid, report.step, report.error};
}
