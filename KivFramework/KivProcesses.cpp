#include "KivFramework/KivProcesses.h"

#include "KivFramework/KivLibrary.h"
#include "KivFramework/KivLogger.h"
#include "KivFramework/KivSocket.h"
#include "KivFramework/KivStringHelper.h"
#include "KivFramework/internal/cancellation_guard.h"
#include "KivFramework/internal/command_line.h"
#include "KivFramework/internal/mutex_guard.h"
#include "KivFramework/internal/percent_references.h"
#include "KivFramework/internal/process_index.h"
#include "KivFramework/internal/quiet_write.h"
#include "KivFramework/internal/unique_fd.h"
#include "KivFramework/internal/wait_for_ever.h"
#include "KivFramework/platform/accounts.h"
#include "KivFramework/platform/login_manager.h"
#include "KivFramework/platform/process_table.h"
#include "KivFramework/platform/spawn_child.h"
#include "KivFramework/platform/thread_exit.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace KivFramework::KivProcesses {
namespace {

using internal::mutex_guard;
using internal::unique_fd;

// Deadline of a timed wait. Deliberate: exactly 1000000 microseconds are not carried, so that sum
// makes an invalid deadline and the wait ends at once; hosts see the documented result.
timespec deadline_after(const timeval& now, int milliseconds) {
    constexpr int ms_per_second = 1000;
    constexpr long us_per_ms = 1000;
    constexpr long us_per_second = 1000000;
    constexpr long ns_per_us = 1000;

    auto seconds = now.tv_sec + milliseconds / ms_per_second;
    auto microseconds = now.tv_usec + (milliseconds % ms_per_second) * us_per_ms;
    if (microseconds > us_per_second) {
        microseconds -= us_per_second;
        ++seconds;
    }
    timespec deadline{};
    deadline.tv_sec = seconds;
    deadline.tv_nsec = microseconds * ns_per_us;
    return deadline;
}

// Wakes those whose turn it is when the lock is free: writers go first, one at a time.
void wake_next(_kivRWLocker& locker) {
    if (locker.waiting_writers != 0) {
        SignalConditional(locker.writers_cond);
    } else if (locker.waiting_readers != 0) {
        BroadcastSignalConditional(locker.readers_cond);
    }
}

// Counts the calling thread as waiting for as long as the scope lasts. A thread that is cancelled
// in its wait passes on the wake-up it may have taken, and lets those go whom it held back; whoever
// wakes for nothing waits on.
class waiting_mark {
public:
    waiting_mark(_kivRWLocker& locker, int& waiting) : locker_(locker), waiting_(waiting) {
        ++waiting_;
    }
    ~waiting_mark() {
        --waiting_;
        if (cancelled_) {
            wake_next(locker_);
        }
    }
    waiting_mark(const waiting_mark&) = delete;
    waiting_mark& operator=(const waiting_mark&) = delete;

    void woken() { cancelled_ = false; }

private:
    _kivRWLocker& locker_;
    int& waiting_;
    bool cancelled_ = true; // unless the wait returns
};

void wait_counted(_kivRWLocker& locker, _posix_conditional_var* condition, int& waiting) {
    waiting_mark mark(locker, waiting);
    WaitConditional(condition);
    mark.woken();
}

// Adds a read hold for a thread that already has one. Only recursive lockers know their readers.
bool reenter_read(_kivRWLocker& locker) {
    if (locker.recursive == 0) {
        return false;
    }
    const auto reader = locker.reader_threads.find(pthread_self());
    if (reader == locker.reader_threads.end()) {
        return false;
    }
    ++reader->second;
    ++locker.lock_count;
    return true;
}

void add_first_read_hold(_kivRWLocker& locker) {
    if (locker.recursive != 0) {
        locker.reader_threads.emplace(pthread_self(), 1);
    }
    ++locker.lock_count;
}

bool reenter_write(_kivRWLocker& locker) {
    if (locker.recursive == 0 || pthread_equal(locker.writer_thread, pthread_self()) == 0) {
        return false;
    }
    --locker.lock_count;
    return true;
}

void take_write_hold(_kivRWLocker& locker) {
    if (locker.recursive != 0) {
        locker.writer_thread = pthread_self();
    }
    locker.lock_count = -1;
}

void forget_read_hold(_kivRWLocker& locker) {
    const auto reader = locker.reader_threads.find(pthread_self());
    if (reader != locker.reader_threads.end() && --reader->second <= 0) {
        locker.reader_threads.erase(reader);
    }
}

// Gives back one hold and tells whether the lock became free by it.
bool drop_hold(_kivRWLocker& locker) {
    if (locker.lock_count == 0) {
        return false;
    }
    if (locker.lock_count > 0) {
        if (locker.recursive != 0) {
            forget_read_hold(locker);
        }
        return --locker.lock_count == 0;
    }
    if (++locker.lock_count != 0) {
        return false;
    }
    locker.writer_thread = pthread_t();
    return true;
}

} // namespace
} // namespace KivFramework::KivProcesses

using namespace KivFramework;

pthread_mutex_t* KivProcesses::CreateMutex() {
    auto mutex = std::make_unique<pthread_mutex_t>();
    if (pthread_mutex_init(mutex.get(), nullptr) != 0) {
        return nullptr;
    }
    return mutex.release();
}

