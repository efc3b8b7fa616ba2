/// \file
/// Locks, conditions and threads; environments, child processes, process snapshots and trees;
/// impersonation, system events and Wake-on-LAN.
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
    pthread_mutex_t* mutex = nullptr;
    _posix_conditional_var* readers_cond = nullptr;
    _posix_conditional_var* writers_cond = nullptr;
    int lock_count = 0; ///< 0 free; n > 0: n read holds; -k: k (nested) write holds
    int waiting_readers = 0;
    int waiting_writers = 0;
    int recursive = 0; ///< when set, a thread may take again what it already holds
    pthread_t writer_thread = pthread_t();   ///< kept in recursive mode only
    std::map<pthread_t, int> reader_threads; ///< read holds per thread, in recursive mode only
};

/// A joinable thread. Made by `SpawnThread`, released by `JoinThread`.
struct kivThreadObj {
    pthread_t thread = pthread_t();
    int ended = 0;     ///< 1 once the thread has called `EndThread`
    int exit_code = 0; ///< what `EndThread` was given; meaningless before it
};

/// What a thread function receives as its argument. It belongs to the running thread, which
/// releases it with `EndThread`.
struct kivThreadStart {
    void* data = nullptr; ///< the argument given to `SpawnThread`
    kivThreadObj* thread_obj = nullptr;
};

/// An editable set of environment variables for a child process.
struct kivEnvironment {
    std::map<std::string, std::string> variables;
};

/// A child process. Made by `SpawnProcess`, released by `CloseProcess`.
struct kivProcess {
    int pid = 0;
};

/// The pipes of a child's standard streams. Made by `CreatePipes`, released by `DeletePipes`.
struct kivPipeHandles {
    int parent_stdout_read = -1;
    int parent_stdin_write = -1;
    int parent_stderr_read = -1;
    int child_stdin_read = -1;
    int child_stdout_write = -1;
    int child_stderr_write = -1;
    int merge_stderr = 0;
};

/// One process of a flat snapshot.
struct _procs_snapshot {
    std::string name;
    int pid = 0;
    int ppid = 0;
};

/// One node of a process tree.
struct _procs_tree {
    std::string name;
    int pid = 0;
    int ppid = 0;
    _procs_tree* parent = nullptr;
    _procs_tree** children = nullptr;
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
/// \returns the thread's handle, the caller's until `JoinThread`; null when no thread could be
///          started.
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

KIV_API kivEnvironment* CreateEnvironment(bool copy_current);
KIV_API bool GetEnvironmentValue(kivEnvironment* environment, std::string name, std::string& value);
KIV_API void SetEnvironmentValue(kivEnvironment* environment, std::string name, std::string value);
KIV_API void UnsetEnvironmentValue(kivEnvironment* environment, std::string pattern);
KIV_API std::string ResolveEnvironmentString(kivEnvironment* environment, std::string text);
KIV_API char* GetEnvironmentAnsiString(kivEnvironment* environment);
KIV_API char** kiv_get_environment(kivEnvironment* environment);
KIV_API void ImpersonateUser_PurgeEnvironment(kivEnvironment* environment, const char* user_name);
KIV_API void DestroyEnvironment(kivEnvironment* environment);

KIV_API char** kiv_create_argv_array(const char* command_line);
KIV_API void kiv_free_argv_array(char** array);
KIV_API kivPipeHandles* CreatePipes(bool merge_stderr);
KIV_API void DeletePipes(kivPipeHandles* pipes, bool close_handles);
KIV_API int ClosePipeHandle(int descriptor);
KIV_API int ReadPipe(int descriptor, void* buffer, unsigned int size);
KIV_API int WritePipe(int descriptor, const void* data, unsigned int size);
KIV_API kivProcess* SpawnProcess(const char* path, const char* arguments, const char* reserved,
                                 kivPipeHandles* pipes, kivEnvironment* environment,
                                 int& error_code, std::string& error_text, const char* user_name,
                                 const char* user_secret);
KIV_API int WaitProcess(kivProcess* process, bool block, int timeout_seconds, long& exit_code);
KIV_API void TerminateProcess(int pid);
KIV_API void TerminateProcess(kivProcess* process);
KIV_API bool CloseProcess(kivProcess* process);
KIV_API int GetProcessPid(kivProcess* process);
KIV_API int GetCurrentProcessPid();
KIV_API int GetProcessPriority(int pid);
KIV_API int SetProcessPriority(int pid, int priority_class);

KIV_API bool CreateProcsSnapshot(std::list<_procs_snapshot*>* list, int parent_pid);
KIV_API void DeleteProcsSnapshot(std::list<_procs_snapshot*>* list);
KIV_API int GetParentPid(int pid);
KIV_API int GetChildOfProcess(int parent_pid, const char* names);
KIV_API bool CreateProcTreeSnapshot(int pid, _procs_tree** root);
KIV_API void _makeProcTreeNode(int pid, _procs_tree* parent, std::list<_procs_snapshot*>* list,
                               _procs_tree** slot, int depth);
KIV_API void TerminateProcTree(_procs_tree* tree);
KIV_API void SetProcTreePriority(_procs_tree* tree, int priority_class);
KIV_API void DestroyProcTree(_procs_tree* tree);

KIV_API bool ImpersonateUser(const char* user_name, const char* user_secret, bool permanent);
KIV_API bool RevertUserImpersonation();
KIV_API bool SendSystemEvent(int event);
KIV_API int SendAppleEventToSystemProcess(unsigned long event_id);
KIV_API bool SendWOL(std::string mac_address, int port);
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
