/// \file
/// Locks, conditions and threads; environments, child processes, process snapshots and trees;
/// impersonation, system events and Wake-on-LAN.
///
/// Threads: calls on different objects may run in any number of threads at once. Mutexes,
/// conditions and read/write lockers are there to be shared, until one thread destroys them when
/// nobody uses them any more; a thread's handle may be polled, but is joined by one thread; every
/// other record, list and tree belongs to one thread at a time. No call changes the process's own
/// environment or installs a signal handler. Process-wide are `ImpersonateUser` and
/// `RevertUserImpersonation`, which switch all threads, `SendSystemEvent`, during which the process
/// ignores SIGINT and SIGQUIT, and the reaping of a child, which succeeds once. `errno` is the
/// calling thread's own.
#pragma once

#include "KivFramework/KivExport.h"

#include <list>
#include <map>
#include <string>

#include <pthread.h>

namespace KivFramework {
namespace KivProcesses {

/// A condition variable bound to a mutex that it does not own.
///
/// Made by `CreateConditional`, released by `DestroyConditional`, which must happen before the
/// borrowed mutex is destroyed.
struct _posix_conditional_var {
    pthread_mutex_t* mutex = nullptr; ///< borrowed: released and taken again by the waits
    pthread_cond_t* cond = nullptr;   ///< owned
};

/// A read/write lock that lets waiting writers go before new readers.
///
/// Made by `CreateRWLocker`, torn down by `DestroyRWLocker`. `mutex` guards every other field.
struct _kivRWLocker {
    pthread_mutex_t* mutex = nullptr;               ///< owned; held during operations, not waits
    _posix_conditional_var* readers_cond = nullptr; ///< owned; waiting readers are woken by it
    _posix_conditional_var* writers_cond = nullptr; ///< owned; waiting writers are woken by it
    int lock_count = 0;      ///< 0 free; n > 0: n read holds; -k: k (nested) write holds
    int waiting_readers = 0; ///< threads that wait for a read hold
    int waiting_writers = 0; ///< threads that wait for the write hold; they go before new readers
    int recursive = 0;       ///< when set, a thread may take again what it already holds
    pthread_t writer_thread = pthread_t();   ///< kept in recursive mode only
    std::map<pthread_t, int> reader_threads; ///< read holds per thread, in recursive mode only
};

/// A joinable thread. Made by `SpawnThread`, released by `JoinThread`.
struct kivThreadObj {
    pthread_t thread = pthread_t(); ///< the POSIX thread, for a join or a cancellation
    int ended = 0;                  ///< 1 once the thread has called `EndThread`
    int exit_code = 0;              ///< what `EndThread` was given; meaningless before it
};

/// What a thread function receives as its argument. It belongs to the running thread, which
/// releases it with `EndThread`.
struct kivThreadStart {
    void* data = nullptr;               ///< the argument given to `SpawnThread`
    kivThreadObj* thread_obj = nullptr; ///< the thread's own handle; the joiner frees it
};

/// An editable set of environment variables for a child process. Made by `CreateEnvironment`,
/// released by `DestroyEnvironment` or by `SpawnProcess`.
struct kivEnvironment {
    /// Values by name, in the order of the names' bytes; "Path" and "PATH" may both be there.
    std::map<std::string, std::string> variables;
};

/// A child process. Made by `SpawnProcess`, released by `CloseProcess`.
struct kivProcess {
    int pid = 0; ///< stays as it is after the child has ended and was reaped
};

/// The pipes of a child's standard streams. Made by `CreatePipes` or filled by the host, released
/// by `DeletePipes`.
struct kivPipeHandles {
    int parent_stdout_read = -1; ///< the child's standard output; kept by the parent
    int parent_stdin_write = -1; ///< the child's standard input; kept by the parent
    int parent_stderr_read = -1; ///< the child's standard error; unused when merged
    int child_stdin_read = -1;   ///< becomes the child's descriptor 0
    int child_stdout_write = -1; ///< becomes the child's descriptor 1
    int child_stderr_write = -1; ///< becomes the child's descriptor 2; unused when merged
    int merge_stderr = 0;        ///< nonzero: standard error goes into the output pipe
};

/// One process of a flat snapshot. Made by `CreateProcsSnapshot`, freed by `DeleteProcsSnapshot`.
struct _procs_snapshot {
    std::string name; ///< short command name, at most 16 characters; the system cuts longer ones
    int pid = 0;      ///< the process's number, above 0
    int ppid = 0;     ///< the parent's pid; 0 for a process without one
};

/// One node of a process tree. Made by `CreateProcTreeSnapshot`, freed by `DestroyProcTree`.
struct _procs_tree {
    std::string name;                 ///< as in a flat snapshot
    int pid = 0;                      ///< as in a flat snapshot
    int ppid = 0;                     ///< the parent's pid, in the root as well
    _procs_tree* parent = nullptr;    ///< the node above; null for the root
    _procs_tree** children = nullptr; ///< closed by a null pointer; null for no children at all
};

/// Makes a mutex with default attributes: not recursive, no error checking.
///
/// \returns the mutex, the caller's until `DestroyMutex`; null when `pthread_mutex_init` fails.
KIV_API pthread_mutex_t* CreateMutex();

/// Takes `mutex`, waiting as long as it is held elsewhere.
///
/// \returns the result of `pthread_mutex_lock`: 0 on success.
KIV_API int LockMutex(pthread_mutex_t* mutex);

/// Releases `mutex`, which the calling thread holds.
///
/// \returns the result of `pthread_mutex_unlock`: 0 on success.
KIV_API int UnlockMutex(pthread_mutex_t* mutex);

/// Takes `mutex` unless somebody holds it; never waits.
///
/// \returns true when the mutex is now held.
KIV_API bool TryLockMutex(pthread_mutex_t* mutex);

/// Destroys and frees `mutex`, which nobody may hold; null is ignored.
///
/// \returns always true.
KIV_API bool DestroyMutex(pthread_mutex_t* mutex);

/// Makes a condition that waits on the mutex that `*mutex` holds now.
///
/// \param mutex  address of a mutex handle; the mutex stays the caller's and must outlive the
///               condition.
/// \returns the condition, the caller's until `DestroyConditional`.
KIV_API _posix_conditional_var* CreateConditional(pthread_mutex_t** mutex);

/// Waits for a signal; the caller holds the condition's mutex, which is free during the wait.
///
/// As with every POSIX condition, a wait may end without a signal: wait in a loop on what you wait
/// for.
///
/// \code
/// KivProcesses::LockMutex(table.mutex);
/// while (table.running > 0) { // a wait may end without a signal
///     KivProcesses::WaitConditional(table.finished);
/// }
/// KivProcesses::UnlockMutex(table.mutex);
/// \endcode
///
/// \returns always true.
KIV_API bool WaitConditional(_posix_conditional_var* condition);

/// Waits for a signal for at most `milliseconds`; the caller holds the condition's mutex.
///
/// \returns false when the time passed; true after a signal, and after every other failure of
///          `pthread_cond_timedwait`.
///
/// Deliberate: the deadline's microseconds carry into its seconds only when they are above
/// 1000000. A sum of exactly 1000000 makes an invalid deadline, so about one wait in a million
/// returns true at once; hosts that loop on their own condition never notice.
KIV_API bool WaitTimedConditional(_posix_conditional_var* condition, int milliseconds);

/// Wakes one waiter, if there is one.
///
/// \returns always true.
KIV_API bool SignalConditional(_posix_conditional_var* condition);

/// Wakes all waiters.
///
/// \returns always true.
KIV_API bool BroadcastSignalConditional(_posix_conditional_var* condition);

/// Destroys and frees `condition`, on which nobody may wait; its mutex is left alone. Null is
/// ignored.
///
/// \returns always true.
KIV_API bool DestroyConditional(_posix_conditional_var* condition);

/// Makes a free read/write locker.
///
/// \param ignored  accepted and never looked at.
/// \returns the locker; see `DestroyRWLocker` for its end.
///
/// Deliberate: every locker starts non-recursive, whatever `ignored` says. A host that wants
/// recursion sets the record's `recursive` field before the first lock.
KIV_API _kivRWLocker* CreateRWLocker(bool ignored);

/// Takes a read hold; waits while a writer holds the lock or waits for it.
///
/// Threads: a thread that is cancelled in the wait leaves as if it had never come.
KIV_API void LockReadRWLocker(_kivRWLocker* locker);

/// Takes a read hold unless a writer holds the lock; never waits, and lets no waiting writer go
/// first.
///
/// \returns true only when a recursive locker was re-entered by a thread that already reads.
///
/// Deliberate: a fresh read hold is taken although false is returned. After a try that found no
/// writer the caller owes an `UnlockRWLocker`; `lock_count` tells the cases apart.
KIV_API bool TryLockReadRWLocker(_kivRWLocker* locker);

/// A placeholder for a timed try: touches nothing, waits for nothing, returns false.
KIV_API bool TryLockReadRWLocker(_kivRWLocker* locker, int milliseconds);

/// Takes the write hold; waits until the lock is free.
///
/// Threads: a thread that is cancelled in the wait leaves as if it had never come.
KIV_API void LockWriteRWLocker(_kivRWLocker* locker);

/// Takes the write hold if the lock is free, or nests it in a recursive locker; never waits.
///
/// \returns true when the write hold was taken or nested.
KIV_API bool TryLockWriteRWLocker(_kivRWLocker* locker);

/// A placeholder for a timed try: touches nothing, waits for nothing, returns false.
KIV_API bool TryLockWriteRWLocker(_kivRWLocker* locker, int milliseconds);

/// Releases one hold of either kind; a free locker is left alone.
///
/// When the lock becomes free one waiting writer wakes; with no writer waiting, all readers do.
KIV_API void UnlockRWLocker(_kivRWLocker* locker);

/// Destroys the locker's conditions and mutex; nobody may hold or wait for the lock. Null is
/// ignored.
///
/// \returns always false.
///
/// Deliberate: the record itself is not freed, because hosts look at it afterwards. A host that
/// has no further use for it deletes it.
KIV_API bool DestroyRWLocker(_kivRWLocker* locker);

/// Starts `start` on a new joinable thread.
///
/// The function receives a start block, reads `data` out of it with `GetThreadData` and calls
/// `EndThread` with it as its last act.
///
/// \code
/// void* count_entries(void* block) {
///     auto* table = static_cast<shared_table*>(KivProcesses::GetThreadData(block));
///     std::size_t seen = 0;
///     while (seen < 1000) {
///         KivProcesses::LockReadRWLocker(table->locker);
///         seen = table->entries.size();
///         KivProcesses::UnlockRWLocker(table->locker);
///     }
///     leave(table);
///     KivProcesses::EndThread(static_cast<int>(seen), block);
///     return nullptr;
/// }
/// \endcode
///
/// \returns the thread's handle, the caller's until `JoinThread`; null when no thread could be
///          started, or when there is no memory for what its end will take.
KIV_API kivThreadObj* SpawnThread(void* (*start)(void*), void* data);

/// The `data` that was given to `SpawnThread`.
KIV_API void* GetThreadData(void* block);

/// Ends the calling thread: stores `exit_code`, marks the handle as ended, frees the block. Does
/// not return.
KIV_API void EndThread(int exit_code, void* block);

/// Nonzero once the thread has called `EndThread`, so that a join will not block; a hint for
/// polling.
KIV_API int CheckJoinableThread(kivThreadObj* thread);

/// Waits for a thread to end, frees its handle and returns its exit code.
///
/// Each thread is joined once. The exit code of a thread that was cancelled, or that returned
/// without `EndThread`, has no meaning. Null is ignored and gives 0.
KIV_API int JoinThread(kivThreadObj* thread);

/// Asks a thread to stop at its next cancellation point; it still has to be joined.
///
/// \returns the result of `pthread_cancel`: 0 on success.
KIV_API int TerminateThread(kivThreadObj* thread);

/// Makes an environment block, empty or as a copy of the calling process's environment.
///
/// A variable without "=" gets an empty value; of several variables of one name the first stays.
///
/// \returns the block, the caller's until `DestroyEnvironment` or until it is handed to
///          `SpawnProcess`.
///
/// Threads: a copy must not run beside `setenv` or `putenv` of another thread.
KIV_API kivEnvironment* CreateEnvironment(bool copy_current);

/// Finds a variable by name, in any case.
///
/// Names are compared after the C library's `tolower` of every byte. With both "PATH" and "Path"
/// in the block, "PATH" is found, as it sorts first.
///
/// \param[out] value  the variable's value; empty when there is none.
/// \returns whether there is such a variable.
///
/// Threads: no lock; one thread at a time.
KIV_API bool GetEnvironmentValue(kivEnvironment* environment, std::string name, std::string& value);

/// Gives a variable a value, after the expansion of `value` by `ResolveEnvironmentString`.
///
/// A variable found as by `GetEnvironmentValue` keeps its name as it is written in the block;
/// otherwise `name` is added. `value` may refer to the variable's own old value:
/// `SetEnvironmentValue(environment, "PATH", "%PATH%:/opt/bin")`.
///
/// Threads: no lock; one thread at a time.
KIV_API void SetEnvironmentValue(kivEnvironment* environment, std::string name, std::string value);

/// Removes the variable called `pattern`, or, for a pattern "NAME*", all whose names begin with
/// NAME.
///
/// Threads: no lock; one thread at a time.
/// Deliberate: unlike everywhere else, case matters. After a removal the walk goes on behind the
/// block's new first variable, which therefore stays even when it matches; and a removal that
/// empties the block never returns (it waits without using the processor). Hosts' blocks depend on
/// what remains; a block that keeps at least one variable apart is safe.
KIV_API void UnsetEnvironmentValue(kivEnvironment* environment, std::string pattern);

/// Replaces the `%NAME%` references of `text` by the block's values, references inside these
/// values too.
///
/// An unknown name counts as empty. Examples, with HOM set to "/h": "%HOM%/x" gives "/h/x", "50%"
/// gives "50".
///
/// Threads: no lock; one thread at a time.
/// Deliberate: without a closing "%" the last character of the text is taken for one ("%HOME"
/// gives "/h"), and of "%%" the second one goes along with the character behind it ("a%%b" gives
/// "a"). A value that refers to itself, directly or through others, is replaced without end: the
/// call never returns (it waits without using the processor). Hosts' texts are written for these
/// results.
KIV_API std::string ResolveEnvironmentString(kivEnvironment* environment, std::string text);

/// The whole block as one text: "name=value" strings in the order of names, each ended by a zero
/// byte, and one more zero byte at the end.
///
/// \returns a new buffer, the caller's, who frees it with `delete[]`.
///
/// Threads: no lock; one thread at a time.
/// Deliberate: a variable with an empty name is left out of the text, though the buffer has room
/// for it, because an empty string ends the text.
KIV_API char* GetEnvironmentAnsiString(kivEnvironment* environment);

/// The whole block as an array of "name=value" strings in the order of names, closed by a null
/// pointer, as `execve` takes it. A variable with an empty name is included, as "=value".
///
/// \returns a new array of new strings, the caller's until `kiv_free_argv_array`.
///
/// Threads: no lock; one thread at a time.
KIV_API char** kiv_get_environment(kivEnvironment* environment);

/// Prepares a block for a program that will run as `user_name`.
///
/// Removes, each as by `UnsetEnvironmentValue`, the variables that could subvert the program: IFS,
/// CDPATH, LOCALDOMAIN, RES_OPTIONS, HOSTALIASES, NLSPATH, PATH_LOCALE, LD_*, _RLD*, DYLD_*,
/// TERMINFO, TERMINFO_DIRS, TERMPATH, TERMCAP, ENV and BASH_ENV. Then sets BASH_ENV and HOME to the
/// user's home directory, SHELL to the login shell, LOGNAME and USER to the account's name.
///
/// Nothing happens when there is no such user.
///
/// Threads: no lock; one thread at a time.
/// Deliberate: BASH_ENV comes back as the home directory, where no shell finds commands to run. And
/// `UnsetEnvironmentValue` keeps its ways: a block whose only variable is among those removed never
/// returns.
KIV_API void ImpersonateUser_PurgeEnvironment(kivEnvironment* environment, const char* user_name);

/// Frees a block; null is ignored. What was made from it stays valid.
KIV_API void DestroyEnvironment(kivEnvironment* environment);

/// Splits a command line into an argument vector, closed by a null pointer, as `execv` takes it.
///
/// Spaces and tabs separate. Double quotes enclose text in which they do not, and the closing quote
/// ends the argument: `x "y z" w` gives x, y z and w, `""` one empty argument, `ab"cd"` abcd. A
/// backslash before a double quote makes it an ordinary character; any other backslash is one
/// itself. There is no limit on number or length. Null counts as an empty text.
///
/// \returns a new array of new strings, the caller's until `kiv_free_argv_array`.
///
/// Deliberate: text that began no argument (an escaped quote outside quotes, an opened quote that
/// is never closed) is kept for the next argument, or dropped at the end of the text; command lines
/// of existing hosts are read the same way as ever.
KIV_API char** kiv_create_argv_array(const char* command_line);

/// Frees an array of `kiv_create_argv_array` or `kiv_get_environment` with its strings; null is
/// ignored.
KIV_API void kiv_free_argv_array(char** array);

/// Makes the pipes for a child's standard streams.
///
/// The caller keeps the `parent_...` ends; `SpawnProcess` closes the `child_...` ends. None of them
/// is close-on-exec: children started meanwhile by other threads inherit them, so a reader may see
/// the end of a stream only when those have ended too.
///
/// \param merge_stderr  the child's standard error goes into the output pipe.
/// \returns the pipes, the caller's until `DeletePipes`; null when a pipe cannot be made, which is
///          also logged.
///
/// Deliberate: with `merge_stderr` false the result is null whenever the system has a third pipe to
/// give; only when it has none does the record come back, with the numbers of the input pipe as
/// its error ends. Hosts are built on merged pipes; one that needs all three streams apart fills a
/// record itself.
KIV_API kivPipeHandles* CreatePipes(bool merge_stderr);

/// Frees the record, after closing all its ends when `close_handles` says so; null is ignored.
///
/// After a spawn the `child_...` ends are closed already, though their numbers still stand in the
/// record and may have come back for other descriptors: close the own ends with `ClosePipeHandle`
/// and pass false.
KIV_API void DeletePipes(kivPipeHandles* pipes, bool close_handles);

/// Closes one end of a pipe.
///
/// \returns the result of `close`: 0 on success, -1 otherwise (`errno` tells why).
KIV_API int ClosePipeHandle(int descriptor);

/// Reads what is there, at most `size` bytes, without waiting.
///
/// \returns the number of bytes; 0 when there is nothing to read, at the end of the stream and for
///          a descriptor that is not open; -1 when `read` failed (`errno` tells why).
///
/// Threads: one reader per pipe. A second one may take the bytes away in between, and the call
/// would wait for more.
KIV_API int ReadPipe(int descriptor, void* buffer, unsigned int size);

/// Writes to a pipe; waits while it is full, unless the descriptor is non-blocking.
///
/// Raises no SIGPIPE in the host: a pipe that nobody reads any more gives -1 and EPIPE.
///
/// \returns the result of `write`: the number of bytes, possibly fewer than `size`; -1 on failure
///          (`errno` tells why; EINTR when a signal came before the first byte).
KIV_API int WritePipe(int descriptor, const void* data, unsigned int size);

/// Starts a program and returns once it runs or has failed to.
///
/// The argument vector is `path` (in quotes when it holds a space), a space and `arguments`, split
/// by `kiv_create_argv_array`; `path` is run as given, with no search along PATH. The child has the
/// caller's signal mask; signals that the caller handles have their default action in it, ignored
/// ones stay ignored.
///
/// \code
/// int error = 0;
/// std::string reason;
/// kivProcess* child = KivProcesses::SpawnProcess(argv[2], argc > 3 ? argv[3] : "", "", pipes,
///                                                environment, error, reason, "", "");
/// if (child == nullptr) {
///     std::fprintf(stderr, "%s: %s\n", argv[2], reason.c_str());
/// \endcode
///
/// \param path         the program file; null counts as empty.
/// \param arguments    the rest of the command line; null counts as empty.
/// \param reserved     accepted and never looked at.
/// \param pipes        the child's standard streams; null: it inherits the caller's descriptors.
///                     The record stays the caller's, as it is, but its `child_...` ends are closed
///                     once a child was made.
/// \param environment  handed over: the call destroys it in every case. Null: the child inherits
///                     the caller's environment.
/// \param[out] error_code  written only when the child was made but the start failed: the reason as
///                         an `errno` value; 0 when the identity could not be switched.
/// \param[out] error_text  written together with `error_code`: the system's text for it, or
///                         "Unable to impersonate user " and the name, cut at 100 bytes; empty
///                         when there is no memory for it.
/// \param user_name    the account that the child switches to before it runs the program; empty or
///                     null: it stays the caller's.
/// \param user_secret  accepted and never looked at.
/// \returns the child, the caller's until `CloseProcess`, which reaps nothing: see `WaitProcess`.
///          Null when the start failed; the child is reaped then. When not even the pipe for the
///          child's report could be made, the failure is logged.
/// \throws std::bad_alloc when memory runs out before there is a child; nothing is closed then.
///
/// Threads: any thread, also in hosts with many of them; other threads go on meanwhile. Not a
/// cancellation point. An environment that is inherited must not be changed meanwhile.
/// Deliberate: when the system can make no process, the failure is logged and the calling process
/// ends with status 1, so that its supervisor starts it anew. A child that cannot arrange its
/// descriptors ends with status 1, while the start counts as a success.
KIV_API kivProcess* SpawnProcess(const char* path, const char* arguments, const char* reserved,
                                 kivPipeHandles* pipes, kivEnvironment* environment,
                                 int& error_code, std::string& error_text, const char* user_name,
                                 const char* user_secret);

/// Waits for a child to end, and reaps it.
///
/// With `block` the wait has no limit. Otherwise the child is looked at every 100 ms until the
/// whole-second clock has advanced by `timeout_seconds`; 0 looks once.
///
/// \param process         from `SpawnProcess`; it stays the caller's. Null gives 3.
/// \param[out] exit_code  written only with result 1: the wait status shifted right by 8.
/// \returns 0 still running (only without `block` and with a limit of 0), 1 ended, 2 the limit
///          passed and the child still runs, 3 nothing to wait for (`errno` tells why).
///
/// Threads: one waiter per child; a child is reaped once, so a second waiter gets 3.
/// Deliberate: a child killed by a signal gives exit code 0, because hosts expect the status
/// shifted, never decoded.
KIV_API int WaitProcess(kivProcess* process, bool block, int timeout_seconds, long& exit_code);

/// Kills a process with SIGKILL unless it has ended already, and reaps it when it is a child of the
/// caller. Nothing happens when `pid` is 0 or below.
///
/// There is no gentler signal first. A process that is gone, or that the caller may not kill, is
/// left alone.
KIV_API void TerminateProcess(int pid);

/// `TerminateProcess` of the record's pid; the record stays the caller's. Null is ignored.
KIV_API void TerminateProcess(kivProcess* process);

/// Frees the record; the child itself is left alone. Null is ignored.
///
/// \returns always true.
KIV_API bool CloseProcess(kivProcess* process);

/// The record's pid; 0 for null.
KIV_API int GetProcessPid(kivProcess* process);

/// The pid of the calling process.
KIV_API int GetCurrentProcessPid();

/// The priority class of a process; a `pid` of 0 is the caller.
///
/// \returns 1 low (nice above 0), 2 normal (-4 to 0), 3 high (-14 to -5), 4 highest (below); also 2
///          when the process cannot be asked, with `errno` other than 0.
KIV_API int GetProcessPriority(int pid);

/// Sets the priority of a process; a `pid` of 0 is the caller.
///
/// \param priority_class  1 low (nice 15), 3 high (-5), 4 highest (-15); any other is normal (0).
/// \returns the result of `setpriority`: 0 on success, -1 otherwise (`errno` tells why; raising a
///          priority is a privilege).
KIV_API int SetProcessPriority(int pid, int priority_class);

/// Empties `list` and fills it with the running processes, in ascending order of their pids.
///
/// Threads are not listed, neither is pid 0. Processes that end during the call may be missing.
///
/// \param[out] list  receives the records, the caller's until `DeleteProcsSnapshot`. What it held
///                   before is removed, but not freed.
/// \param parent_pid  -1 for all processes, otherwise only those with this parent.
/// \returns false when the process table could not be read; the list is then empty.
/// \throws std::bad_alloc when memory runs out; the list is then empty, too.
///
/// Threads: no lock; a snapshot is a moment's picture and may be stale as soon as it is made.
KIV_API bool CreateProcsSnapshot(std::list<_procs_snapshot*>* list, int parent_pid);

/// Frees every record of `list` and empties it. Null is ignored.
KIV_API void DeleteProcsSnapshot(std::list<_procs_snapshot*>* list);

/// The pid of the parent of process `pid`; 0 when there is no such process, when it has no parent
/// or when the process table could not be read.
KIV_API int GetParentPid(int pid);

/// Looks for a child by its short command name, ignoring case.
///
/// \param names  one or more names separated by spaces; a name that holds spaces stands in double
///               quotes, as in `agent "my tool"`. A backslash takes the next byte as it is. A
///               quote that is never closed ends the list before it. The system keeps only the
///               first 15 characters of a process's name, so longer names match nothing.
/// \returns the pid of the first child of `parent_pid`, by ascending pid, that has one of the
///          names; 0 when there is none or the process table could not be read.
KIV_API int GetChildOfProcess(int parent_pid, const char* names);

/// Builds the tree of process `pid` and all its descendants.
///
/// The tree is at most 21 levels deep. A node of the last level keeps an array of children that
/// has as many slots as the process has children, all of them null.
///
/// \code
/// _procs_tree* tree = nullptr;
/// if (KivProcesses::CreateProcTreeSnapshot(pid, &tree)) {
///     KivProcesses::TerminateProcTree(tree);
///     KivProcesses::DestroyProcTree(tree);
/// }
/// \endcode
///
/// \param[out] root  the tree, the caller's until `DestroyProcTree`; null when `pid` is 0, when
///                   there is no such process or when the process table could not be read.
/// \returns true when there is a tree.
///
/// Threads: no lock; the tree is a moment's picture and may be stale by the time it is used.
KIV_API bool CreateProcTreeSnapshot(int pid, _procs_tree** root);

/// Builds the node of `pid` and its descendants from a snapshot; a step of
/// `CreateProcTreeSnapshot`.
///
/// \param parent  stored as the node's parent.
/// \param list    a full snapshot; it stays the caller's. Where several entries have the same pid,
///                the last one describes the process. With pids that repeat under one parent,
///                every entry becomes a branch of its own.
/// \param[out] slot  receives the node, or null when `list` has no entry for `pid`. A null slot,
///                   and a `depth` of 21 or more, makes the call do nothing at all.
/// \param depth   the level of the node; 0 for a root.
KIV_API void _makeProcTreeNode(int pid, _procs_tree* parent, std::list<_procs_snapshot*>* list,
                               _procs_tree** slot, int depth);

/// Kills every process of `tree` and reaps those that are the caller's children; see
/// `TerminateProcess`. Null is ignored.
///
/// Children go in their order, each before its parent. A null in an array of children ends it,
/// whatever follows. The tree is not freed.
///
/// Threads: no lock. The tree is as old as its snapshot: a process that has ended since then is
/// skipped, one that was started since then is missed.
KIV_API void TerminateProcTree(_procs_tree* tree);

/// Gives every process of `tree` a priority class, in the order of `TerminateProcTree`; see
/// `SetProcessPriority`. Null is ignored. Processes that refuse are passed over.
KIV_API void SetProcTreePriority(_procs_tree* tree, int priority_class);

/// Frees a tree, or a part of one that nothing refers to any more. Null is ignored.
///
/// The arrays of children go with their nodes. An array that a host put into a node itself stays
/// the host's.
KIV_API void DestroyProcTree(_procs_tree* tree);

/// Switches the whole calling process to the group and the user of an account.
///
/// Supplementary groups stay as they are.
///
/// \param user_name    the account's name.
/// \param user_secret  accepted and never looked at.
/// \param permanent    true switches for good; false switches the effective identity alone, until
///                     `RevertUserImpersonation`.
/// \returns true when both are switched. False when there is no such account or the switch is not
///          permitted; the group is then put back: the effective group to the real one after a
///          temporary switch.
///
/// Threads: the identity belongs to the process, so all its threads switch.
KIV_API bool ImpersonateUser(const char* user_name, const char* user_secret, bool permanent);

/// Switches the effective user, and then the effective group, back to the real ones.
///
/// \returns true when both are switched back; when the user cannot be, the group is not tried.
KIV_API bool RevertUserImpersonation();

/// Runs the `shutdown` command found on PATH, through the shell, and waits for it.
///
/// \param event  0 "shutdown -h now", 1 and 2 "shutdown -s now", 3 "shutdown -r now",
///               4 "shutdown -k now"; every other value runs nothing.
/// \returns always true.
///
/// Deliberate: the result says nothing about the command, which may be missing or refuse, and
/// codes 1 and 2 are one command; hosts that pass the codes on rely on neither being an error.
KIV_API bool SendSystemEvent(int event);

/// Asks the session manager of the system to act on a system event.
///
/// \param event_id  four characters, the first in the highest byte of 32: "shut" powers off,
///                  "rest" restarts, "slep" suspends, "logo" and "rlgo" end the session that is
///                  active at the console. No user is asked to authorize it.
/// \returns 0 when the request was taken, -600 when no session manager answers on this system,
///          -1708 for every other event, or a positive `errno` value: the request was refused
///          (EACCES, EPERM), nobody's session is active (ENODATA), or the answer took longer than
///          25 seconds (ETIMEDOUT).
///
/// Threads: no lock; every call has its own connection.
KIV_API int SendAppleEventToSystemProcess(unsigned long event_id);

/// Wakes a machine of the local network by a broadcast of its hardware address.
///
/// The packet has 102 bytes: six of 0xFF, then the address sixteen times. It goes to
/// 255.255.255.255.
///
/// \param mac_address  12 hexadecimal digits; every ":" and "-" is ignored. The digits are not
///                     checked: each pair counts as `hexToInt` reads it.
/// \param port         UDP port; its low 16 bits count. 9 is usual.
/// \returns true when the whole packet was sent. False when the address does not have 12
///          characters or a system call failed.
///
/// Deliberate: a socket that gets descriptor 0, because standard input is closed, counts as a
/// failure. A daemon opens its standard descriptors before it wakes anybody.
KIV_API bool SendWOL(std::string mac_address, int port);

/// The value of the first two characters of `text` as a hexadecimal number, cut to one byte.
///
/// Reading follows `strtol`: it ends at the first character that is no digit; no digits give 0.
/// White space and a sign are accepted, so " 5" gives 5 and "-1" gives 255.
KIV_API unsigned char hexToInt(char* text);

} // namespace KivProcesses

using KivProcesses::_kivRWLocker;
using KivProcesses::_posix_conditional_var;
using KivProcesses::_procs_snapshot;
using KivProcesses::_procs_tree;
using KivProcesses::kivEnvironment;
using KivProcesses::kivPipeHandles;
using KivProcesses::kivProcess;
using KivProcesses::kivThreadObj;
using KivProcesses::kivThreadStart;

} // namespace KivFramework