int KivProcesses::LockMutex(pthread_mutex_t* mutex) {
    return pthread_mutex_lock(mutex);
}

int KivProcesses::UnlockMutex(pthread_mutex_t* mutex) {
    return pthread_mutex_unlock(mutex);
}

bool KivProcesses::TryLockMutex(pthread_mutex_t* mutex) {
    return pthread_mutex_trylock(mutex) == 0;
}

bool KivProcesses::DestroyMutex(pthread_mutex_t* mutex) {
    if (mutex != nullptr) {
        pthread_mutex_destroy(mutex);
        delete mutex;
    }
    return true;
}

_posix_conditional_var* KivProcesses::CreateConditional(pthread_mutex_t** mutex) {
    auto cond = std::make_unique<pthread_cond_t>();
    auto condition = std::make_unique<_posix_conditional_var>();
    // Cannot fail with default attributes.
    pthread_cond_init(cond.get(), nullptr);
    condition->mutex = *mutex;
    condition->cond = cond.release();
    return condition.release();
}

bool KivProcesses::WaitConditional(_posix_conditional_var* condition) {
    pthread_cond_wait(condition->cond, condition->mutex);
    return true;
}

bool KivProcesses::WaitTimedConditional(_posix_conditional_var* condition, int milliseconds) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const timespec deadline = deadline_after(now, milliseconds);
    return pthread_cond_timedwait(condition->cond, condition->mutex, &deadline) != ETIMEDOUT;
}

bool KivProcesses::SignalConditional(_posix_conditional_var* condition) {
    pthread_cond_signal(condition->cond);
    return true;
}

bool KivProcesses::BroadcastSignalConditional(_posix_conditional_var* condition) {
    pthread_cond_broadcast(condition->cond);
    return true;
}

bool KivProcesses::DestroyConditional(_posix_conditional_var* condition) {
    if (condition != nullptr) {
        pthread_cond_destroy(condition->cond);
        delete condition->cond;
        delete condition;
    }
    return true;
}

namespace {

struct locker_deleter {
    void operator()(_kivRWLocker* locker) const {
        KivProcesses::DestroyRWLocker(locker);
        delete locker;
    }
};

} // namespace

_kivRWLocker* KivProcesses::CreateRWLocker(bool /*ignored*/) {
    std::unique_ptr<_kivRWLocker, locker_deleter> locker(new _kivRWLocker);
    locker->mutex = CreateMutex();
    locker->readers_cond = CreateConditional(&locker->mutex);
    locker->writers_cond = CreateConditional(&locker->mutex);
    return locker.release();
}

void KivProcesses::LockReadRWLocker(_kivRWLocker* locker) {
    const mutex_guard guard(locker->mutex);
    if (reenter_read(*locker)) {
        return;
    }
    while (locker->lock_count < 0 || locker->waiting_writers != 0) {
        wait_counted(*locker, locker->readers_cond, locker->waiting_readers);
    }
    add_first_read_hold(*locker);
}

bool KivProcesses::TryLockReadRWLocker(_kivRWLocker* locker) {
    const mutex_guard guard(locker->mutex);
    if (reenter_read(*locker)) {
        return true;
    }
    if (locker->lock_count >= 0) {
        // Deliberate: the hold is taken although the result is false, which only says that nothing
        // was re-entered; hosts release after every try that found no writer.
        add_first_read_hold(*locker);
    }
    return false;
}

bool KivProcesses::TryLockReadRWLocker(_kivRWLocker* /*locker*/, int /*milliseconds*/) {
    return false;
}

void KivProcesses::LockWriteRWLocker(_kivRWLocker* locker) {
    const mutex_guard guard(locker->mutex);
    if (reenter_write(*locker)) {
        return;
    }
    while (locker->lock_count != 0) {
        wait_counted(*locker, locker->writers_cond, locker->waiting_writers);
    }
    take_write_hold(*locker);
}

bool KivProcesses::TryLockWriteRWLocker(_kivRWLocker* locker) {
    const mutex_guard guard(locker->mutex);
    if (reenter_write(*locker)) {
        return true;
    }
    if (locker->lock_count != 0) {
        return false;
    }
    take_write_hold(*locker);
    return true;
}

bool KivProcesses::TryLockWriteRWLocker(_kivRWLocker* /*locker*/, int /*milliseconds*/) {
    return false;
}

void KivProcesses::UnlockRWLocker(_kivRWLocker* locker) {
    const mutex_guard guard(locker->mutex);
    if (drop_hold(*locker)) {
        wake_next(*locker);
    }
}

bool KivProcesses::DestroyRWLocker(_kivRWLocker* locker) {
    if (locker != nullptr) {
        DestroyConditional(locker->readers_cond);
        DestroyConditional(locker->writers_cond);
        DestroyMutex(locker->mutex);
    }
    // Deliberate: the record stays allocated and the result is false; hosts own the memory.
    return false;
}

kivThreadObj* KivProcesses::SpawnThread(void* (*start)(void*), void* data) {
    if (!platform::prepare_thread_exit()) {
        return nullptr; // a thread that cannot end must not begin
    }
    auto thread = std::make_unique<kivThreadObj>();
    auto block = std::make_unique<kivThreadStart>();
    block->data = data;
    block->thread_obj = thread.get();

    pthread_attr_t attributes;
    // Neither call can fail on Linux; joinable is what a fresh attribute object says anyway.
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
    const int error = pthread_create(&thread->thread, &attributes, start, block.get());
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        return nullptr;
    }
    static_cast<void>(block.release()); // the new thread's now, until EndThread
    return thread.release();
}

