/// \file
/// Loggers: leveled entries to standard output, files and the system log.
#pragma once

#include "KivFramework/KivExport.h"
#include "KivFramework/KivProcesses.h"

#include <cstdio>
#include <ctime>
#include <list>
#include <string>

namespace KivFramework {
namespace KivLogger {

/// A logger: where entries go, and what waits to go there. The host owns the record.
///
/// The host allocates it, may call `SetLoggerFile`, `SetLoggerBasePath` and `SetLoggerFacility`,
/// then `CreateLogger`; after that the other setters and any number of entries from any thread;
/// `DestroyLogger` releases what the record holds. It must stay at its address while detached.
///
/// \code
/// kivLogger log;
/// KivLogger::SetLoggerFile(&log, "work.log");
/// KivLogger::SetLoggerBasePath(&log, argv[1]);
/// KivLogger::CreateLogger(&log, /*level=*/3, /*flags=*/4); // 4: a log file
/// KivLogger::SetLoggerRotation(&log, /*mode=*/1);          // 1: hourly
/// KivLogger::SetLoggerRotationCallback(&log, reinterpret_cast<void*>(file_finished));
/// KivLogger::SetLoggerDetachedStatus(&log, true);
/// \endcode
struct kivLogger {
    int level = 0;     ///< threshold: an entry is written when its level is at most this
    int flags = 0;     ///< targets: 2 standard output, 4 log file, 8 system log; added together
    int facility = -1; ///< given to `openlog`; -1: the default, `LOG_DAEMON`
    std::FILE* file = nullptr; ///< the open log file; null when there is none. Guarded by `lock`
    std::string file_name;     ///< without directory
    std::string base_path;     ///< directory of the log file, without trailing separator
    std::string identity;      ///< the name in the system log
    pthread_mutex_t* lock = nullptr;       ///< held while a line is written to the targets
    pthread_mutex_t* queue_lock = nullptr; ///< guards `queue`; taken before `lock`, never after it
    KivProcesses::_posix_conditional_var* queue_signal = nullptr; ///< the writer ended a pass
    KivProcesses::kivThreadObj* writer_thread = nullptr;          ///< null when there is none
    int rotation = 0; ///< 0 none, 1 hourly, 2 daily, 3 monthly; any other value is none
    std::tm period_start = std::tm(); ///< when the current log file's period began, local time
    int detached = 0;                 ///< nonzero while a writer thread runs; read it atomically
    int stop_writer = 0;              ///< asks the writer thread to end; set it atomically
    void (*rotation_callback)(const char* rotated_path) = nullptr; ///< null for none
    std::list<std::string> queue; ///< lines that no pass of the writer has taken yet, oldest first
    void* internal_state = nullptr; ///< the library's own; hosts leave it alone
};

/// Chooses the name of the log file, without directory; null counts as empty.
///
/// `CreateLogger` replaces an empty name by "default.log" and opens the file, so the call comes
/// before it. A later one changes the names of the next rotation.
///
/// Threads: no lock; not while other threads use the logger.
KIV_API void SetLoggerFile(kivLogger* logger, const char* file_name);

/// Chooses the directory of the log file, without trailing separator.
///
/// `CreateLogger` replaces an empty one by `GetModuleBasePath()`, so the call comes before it.
///
/// Threads: no lock; not while other threads use the logger.
KIV_API void SetLoggerBasePath(kivLogger* logger, std::string base_path);

/// Sets the record's `identity`.
///
/// Threads: no lock; not while other threads use the logger.
/// Deliberate: the system log never sees it. `CreateLogger` overwrites it before it opens the
/// system log, and nothing opens that again: log filters of existing hosts match "kivUtilsLog".
KIV_API void SetLoggerIdentity(kivLogger* logger, std::string identity);

/// Chooses the system-log facility: 128 + `local_number`, before `CreateLogger`.
///
/// \param local_number  0 for `LOG_LOCAL0`. A number above 7 changes nothing; any other, negative
///                      ones too, is accepted.
///
/// Threads: no lock; not while other threads use the logger.
/// Deliberate: the number is added, not shifted into place, so 1 to 7 do not name `LOG_LOCAL1` to
/// `LOG_LOCAL7`; hosts' system-log rules are written for the values as they come out.
KIV_API void SetLoggerFacility(kivLogger* logger, int local_number);

/// Prepares the record for entries: locks, log directory, log file and system log.
///
/// The directory is made when it is missing (its parents are not), even without a file target. An
/// existing file is appended to, and `period_start` is read from its first 20 bytes, the date of
/// its first entry; a shorter file, an unreadable one or none starts its period now. `file` is
/// closed in programs that the host starts.
///
/// A directory that cannot be made or a file that cannot be opened silences the file target alone.
/// Once per record until `DestroyLogger`.
///
/// When memory runs out it throws `std::bad_alloc` and leaves the record as one that was not
/// created: the other calls do nothing with it.
///
/// \param level  threshold: entries of this level and below are written.
/// \param flags  targets: 2 standard output, 4 log file, 8 system log; other bits mean nothing.
///
/// Threads: no lock; not while other threads use the logger. The system log is the whole process's:
/// the last logger to open it decides its facility.
/// Deliberate: `identity` becomes "kivUtilsLog" whatever it was. Of the first 20 bytes, numbers
/// that do not parse keep what the record held, less 1 for a month and 1900 for a year, and the day
/// of the week is not derived from the date; hosts see an early rotation, never a lost file.
KIV_API void CreateLogger(kivLogger* logger, int level, int flags);

/// Chooses when the log file is moved aside: 0 never, 1 hourly, 2 daily, 3 monthly; any other value
/// is never. After `CreateLogger`, or before it. See `CheckLogRotation`.
///
/// Threads: no lock; not while other threads use the logger.
KIV_API void SetLoggerRotation(kivLogger* logger, int mode);

/// Chooses the function that is called after each rotation, after `CreateLogger`, which resets it.
///
/// \param callback  a `void (*)(const char* rotated_path)`, called with the rotated file's full
///                  path, which it must copy to keep; null for none. It runs with the logger's
///                  `lock` held, so it must not use the same logger.
///
/// Threads: no lock; not while other threads use the logger.
KIV_API void SetLoggerRotationCallback(kivLogger* logger, void* callback);

/// Starts or stops the background writer; does nothing when it already is as asked.
///
/// While it runs, `AddLogEntry` only queues the finished line. The writer takes all waiting lines
/// in one pass, writes them, and starts the next pass at once; with nothing to do it looks again
/// after 200 ms, or earlier when lines pile up or somebody waits. It flushes standard output after
/// a pass; the log file is flushed by its own buffering and when it is closed. When no thread can
/// be started, the logger stays synchronous.
///
/// Threads: any thread. The writer does not outlive `fork`: a program that becomes a daemon
/// detaches its loggers after that. Deliberate: stopping does not write what still waits. Such
/// lines stay in `queue` until a writer is started again, because a stop must not take long; call
/// `FlushDetachedThread` first.
KIV_API void SetLoggerDetachedStatus(kivLogger* logger, bool detached);

/// Writes one entry to the targets, or queues it for the writer.
///
/// The line is the local date and time, the module in brackets and the message:
/// 03/07/2007 09:05:01 - [KivFramework] started
///
/// \param logger  null for no logger: nothing happens.
/// \param level   an entry above the logger's threshold is dropped at once.
/// \param module  who speaks; null counts as empty.
/// \param format  as for `printf`; a message beyond 4094 bytes is cut, null counts as empty.
///
/// Nothing is reported: a target that fails loses the line, the others get it. The call needs no
/// memory and throws nothing: a line that there is no memory to queue is written at once, after
/// those that were queued before it, and only a module name of hundreds of bytes is cut then.
///
/// Threads: any thread. Lines never mix; a thread's lines keep their order. A producer that finds
/// 256 or more lines queued waits until the writer ends a pass.
/// Deliberate: the system-log priority follows the logger's threshold, not the entry's level (1 and
/// 3 `LOG_NOTICE`, 4 `LOG_DEBUG`, all others `LOG_INFO`), and the system log takes the line as a
/// format, so a "%" in it is interpreted there: existing set-ups filter on these priorities, and
/// hosts escape what they log.
KIV_API void AddLogEntry(kivLogger* logger, int level, const char* module, const char* format, ...)
    KIV_PRINTF(4, 5);

/// Writes one finished line to the targets at once, in the order standard output, system log, file.
///
/// \param[in,out] line  gains a line break when the log file is open; a zero byte ends it for the
///                      first two targets, the file gets all of it.
/// \param level  decides the system-log priority, as in `AddLogEntry`; it filters nothing.
/// \param flush  also flush standard output and the file.
///
/// Threads: any thread; takes the logger's `lock`.
/// Deliberate: standard output gets no line break, as hosts that show it bring their own, and the
/// line is the system log's format, as in `AddLogEntry`.
KIV_API void DumpLogString(kivLogger* logger, std::string& line, int level, bool flush);

/// Moves the log file aside when its period is over, and starts a fresh one.
///
/// Called before each line that goes to the file; hosts need it only to rotate a quiet logger. The
/// old file gets the period that it covered before its name, replacing a file of that name:
/// 03.07.2007.14.default.log (hourly), 03.07.2007.default.log (daily), 03.2007.default.log
/// (monthly). Then `period_start` becomes now and the rotation callback is called.
///
/// A file that cannot be moved is appended to. When the fresh file cannot be opened, `file` is null
/// and the file target silent until the logger is created again. When memory runs out nothing
/// happens, and the next line asks again.
///
/// Threads: the caller holds the logger's `lock`.
/// Deliberate: hourly rotation compares hour, day of the week, month and year, so an entry exactly
/// a week later in the same month does not rotate; archives of existing hosts are named by this
/// rule.
KIV_API void CheckLogRotation(kivLogger* logger);

/// Waits until the writer has ended one more pass, begun after the call: all lines that were queued
/// before it are written then. Returns at once when the logger is not detached.
///
/// The log file's own buffering is not flushed.
///
/// Threads: any thread but the writer; not with the logger's locks held.
KIV_API void FlushDetachedThread(kivLogger* logger);

/// The writer thread's body; `SetLoggerDetachedStatus` starts it.
///
/// \param argument  the start block that a thread function receives; its data is the logger.
/// \returns nothing: the thread ends with exit code 0.
KIV_API void* detached_logger_thread(void* argument);

/// Ends the writer after everything queued so far is written, frees the locks, closes the log file
/// and, with the system-log target, the system log. Null is ignored.
///
/// `file` keeps its stale value. Lines that an earlier stop of the writer left in `queue` are
/// written only if it was started again; the record and its strings stay the host's.
///
/// Threads: no other thread may use the logger; a default logger is unregistered before.
KIV_API void DestroyLogger(kivLogger* logger);

} // namespace KivLogger

using KivLogger::kivLogger;

} // namespace KivFramework
