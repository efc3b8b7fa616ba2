/// \file
/// The library's frame (start, stop, base path, default logger, seed, sleep) and host utilities.
///
/// Threads: `InitializeLibrary` and `ShutdownLibrary` run alone; every other function may run in
/// any number of threads at once, on values and texts of its caller's own. Process-wide are the
/// base path, the default logger, the progressive seed, the generator behind `rand()`, from which
/// the seed and the identifiers come, and the lock files: calls with one name at the same time may
/// take the file away from each other. No call changes the environment or a signal handler, and
/// `errno` is the calling thread's own.
#pragma once

#include "KivFramework/KivExport.h"
#include "KivFramework/KivLogger.h"

#include <string>

namespace KivFramework {

/// Sets up the library's process-wide state; every host calls it once, first.
///
/// Fixes the base path, creates the lock of the progressive seed and draws the first seed from
/// `rand()`. The generator is not seeded here, so the first value is the same in every process
/// unless the host called `srand` before.
///
/// \param ignored  accepted and never looked at; null is fine.
///
/// Threads: no other library call may run at the same time.
/// Deliberate: the base path is always the executable's directory, whatever the host passes; hosts
/// find their files beside their program.
KIV_API void InitializeLibrary(const char* ignored);

/// Tears down what `InitializeLibrary` made and stops the performance monitor.
///
/// The base path and the default logger stay as they are. Calling it twice, or without a start, is
/// harmless.
///
/// Threads: no other library call may run at the same time.
KIV_API void ShutdownLibrary();

/// The path that `InitializeLibrary` takes as base path: the same as `GetBundlePath()`.
KIV_API std::string kiv_internal_get_basepath();

/// The base path fixed by `InitializeLibrary`; empty before it.
KIV_API std::string GetModuleBasePath();

/// The directory that holds the running executable, without a trailing separator (except for the
/// root directory itself); empty when the system does not tell.
KIV_API std::string GetBundlePath();

/// Makes `logger` the one that the library's own modules write to; null silences them.
///
/// The logger stays the caller's, who unregisters it before destroying it.
///
/// Threads: a single pointer store; it takes no lock.
KIV_API void SetDefaultLogger(kivLogger* logger);

/// Unregisters the default logger; the library's own messages are dropped from then on.
KIV_API void RemoveDefaultLogger();

/// The registered default logger, or null.
KIV_API kivLogger* GetDefaultLogger();

/// Returns the next value of a process-wide counter that starts at a `rand()` value.
///
/// N calls, from any number of threads, return N consecutive integers, each once. The counter
/// wraps past the largest `int`.
///
/// Threads: guarded by a lock of its own; between `InitializeLibrary` and `ShutdownLibrary` only.
KIV_API int GetProgressiveSeed();

/// Blocks the calling thread for `milliseconds`; a negative time does not block.
///
/// Deliberate: the unit is the millisecond, whatever the name says; every caller counts on it.
/// Deliberate: a signal that interrupts the wait ends it, so that a handler is acted upon at once.
KIV_API void MicroSleep(int milliseconds);

/// The code of this platform in the library's platform numbering: always 4.
KIV_API int GetRunningPlatformOS();

/// Reverses the 2 bytes at `value` in place; no alignment is needed.
KIV_API void Swap2Bytes(void* value);

/// Reverses the 4 bytes at `value` in place; no alignment is needed.
KIV_API void Swap4Bytes(void* value);

/// Reverses the 8 bytes at `value` in place; no alignment is needed.
KIV_API void Swap8Bytes(void* value);

/// The number of processors online; 1 when the system does not tell.
KIV_API int GetProcessorsCount();

/// Fetches the host's name, as `gethostname` gives it (at most 255 bytes).
///
/// \param[out] name  left unchanged on failure.
/// \returns true on success; otherwise `errno` tells why.
KIV_API bool GetHostName(std::string& name);

/// Creates and exclusively locks the file "/tmp/" + `name`, which only its owner may use.
///
/// \param name  not checked; a "/" in it reaches into subdirectories.
/// \returns the open descriptor, the caller's until `DeleteUniqueLock` and inherited by the
///          programs it starts; -1 when the file cannot be opened or locked (`errno` tells why).
///
/// Deliberate: a file of that name is removed first, so the lock always guards a fresh file. A
/// crashed owner never blocks the next start, but a live owner's file is taken away from under it
/// and both hold a lock; hosts that need exclusion must keep the name to themselves.
KIV_API int CreateUniqueLock(const char* name);

/// Releases a lock: unlocks and closes `descriptor` and removes "/tmp/" + `name`, whoever made it.
///
/// \returns always true.
///
/// Deliberate: no failure is reported, since after the call the caller holds no lock in any case.
KIV_API bool DeleteUniqueLock(int descriptor, const char* name);

/// Lists the hardware addresses of the interfaces whose names begin with "en".
///
/// Each is 12 lower-case hexadecimal digits, in the system's order, joined by "|"; for example
/// 000d93a1b2c3|0011241a2b3c. Empty when there is none or the list cannot be read.
///
/// \param ignored  accepted and never looked at.
///
/// Deliberate: interfaces of other names are left out, wireless and Ethernet ones included; hosts
/// use the text to tell machines apart, and it must not change with what else is plugged in.
KIV_API std::string GetHostMacAddresses(bool ignored);

/// Makes an identifier of four `rand()` values and the time, in upper-case hexadecimal, each part
/// at least 4 digits wide.
///
/// Deliberate: the parts are not masked, so the text has no fixed length (20 characters at least);
/// and `rand()` is never seeded here, so uniqueness is only as good as the host's `srand`.
///
/// Threads: shares `rand()` with the whole process.
KIV_API std::string GenerateUniqueGUID();

} // namespace KivFramework