void* KivProcesses::GetThreadData(void* block) {
    return static_cast<kivThreadStart*>(block)->data;
}

void KivProcesses::EndThread(int exit_code, void* block) {
    auto* start = static_cast<kivThreadStart*>(block);
    start->thread_obj->exit_code = exit_code;
    // Polled by CheckJoinableThread without a lock; the join orders the exit code.
    std::atomic_ref<int>(start->thread_obj->ended).store(1, std::memory_order_release);
    delete start;
    pthread_exit(nullptr);
}

int KivProcesses::CheckJoinableThread(kivThreadObj* thread) {
    return std::atomic_ref<int>(thread->ended).load(std::memory_order_acquire);
}

int KivProcesses::JoinThread(kivThreadObj* thread) {
    if (thread == nullptr) {
        return 0;
    }
    const std::unique_ptr<kivThreadObj> owned(thread);
    pthread_join(owned->thread, nullptr);
    return owned->exit_code;
}

int KivProcesses::TerminateThread(kivThreadObj* thread) {
    return pthread_cancel(thread->thread);
}

namespace {

// Equal after the C library's `tolower` of every byte, as with KivStringHelper::ToLower.
bool same_name(const std::string& left, const std::string& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) ==
               std::tolower(static_cast<unsigned char>(b));
    });
}

using variable_map = std::map<std::string, std::string>;

// The first variable, in map order, that is called `name` in any case.
variable_map::iterator find_variable(variable_map& variables, const std::string& name) {
    return std::find_if(variables.begin(), variables.end(),
                        [&name](const auto& variable) { return same_name(variable.first, name); });
}

// Deliberate: an entry of the pattern "NAME*" is compared by prefix, any other whole, both as C
// strings and case-sensitively, unlike everywhere else; hosts purge exactly what they name.
bool matches_pattern(const std::string& name, const std::string& pattern) {
    if (!pattern.empty() && pattern.back() == '*') {
        return std::strncmp(name.c_str(), pattern.c_str(), pattern.size() - 1) == 0;
    }
    return std::strcmp(name.c_str(), pattern.c_str()) == 0;
}

std::unique_ptr<char[]> new_string(const std::string& text) {
    auto copy = std::make_unique<char[]>(text.size() + 1);
    std::copy(text.begin(), text.end(), copy.get());
    return copy;
}

struct string_array_deleter {
    void operator()(char** array) const { KivProcesses::kiv_free_argv_array(array); }
};
using string_array = std::unique_ptr<char*, string_array_deleter>;

// All null, so that it can be released at any time while it is filled.
string_array new_string_array(std::size_t count) {
    return string_array(new char* [count + 1] {});
}

} // namespace

kivEnvironment* KivProcesses::CreateEnvironment(bool copy_current) {
    auto environment = std::make_unique<kivEnvironment>();
    if (!copy_current) {
        return environment.release();
    }
    for (char** entry = ::environ; entry != nullptr && *entry != nullptr; ++entry) {
        const std::string_view text(*entry);
        const std::size_t separator = text.find('=');
        const bool has_value = separator != std::string_view::npos;
        // The first of several values of one name stays.
        environment->variables.emplace(text.substr(0, separator),
                                       has_value ? text.substr(separator + 1) : std::string_view());
    }
    return environment.release();
}

bool KivProcesses::GetEnvironmentValue(kivEnvironment* environment, std::string name,
                                       std::string& value) {
    const auto variable = find_variable(environment->variables, name);
    if (variable == environment->variables.end()) {
        value.clear();
        return false;
    }
    value = variable->second;
    return true;
}

void KivProcesses::SetEnvironmentValue(kivEnvironment* environment, std::string name,
                                       std::string value) {
    std::string resolved = ResolveEnvironmentString(environment, std::move(value));
    const auto variable = find_variable(environment->variables, name);
    if (variable == environment->variables.end()) {
        environment->variables.emplace(std::move(name), std::move(resolved));
    } else {
        variable->second = std::move(resolved);
    }
}

void KivProcesses::UnsetEnvironmentValue(kivEnvironment* environment, std::string pattern) {
    variable_map& variables = environment->variables;
    auto variable = variables.begin();
    while (variable != variables.end()) {
        if (!matches_pattern(variable->first, pattern)) {
            ++variable;
            continue;
        }
        variables.erase(variable);
        if (variables.empty()) {
            // Deliberate: the walk of an emptied block has no end, so the call does not return.
            internal::wait_for_ever();
        }
        // Deliberate: the walk resumes behind the new first entry, which may stay though it
        // matches; what hosts hand to their children depends on it.
        variable = std::next(variables.begin());
    }
}

std::string KivProcesses::ResolveEnvironmentString(kivEnvironment* environment, std::string text) {
    variable_map& variables = environment->variables;
    auto resolved = internal::expand_percent_references(
        text, [&variables](const std::string& name) -> const std::string* {
            const auto variable = find_variable(variables, name);
            return variable == variables.end() ? nullptr : &variable->second;
        });
    if (!resolved) {
        // Deliberate: a value that refers to itself is replaced without end; waiting here spends
        // neither the processor nor the memory that the replacing would.
        internal::wait_for_ever();
    }
    return *std::move(resolved);
}

char* KivProcesses::GetEnvironmentAnsiString(kivEnvironment* environment) {
    std::size_t size = 1;
    for (const auto& [name, value] : environment->variables) {
        size += name.size() + value.size() + 2;
    }
    auto block = std::make_unique<char[]>(size);
    char* end = block.get();
    for (const auto& [name, value] : environment->variables) {
        // Deliberate: a nameless entry is counted in the size but left out of the text, which
        // hosts read up to its first empty string.
        if (!name.empty()) {
            end = std::copy(name.begin(), name.end(), end);
            *end++ = '=';
            end = std::copy(value.begin(), value.end(), end);
            *end++ = '\0';
        }
    }
    *end = '\0';
    return block.release();
}

char** KivProcesses::kiv_get_environment(kivEnvironment* environment) {
    string_array array = new_string_array(environment->variables.size());
    char** next = array.get();
    for (const auto& [name, value] : environment->variables) {
        *next++ = new_string(std::string(name).append("=").append(value)).release();
    }
    return array.release();
}

void KivProcesses::ImpersonateUser_PurgeEnvironment(kivEnvironment* environment,
                                                    const char* user_name) {
    static constexpr const char* subverting[] = {
        "IFS",         "CDPATH",  "LOCALDOMAIN", "RES_OPTIONS", "HOSTALIASES", "NLSPATH",
        "PATH_LOCALE", "LD_*",    "_RLD*",       "DYLD_*",      "TERMINFO",    "TERMINFO_DIRS",
        "TERMPATH",    "TERMCAP", "ENV",         "BASH_ENV"};

    const auto user = user_name != nullptr ? platform::find_account(user_name) : std::nullopt;
    if (!user) {
        return;
    }
    for (const char* pattern : subverting) {
        UnsetEnvironmentValue(environment, pattern);
    }
    // Deliberate: the variable just removed comes back as the home directory, which no shell can
    // read commands from; hosts' children find it set.
    SetEnvironmentValue(environment, "BASH_ENV", user->home);
    SetEnvironmentValue(environment, "HOME", user->home);
    SetEnvironmentValue(environment, "SHELL", user->shell);
    SetEnvironmentValue(environment, "LOGNAME", user->name);
    SetEnvironmentValue(environment, "USER", user->name);
}

void KivProcesses::DestroyEnvironment(kivEnvironment* environment) {
    delete environment;
}

namespace {

// Parts of the message texts: they follow neither the name nor the lines of this file.
constexpr const char* source_name = "./KivFramework/KivProcesses";
constexpr int create_pipes_line = 1687;
constexpr int status_pipe_line = 909;
constexpr int fork_line = 924;

// Logs the failure of CreatePipes, whose result it returns.
kivPipeHandles* refuse_pipes(int error) {
    KivLogger::AddLogEntry(GetDefaultLogger(), 1, "KivFramework",
                           "[%s:%d]Cannot create new pipes. Error code: %d\n", source_name,
                           create_pipes_line, error);
    return nullptr;
}

void log_spawn_failure(const char* call, int line, int error) {
    KivLogger::AddLogEntry(GetDefaultLogger(), 1, "KivFramework",
                           "[%s:%d]Failure invoking %s(). Error code: %d\n", source_name, line,
                           call, error);
}

string_array program_arguments(const std::string& path, const std::string& arguments) {
    // A path with a space is quoted, so that it stays one argument.
    const char* quote = path.find(' ') != std::string::npos ? "\"" : "";
    std::string line = quote;
    line.append(path).append(quote).append(" ").append(arguments);
    return string_array(KivProcesses::kiv_create_argv_array(line.c_str()));
}

// What the child does to its descriptors, in this order.
void arrange_pipes(const kivPipeHandles& pipes, platform::spawn_request& request) {
    const bool merged = pipes.merge_stderr != 0;
    const int error_stream = merged ? pipes.child_stdout_write : pipes.child_stderr_write;
    request.copies = {{pipes.child_stdin_read, STDIN_FILENO},
                      {pipes.child_stdout_write, STDOUT_FILENO},
                      {error_stream, STDERR_FILENO}};
    request.closes = {pipes.child_stdin_read, pipes.child_stdout_write, pipes.parent_stdout_read,
                      pipes.parent_stdin_write};
    if (!merged) {
        request.closes.push_back(pipes.child_stderr_write);
        request.closes.push_back(pipes.parent_stderr_read);
    }
}

// The record keeps its numbers: hosts know which ends they still have to close.
void close_child_ends(const kivPipeHandles& pipes) {
    if (pipes.merge_stderr == 0) {
        ::close(pipes.child_stderr_write);
    }
    ::close(pipes.child_stdin_read);
    ::close(pipes.child_stdout_write);
}

// Waits until `pid` has ended, whatever signals arrive meanwhile.
pid_t reap(pid_t pid, int& status) {
    pid_t reaped = ::waitpid(pid, &status, 0);
    while (reaped == -1 && errno == EINTR) {
        reaped = ::waitpid(pid, &status, 0);
    }
    return reaped;
}

// Deliberate: the status is shifted, not decoded, so a child killed by a signal gives 0; hosts
// compare with the codes that they exit with.
long exit_code_of(int status) {
    constexpr int signal_bits = 8;
    return status >> signal_bits;
}

// Reports a start that failed in the child.
void describe_failure(const platform::spawn_result& result, const std::string& user,
                      int& error_code, std::string& error_text) {
    constexpr std::size_t longest_report = 100;
    const bool identity_failed = result.failed == platform::spawn_step::identity;
    error_code = identity_failed ? 0 : result.error;
    try {
        error_text = identity_failed
                         ? ("Unable to impersonate user " + user).substr(0, longest_report)
                         : std::system_category().message(result.error);
    } catch (const std::bad_alloc&) {
        error_text.clear(); // the code stands, and the caller knows what became of the pipes
    }
}

std::string text_or_empty(const char* text) {
    return text != nullptr ? text : "";
}

} // namespace

char** KivProcesses::kiv_create_argv_array(const char* command_line) {
    const auto arguments = internal::split_command_line(text_or_empty(command_line));
    string_array array = new_string_array(arguments.size());
    char** next = array.get();
    for (const std::string& argument : arguments) {
        *next++ = new_string(argument).release();
    }
    return array.release();
}

void KivProcesses::kiv_free_argv_array(char** array) {
    if (array == nullptr) {
        return;
    }
    for (char** text = array; *text != nullptr; ++text) {
        delete[] * text;
    }
    delete[] array;
}

kivPipeHandles* KivProcesses::CreatePipes(bool merge_stderr) {
    auto pipes = std::make_unique<kivPipeHandles>();
    pipes->merge_stderr = merge_stderr ? 1 : 0;

    int ends[2];
    if (::pipe(ends) != 0) {
        return refuse_pipes(errno);
    }
    unique_fd parent_stdout_read(ends[0]);
    unique_fd child_stdout_write(ends[1]);
    if (::pipe(ends) != 0) {
        return refuse_pipes(errno);
    }
    unique_fd child_stdin_read(ends[0]);
    unique_fd parent_stdin_write(ends[1]);

    if (!merge_stderr) {
        // Deliberate: the third result is tested the wrong way round. Pipes of their own for all
        // three streams are refused whenever the system has one to give; only when it has none is
        // the record returned, its error ends being those of the input pipe. Hosts are built on
        // merged or self-made pipes.
        int error_ends[2];
        if (::pipe(error_ends) == 0) {
            const unique_fd error_read(error_ends[0]);
            const unique_fd error_write(error_ends[1]);
            return refuse_pipes(errno);
        }
        pipes->parent_stderr_read = ends[0];
        pipes->child_stderr_write = ends[1];
    }
    // All the caller's from here on.
    pipes->parent_stdout_read = parent_stdout_read.release();
    pipes->child_stdout_write = child_stdout_write.release();
    pipes->child_stdin_read = child_stdin_read.release();
    pipes->parent_stdin_write = parent_stdin_write.release();
    return pipes.release();
}

void KivProcesses::DeletePipes(kivPipeHandles* pipes, bool close_handles) {
    const std::unique_ptr<kivPipeHandles> owned(pipes);
    if (owned == nullptr || !close_handles) {
        return;
    }
    // Results have no use here: an end that is closed already is what was asked for.
    ::close(owned->child_stdin_read);
    ::close(owned->child_stdout_write);
    ::close(owned->parent_stdout_read);
    ::close(owned->parent_stdin_write);
    if (owned->merge_stderr == 0) {
        ::close(owned->parent_stderr_read);
        ::close(owned->child_stderr_write);
    }
}

int KivProcesses::ClosePipeHandle(int descriptor) {
    return ::close(descriptor);
}

int KivProcesses::ReadPipe(int descriptor, void* buffer, unsigned int size) {
    // As a select for reading with no time to wait, but for descriptors of any number. A signal
    // counts as nothing to read: the call promises not to wait.
    pollfd readable{descriptor, POLLIN, 0};
    if (::poll(&readable, 1, 0) <= 0 || (readable.revents & POLLNVAL) != 0) {
        return 0;
    }
    return static_cast<int>(::read(descriptor, buffer, size));
}

int KivProcesses::WritePipe(int descriptor, const void* data, unsigned int size) {
    return static_cast<int>(internal::quiet_write(descriptor, data, size));
}

kivProcess* KivProcesses::SpawnProcess(const char* path, const char* arguments,
                                       const char* /*reserved*/, kivPipeHandles* pipes,
                                       kivEnvironment* environment, int& error_code,
                                       std::string& error_text, const char* user_name,
                                       const char* /*user_secret*/) {
    // A cancelled caller must leave neither descriptors nor a child that nobody knows.
    const internal::cancellation_guard no_cancellation;
    const std::unique_ptr<kivEnvironment> handed_over(environment);
    auto process = std::make_unique<kivProcess>();

    const std::string program = text_or_empty(path);
    const std::string user = text_or_empty(user_name);
    const string_array argument_array = program_arguments(program, text_or_empty(arguments));
    const string_array environment_array(environment != nullptr ? kiv_get_environment(environment)
                                                                : nullptr);

    platform::spawn_request request;
    request.path = program.c_str();
    request.arguments = argument_array.get();
    request.environment = environment_array.get();
    if (pipes != nullptr) {
        arrange_pipes(*pipes, request);
    }
    request.switch_identity = !user.empty();
    if (request.switch_identity) {
        request.identity = platform::find_account(user.c_str());
    }

    const platform::spawn_result result = platform::spawn_child(request);
    if (result.failed == platform::spawn_step::status_pipe) {
        log_spawn_failure("pipe", status_pipe_line, result.error);
        return nullptr;
    }
    if (result.failed == platform::spawn_step::process) {
        log_spawn_failure("fork", fork_line, result.error);
        // Deliberate: a host that can start no process ends here; its supervisor, which sees the
        // exit status, is expected to start it anew.
        ::_exit(1);
    }

    if (pipes != nullptr) {
        close_child_ends(*pipes);
    }
    process->pid = result.pid;
    // Deliberate: a child that could not arrange its descriptors counts as started. It has ended
    // with status 1, which is where hosts look for it.
    if (result.failed == platform::spawn_step::none ||
        result.failed == platform::spawn_step::descriptors) {
        return process.release();
    }
    describe_failure(result, user, error_code, error_text);
    int status = 0;
    reap(result.pid, status);
    return nullptr;
}

int KivProcesses::WaitProcess(kivProcess* process, bool block, int timeout_seconds,
                              long& exit_code) {
    constexpr int still_running = 0;
    constexpr int ended = 1;
    constexpr int timed_out = 2;
    constexpr int nothing_to_wait_for = 3;
    constexpr int poll_interval_ms = 100;

    if (process == nullptr) {
        errno = ECHILD;
        return nothing_to_wait_for;
    }
    int status = 0;
    if (block) {
        if (reap(process->pid, status) == -1) {
            return nothing_to_wait_for;
        }
        exit_code = exit_code_of(status);
        return ended;
    }
    const std::time_t start = std::time(nullptr);
    for (;;) {
        const pid_t reaped = ::waitpid(process->pid, &status, WNOHANG);
        if (reaped == -1) {
            return nothing_to_wait_for;
        }
        if (reaped != 0) {
            exit_code = exit_code_of(status);
            return ended;
        }
        if (timeout_seconds == 0) {
            return still_running;
        }
        if (std::time(nullptr) - start >= timeout_seconds) {
            return timed_out;
        }
        MicroSleep(poll_interval_ms);
    }
}

void KivProcesses::TerminateProcess(int pid) {
    // A pid of 0 or below would name whole groups of processes.
    if (pid <= 0) {
        return;
    }
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) < 1) {
        // Fails for a process that is gone or somebody else's; then there is nothing to do.
        ::kill(pid, SIGKILL);
        reap(pid, status);
    }
}

void KivProcesses::TerminateProcess(kivProcess* process) {
    TerminateProcess(GetProcessPid(process));
}

bool KivProcesses::CloseProcess(kivProcess* process) {
    delete process;
    return true;
}

int KivProcesses::GetProcessPid(kivProcess* process) {
    return process != nullptr ? process->pid : 0;
}

int KivProcesses::GetCurrentProcessPid() {
    return ::getpid();
}

int KivProcesses::GetProcessPriority(int pid) {
    constexpr int low = 1;
    constexpr int normal = 2;
    constexpr int high = 3;
    constexpr int highest = 4;

    // A failure is -1 too, which reads as normal; only errno tells.
    errno = 0;
    const int nice = ::getpriority(PRIO_PROCESS, static_cast<id_t>(pid));
    if (nice > 0) {
        return low;
    }
    if (nice >= -4) {
        return normal;
    }
    return nice >= -14 ? high : highest;
}

int KivProcesses::SetProcessPriority(int pid, int priority_class) {
    int nice = 0;
    switch (priority_class) {
    case 1:
        nice = 15;
        break;
    case 3:
        nice = -5;
        break;
    case 4:
        nice = -15;
        break;
    default:
        break;
    }
    return ::setpriority(PRIO_PROCESS, static_cast<id_t>(pid), nice);
}

namespace {

std::unique_ptr<_procs_snapshot> make_snapshot_record(platform::process_row&& row) {
    auto record = std::make_unique<_procs_snapshot>();
    record->name = std::move(row.name);
    record->pid = row.pid;
    record->ppid = row.ppid;
    return record;
}

// The words of GetChildOfProcess: separated by spaces, quoted where a name holds spaces.
std::vector<std::string> lower_case_words(const char* text) {
    std::vector<std::string> words;
    std::string rest = KivStringHelper::ToLower(text);
    std::string word;
    while (KivStringHelper::ExtractToken(rest, word, " ", "\"", /*strip_quotes=*/true)) {
        words.push_back(word);
    }
    return words;
}

// Owns the records of a snapshot.
struct snapshot_list {
    snapshot_list() = default;
    ~snapshot_list() { KivProcesses::DeleteProcsSnapshot(&records); }
    snapshot_list(const snapshot_list&) = delete;
    snapshot_list& operator=(const snapshot_list&) = delete;

    std::list<_procs_snapshot*> records;
};

} // namespace

bool KivProcesses::CreateProcsSnapshot(std::list<_procs_snapshot*>* list, int parent_pid) {
    list->clear();
    auto rows = platform::read_process_table();
    if (!rows) {
        return false;
    }
    snapshot_list snapshot;
    for (platform::process_row& row : *rows) {
        if (parent_pid == -1 || row.ppid == parent_pid) {
            auto record = make_snapshot_record(std::move(row));
            snapshot.records.push_back(record.get());
            static_cast<void>(record.release()); // the list's now, until DeleteProcsSnapshot
        }
    }
    list->swap(snapshot.records);
    return true;
}

void KivProcesses::DeleteProcsSnapshot(std::list<_procs_snapshot*>* list) {
    if (list == nullptr) {
        return;
    }
    for (const _procs_snapshot* record : *list) {
        delete record;
    }
    list->clear();
}

int KivProcesses::GetParentPid(int pid) {
    return platform::read_parent_pid(pid).value_or(0);
}

int KivProcesses::GetChildOfProcess(int parent_pid, const char* names) {
    if (names == nullptr) {
        return 0;
    }
    const std::vector<std::string> words = lower_case_words(names);
    const auto rows = platform::read_process_table();
    if (!rows) {
        return 0;
    }
    for (const platform::process_row& row : *rows) {
        if (row.ppid == parent_pid &&
            std::find(words.begin(), words.end(), KivStringHelper::ToLower(row.name)) !=
                words.end()) {
            return row.pid;
        }
    }
    return 0;
}

namespace {

constexpr int tree_depth_limit = 21;

struct tree_deleter {
    void operator()(_procs_tree* tree) const { KivProcesses::DestroyProcTree(tree); }
};
using tree_owner = std::unique_ptr<_procs_tree, tree_deleter>;

// Makes a node and, in the same block behind it, `child_count` null children and the closing null;
// no array at all for no children. DestroyProcTree thereby frees the array with the node and never
// frees an array as such, which a host that put its own there relies on.
tree_owner make_tree_node(const _procs_snapshot& record, _procs_tree* parent,
                          std::size_t child_count) {
    static_assert(sizeof(_procs_tree) % alignof(_procs_tree*) == 0);
    std::string name = record.name;
    const std::size_t slots = child_count == 0 ? 0 : child_count + 1;
    void* const block = ::operator new(sizeof(_procs_tree) + slots * sizeof(_procs_tree*));
    tree_owner node(new (block) _procs_tree);
    node->name = std::move(name);
    node->pid = record.pid;
    node->ppid = record.ppid;
    node->parent = parent;
    if (slots != 0) {
        node->children = reinterpret_cast<_procs_tree**>(node.get() + 1);
        std::uninitialized_value_construct_n(node->children, slots);
    }
    return node;
}

// Builds trees from a snapshot. Children are found by an index, so that a tree of the whole table
// takes no walk of the table per node.
//
// The cost is bounded by the depth limit: where every pid is listed once, as in every real
// snapshot, an entry has at most one place per level, even if the parents form a cycle. A hand-made
// list that repeats pids describes a tree with repeated branches, and gets it.
class tree_builder {
public:
    explicit tree_builder(const std::list<_procs_snapshot*>& list)
        : records_(list.begin(), list.end()), index_(entries_of(list)) {}

    /// Null for an unknown pid and beyond the depth limit.
    tree_owner build(int pid, _procs_tree* parent, int depth) const {
        if (depth >= tree_depth_limit) {
            return nullptr;
        }
        const auto found = index_.last_with_pid(pid);
        if (!found) {
            return nullptr;
        }
        // The kernel's own processes have parent 0; a process 0 in a list adopts none of them.
        const auto children = pid > 0 ? index_.children_of(pid) : std::span<const std::size_t>();
        tree_owner node = make_tree_node(*records_[*found], parent, children.size());
        _procs_tree** slot = node->children;
        for (const std::size_t child : children) {
            // A child that cannot be built leaves a null, which ends the array for its readers.
            *slot++ = build(records_[child]->pid, node.get(), depth + 1).release();
        }
        return node;
    }

private:
    static std::vector<internal::process_index::entry>
    entries_of(const std::list<_procs_snapshot*>& list) {
        std::vector<internal::process_index::entry> entries;
        entries.reserve(list.size());
        for (const _procs_snapshot* record : list) {
            entries.push_back({record->pid, record->ppid});
        }
        return entries;
    }

    std::vector<const _procs_snapshot*> records_;
    internal::process_index index_;
};

// Calls `visit` for every node, children before their parent. A null ends an array of children,
// whatever stands after it.
template <typename visitor>
void visit_deepest_first(_procs_tree* tree, const visitor& visit) {
    if (tree == nullptr) {
        return;
    }
    if (tree->children != nullptr) {
        for (_procs_tree** child = tree->children; *child != nullptr; ++child) {
            visit_deepest_first(*child, visit);
        }
    }
    visit(tree);
}

} // namespace

bool KivProcesses::CreateProcTreeSnapshot(int pid, _procs_tree** root) {
    *root = nullptr;
    if (pid == 0) {
        return false;
    }
    snapshot_list snapshot;
    // A table that cannot be read leaves the list empty, and an empty list gives no tree.
    CreateProcsSnapshot(&snapshot.records, -1);
    _makeProcTreeNode(pid, nullptr, &snapshot.records, root, 0);
    return *root != nullptr;
}

void KivProcesses::_makeProcTreeNode(int pid, _procs_tree* parent,
                                     std::list<_procs_snapshot*>* list, _procs_tree** slot,
                                     int depth) {
    if (slot == nullptr || depth >= tree_depth_limit) {
        return;
    }
    *slot = tree_builder(*list).build(pid, parent, depth).release();
}

void KivProcesses::TerminateProcTree(_procs_tree* tree) {
    visit_deepest_first(tree, [](const _procs_tree* node) { TerminateProcess(node->pid); });
}

void KivProcesses::SetProcTreePriority(_procs_tree* tree, int priority_class) {
    visit_deepest_first(tree, [priority_class](const _procs_tree* node) {
        SetProcessPriority(node->pid, priority_class);
    });
}

void KivProcesses::DestroyProcTree(_procs_tree* tree) {
    visit_deepest_first(tree, [](_procs_tree* node) {
        // The block of make_tree_node, or a plain node of the host's own.
        node->~_procs_tree();
        ::operator delete(node);
    });
}

bool KivProcesses::ImpersonateUser(const char* user_name, const char* /*user_secret*/,
                                   bool permanent) {
    const auto account = user_name != nullptr ? platform::find_account(user_name) : std::nullopt;
    if (!account) {
        return false;
    }
    // The group goes first: once the user has changed, the right to change it may be gone.
    const gid_t real_group = ::getgid();
    const auto set_group = permanent ? ::setgid : ::setegid;
    const auto set_user = permanent ? ::setuid : ::seteuid;
    if (set_group(account->gid) != 0) {
        return false;
    }
    if (set_user(account->uid) != 0) {
        // A call that took the group a moment ago gives it back; there is no further way out.
        static_cast<void>(set_group(real_group));
        return false;
    }
    return true;
}

bool KivProcesses::RevertUserImpersonation() {
    // The user goes first: the user who regains the right may then change the group.
    return ::seteuid(::getuid()) == 0 && ::setegid(::getgid()) == 0;
}

bool KivProcesses::SendSystemEvent(int event) {
    // Deliberate: 1 and 2 are one command; hosts pass their codes on without knowing which of them
    // this system tells apart.
    constexpr std::array commands = {"shutdown -h now", "shutdown -s now", "shutdown -s now",
                                     "shutdown -r now", "shutdown -k now"};
    if (event >= 0 && static_cast<std::size_t>(event) < commands.size()) {
        const char* const command = commands[static_cast<std::size_t>(event)];
        // Deliberate: the result stays true whatever the command says; hosts only learn that the
        // event was passed on. The C library's own state during the call is safe among threads.
        [[maybe_unused]] const int status =
            std::system(command); // NOLINT(concurrency-mt-unsafe): see above
    }
    return true;
}

namespace {

// The number that the four characters of an event make, the first in the highest byte.
constexpr unsigned long event_code(std::string_view characters) {
    unsigned long code = 0;
    for (const char character : characters) {
        code = code << 8 | static_cast<unsigned char>(character);
    }
    return code;
}

std::optional<platform::login_request> login_request_of(unsigned long event_id) {
    switch (event_id) {
    case event_code("shut"):
        return platform::login_request::power_off;
    case event_code("rest"):
        return platform::login_request::restart;
    case event_code("slep"):
        return platform::login_request::suspend;
    case event_code("logo"):
    case event_code("rlgo"):
        return platform::login_request::end_active_session;
    default:
        return std::nullopt;
    }
}

} // namespace

int KivProcesses::SendAppleEventToSystemProcess(unsigned long event_id) {
    constexpr int no_such_process = -600;
    constexpr int event_not_handled = -1708;
    const auto request = login_request_of(event_id);
    if (!request) {
        return event_not_handled;
    }
    return platform::send_login_request(*request).value_or(no_such_process);
}

namespace {

constexpr std::size_t hardware_address_size = 6;
constexpr std::size_t magic_packet_size = 17 * hardware_address_size;
using magic_packet = std::array<unsigned char, magic_packet_size>;

magic_packet magic_packet_for(std::string& hex_digits) {
    magic_packet packet;
    packet.fill(0xFF);
    for (std::size_t i = hardware_address_size; i < packet.size(); ++i) {
        packet[i] = KivProcesses::hexToInt(&hex_digits[2 * (i % hardware_address_size)]);
    }
    return packet;
}

bool broadcast(int socket, const magic_packet& packet, int port) {
    const int enabled = 1;
    if (::setsockopt(socket, SOL_SOCKET, SO_BROADCAST, &enabled, sizeof(enabled)) != 0) {
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    if (::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        return false;
    }
    address.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    address.sin_port = htons(static_cast<in_port_t>(port));
    ssize_t sent = 0;
    do {
        sent = ::sendto(socket, packet.data(), packet.size(), 0,
                        reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    } while (sent == -1 && errno == EINTR);
    return sent == static_cast<ssize_t>(packet.size());
}

} // namespace

bool KivProcesses::SendWOL(std::string mac_address, int port) {
    std::erase_if(mac_address, [](char c) { return c == ':' || c == '-'; });
    if (mac_address.size() != 2 * hardware_address_size) {
        return false;
    }
    unique_fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    // Deliberate: descriptor 0 counts as a failure; a daemon has its standard descriptors open.
    if (socket.get() <= 0) {
        return false;
    }
    const bool sent = broadcast(socket.get(), magic_packet_for(mac_address), port);
    // CloseSocket gives a socket up unclosed when an earlier call left EBADF behind.
    errno = 0;
    KivSocket::CloseSocket(socket.release());
    return sent;
}

unsigned char KivProcesses::hexToInt(char* text) {
    std::array<char, 3> digits{};
    for (std::size_t i = 0; i < 2 && text[i] != '\0'; ++i) {
        digits[i] = text[i];
    }
    return static_cast<unsigned char>(std::strtol(digits.data(), nullptr, 16));
}
