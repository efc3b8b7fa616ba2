#include "KivFramework/KivLogger.h"

#include "KivFramework/KivFileSystem.h"
#include "KivFramework/KivLibrary.h"
#include "KivFramework/internal/format_message.h"
#include "KivFramework/internal/line_handover.h"
#include "KivFramework/internal/local_clock.h"
#include "KivFramework/internal/mutex_guard.h"
#include "KivFramework/internal/read_fully.h"
#include "KivFramework/internal/replace_file.h"
#include "KivFramework/internal/unique_fd.h"
#include "KivFramework/platform/system_log.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <stdio_ext.h>
#include <syslog.h>
#include <unistd.h>

namespace KivFramework::KivLogger {
namespace {

using internal::mutex_guard;

// Bits of `flags`.
constexpr int standard_output = 2;
constexpr int log_file = 4;
constexpr int system_log = 8;

// The log keeps pointing at the identity it was opened with, so that must outlive every record.
constexpr char log_identity[] = "kivUtilsLog";

internal::line_handover& handover(kivLogger& logger) {
    return *static_cast<internal::line_handover*>(logger.internal_state);
}

// The polled flags of a record are plain fields that several threads touch without a lock.
std::atomic_ref<int> polled(int& flag) {
    return std::atomic_ref<int>(flag);
}

// Adds in unsigned, because hosts may leave any number in a record and signed overflow is
// undefined.
int wrapping_sum(int a, int b) {
    return static_cast<int>(static_cast<unsigned int>(a) + static_cast<unsigned int>(b));
}

std::string file_path(const kivLogger& logger) {
    return logger.base_path + "/" + logger.file_name;
}

std::FILE* open_log_file(const std::string& path) {
    return std::fopen(path.c_str(), "a+te"); // e: children of the host do not inherit it
}

// The first bytes of the file at `path`, at most `size`; fewer when it has no more or is
// unreadable.
std::string first_bytes(const std::string& path, std::size_t size) {
    // Without O_NONBLOCK a pipe of that name would hold its opener until somebody writes.
    const internal::unique_fd file(
        ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.valid()) {
        return {};
    }
    std::string bytes(size, '\0');
    const ssize_t count = internal::read_fully(file.get(), bytes.data(), size);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return bytes;
}

// The period of a file found at start is that of its first entry; a new file's begins now.
void restore_period_start(kivLogger& logger, const std::string& path) {
    constexpr std::size_t date_size = 20;

    const std::string date = first_bytes(path, date_size);
    if (date.size() < date_size) {
        logger.period_start = internal::local_now().time;
        return;
    }
    std::tm& start = logger.period_start;
    // Deliberate: numbers that do not parse keep their last value, and the day of the week always
    // does; hosts see the period shifted, never a file refused.
    std::sscanf(date.c_str(), "%2d/%2d/%4d %2d:%2d:%2d", &start.tm_mon, &start.tm_mday,
                &start.tm_year, &start.tm_hour, &start.tm_min, &start.tm_sec);
    start.tm_year = wrapping_sum(start.tm_year, -1900);
    start.tm_mon = wrapping_sum(start.tm_mon, -1);
}

int syslog_priority(int level) {
    switch (level) {
    case 1:
    case 3:
        return LOG_NOTICE;
    case 4:
        return LOG_DEBUG;
    default:
        return LOG_INFO;
    }
}

// Holds a stream as fwrite and fflush do, but once for both of them.
class stream_guard {
public:
    explicit stream_guard(std::FILE* stream) : stream_(stream) { ::flockfile(stream_); }
    ~stream_guard() { ::funlockfile(stream_); }
    stream_guard(const stream_guard&) = delete;
    stream_guard& operator=(const stream_guard&) = delete;

private:
    std::FILE* stream_;
};

// Writes what the system takes, whatever signals arrive meanwhile, and returns the rest.
std::string_view write_past_signals(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = ::write(descriptor, text.data(), text.size());
        if (written > 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (written != -1 || errno != EINTR) {
            break;
        }
    }
    return text;
}

// Writes at once what the stream would copy first, and lose when a signal ends its write. Hosts may
// use the stream as well: what they left in it goes first. Returns the rest of `line`.
std::string_view write_past_buffer(std::FILE* stream, std::string_view line) {
    if (::__fpending(stream) != 0) {
        ::fflush_unlocked(stream);
    }
    return write_past_signals(::fileno_unlocked(stream), line);
}

void write_to_stream(std::FILE* stream, std::string_view line, bool flush) {
    const stream_guard guard(stream);
    if (flush) {
        line = write_past_buffer(stream, line);
        if (line.empty()) {
            return;
        }
    }
    // A line that cannot be written is lost; the other targets have it.
    ::fwrite_unlocked(line.data(), 1, line.size(), stream);
    if (flush) {
        ::fflush_unlocked(stream);
    }
}

// Which targets have a line at once; the others may keep it in their buffers.
struct flushed_targets {
    bool standard_output;
    bool file;
};

// Visits the targets in their order. `ended_line` gives the line again, with its line break, for
// the file alone.
template <typename ended_line_type>
void write_to_targets(kivLogger& logger, const char* line, int level, flushed_targets flushed,
                      ended_line_type ended_line) {
    if (logger.lock == nullptr) {
        return; // not created, or destroyed already
    }
    const mutex_guard guard(logger.lock);
    if ((logger.flags & standard_output) != 0) {
        // Deliberate: no line break; hosts that show this target add their own.
        write_to_stream(stdout, line, flushed.standard_output);
    }
    if ((logger.flags & system_log) != 0) {
        // Deliberate: the line is the format, so the system log interprets its "%"s.
        platform::write_system_log(syslog_priority(level), line);
    }
    if ((logger.flags & log_file) != 0 && logger.file != nullptr) {
        KivLogger::CheckLogRotation(&logger);
        const std::string_view whole = ended_line();
        if (logger.file != nullptr) { // the rotation may have failed to reopen it
            write_to_stream(logger.file, whole, flushed.file);
        }
    }
}

void write_line(kivLogger& logger, std::string& line, int level, flushed_targets flushed) {
    write_to_targets(logger, line.c_str(), level, flushed,
                     [&line] { return std::string_view(line += '\n'); });
}

// One entry's text: date, module and message, with room for a line break.
class entry_text {
public:
    entry_text(std::string_view module, const char* format, std::va_list arguments) {
        const std::string_view date = internal::local_now().text;
        const std::size_t others = date.size() + brackets + message_size + 1;
        if (module.size() > sizeof(room_) - others) {
            heap_.reset(new (std::nothrow) char[others + module.size()]);
            if (heap_ != nullptr) {
                text_ = heap_.get();
            } else {
                module = module.substr(0, sizeof(room_) - others); // an entry never fails
            }
        }
        append(date);
        append(" - [");
        append(module);
        append("] ");
        append_message(format, arguments);
    }

    char* text() { return text_; }
    std::string_view view() const { return {text_, length_}; }

    std::string_view ended() {
        text_[length_++] = '\n';
        return view();
    }

private:
    static constexpr std::size_t brackets = 6;
    static constexpr std::size_t message_size = 4095; // its terminating zero included

    void append(std::string_view part) {
        std::memcpy(text_ + length_, part.data(), part.size());
        length_ += part.size();
    }

    void append_message(const char* format, std::va_list arguments) {
        length_ += internal::format_message(text_ + length_, message_size, format, arguments);
    }

    std::size_t length_ = 0;
    char* text_ = room_;
    std::unique_ptr<char[]> heap_; // for a module name that does not fit beside a long message
    char room_[message_size + 257];
};

// Hands a line to the writer; false when there is no memory for its copy.
bool queue_line(kivLogger& logger, std::string_view line) {
    try {
        handover(logger).append(logger.queue, line);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void add_entry(kivLogger& logger, const char* module, const char* format, std::va_list arguments) {
    entry_text entry(module != nullptr ? module : "", format != nullptr ? format : "", arguments);
    if (polled(logger.detached).load(std::memory_order_acquire) != 0) {
        if (queue_line(logger, entry.view())) {
            return;
        }
        // It is written here, then, after the lines that were queued before it.
        handover(logger).flush();
    }
    // Deliberate: the threshold's level decides the system-log priority of every entry.
    write_to_targets(logger, entry.text(), logger.level, {true, true},
                     [&entry] { return entry.ended(); });
}

// What goes before the name of a file whose period is over; empty while it lasts.
std::string rotation_prefix(int mode, const std::tm& old, const std::tm& now) {
    const bool same_month = old.tm_mon == now.tm_mon && old.tm_year == now.tm_year;
    const int month = wrapping_sum(old.tm_mon, 1);
    const int year = wrapping_sum(old.tm_year, 1900);
    char prefix[64] = ""; // room for four numbers of any size
    switch (mode) {
    case 1:
        // Deliberate: the day of the week, not of the month. An entry exactly a week later goes on
        // in the same file, and hosts that archive by name rely on the names this gives.
        if (!same_month || old.tm_wday != now.tm_wday || old.tm_hour != now.tm_hour) {
            std::snprintf(prefix, sizeof(prefix), "%02d.%02d.%04d.%02d.", month, old.tm_mday, year,
                          old.tm_hour);
        }
        break;
    case 2:
        if (!same_month || old.tm_mday != now.tm_mday) {
            std::snprintf(prefix, sizeof(prefix), "%02d.%02d.%04d.", month, old.tm_mday, year);
        }
        break;
    case 3:
        if (!same_month) {
            std::snprintf(prefix, sizeof(prefix), "%02d.%04d.", month, year);
        }
        break;
    default:
        break;
    }
    return prefix;
}

struct rotation_paths {
    std::string current;
    std::string rotated;
};

// The paths of a rotation that is due now. Without memory for them none is: the file goes on, and
// the next line asks again.
std::optional<rotation_paths> due_rotation(const kivLogger& logger) {
    try {
        const std::string prefix =
            rotation_prefix(logger.rotation, logger.period_start, internal::local_now().time);
        if (prefix.empty()) {
            return std::nullopt;
        }
        return rotation_paths{file_path(logger),
                              logger.base_path + "/" + prefix + logger.file_name};
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

void start_writer(kivLogger& logger) {
    const mutex_guard queue_guard(logger.queue_lock);
    const mutex_guard guard(logger.lock); // the second: the queue's lock always comes first
    if (logger.detached != 0) {
        return;
    }
    polled(logger.stop_writer).store(0, std::memory_order_relaxed);
    handover(logger).expect_writer(true);
    logger.writer_thread = KivProcesses::SpawnThread(KivLogger::detached_logger_thread, &logger);
    if (logger.writer_thread == nullptr) {
        handover(logger).expect_writer(false); // entries stay synchronous
        return;
    }
    polled(logger.detached).store(1, std::memory_order_release);
}

// Ends the writer thread, which leaves unwritten lines in the queue.
void stop_writer(kivLogger& logger) {
    mutex_guard guard(logger.lock);
    if (logger.detached == 0 || logger.writer_thread == nullptr) {
        return; // synchronous, or another thread ends it already
    }
    KivProcesses::kivThreadObj* const thread = std::exchange(logger.writer_thread, nullptr);
    guard.unlock(); // the writer needs the lock for the lines it has taken
    polled(logger.stop_writer).store(1, std::memory_order_release);
    handover(logger).wake_writer();
    KivProcesses::JoinThread(thread);
    const mutex_guard again(logger.lock);
    polled(logger.detached).store(0, std::memory_order_release);
}

// What CreateLogger makes before anything else, and DestroyLogger frees.
void create_locks(kivLogger& logger) {
    logger.lock = KivProcesses::CreateMutex();
    logger.queue_lock = KivProcesses::CreateMutex();
    logger.queue_signal = KivProcesses::CreateConditional(&logger.queue_lock);
    logger.internal_state =
        new internal::line_handover(logger.queue_lock, logger.queue_signal->cond);
}

void free_locks(kivLogger& logger) {
    delete static_cast<internal::line_handover*>(std::exchange(logger.internal_state, nullptr));
    KivProcesses::DestroyConditional(std::exchange(logger.queue_signal, nullptr));
    KivProcesses::DestroyMutex(std::exchange(logger.queue_lock, nullptr));
    KivProcesses::DestroyMutex(std::exchange(logger.lock, nullptr));
}

// Leaves a record whose creation ends early as one that was never created.
class creation {
public:
    explicit creation(kivLogger& logger) : logger_(&logger) {
        logger.lock = logger.queue_lock = nullptr;
        logger.queue_signal = nullptr;
        logger.internal_state = nullptr;
    }
    ~creation() {
        if (logger_ != nullptr) {
            free_locks(*logger_);
        }
    }
    creation(const creation&) = delete;
    creation& operator=(const creation&) = delete;

    void complete() { logger_ = nullptr; }

private:
    kivLogger* logger_;
};

// Writes the queue's lines in one pass and tells whether there were any.
bool write_waiting_lines(kivLogger& logger) {
    internal::line_handover::line_list batch;
    handover(logger).begin_pass(logger.queue, batch);
    const bool drained = !batch.empty();
    for (std::string& line : batch) {
        try {
            // Standard output is flushed after every pass, and a line in its buffer could be lost
            // to a signal until then. The file keeps its own buffering.
            write_line(logger, line, logger.level, {/*standard_output=*/true, /*file=*/false});
        } catch (const std::bad_alloc&) {
            // A line that a host queued itself may have no room for its line break. The file does
            // without it: an exception would end the process with this thread.
            continue;
        }
    }
    if (drained && (logger.flags & standard_output) != 0) {
        std::fflush(stdout);
    }
    handover(logger).end_pass(batch);
    return drained;
}

} // namespace
} // namespace KivFramework::KivLogger

using namespace KivFramework;

void KivLogger::SetLoggerFile(kivLogger* logger, const char* file_name) {
    logger->file_name = file_name != nullptr ? file_name : "";
}

void KivLogger::SetLoggerBasePath(kivLogger* logger, std::string base_path) {
    logger->base_path = std::move(base_path);
}

void KivLogger::SetLoggerIdentity(kivLogger* logger, std::string identity) {
    logger->identity = std::move(identity);
}

void KivLogger::SetLoggerFacility(kivLogger* logger, int local_number) {
    if (local_number > 7) {
        return;
    }
    // Deliberate: the number is not shifted, so only 0 names a local facility; hosts' system-log
    // rules count on the values as they are.
    logger->facility = wrapping_sum(LOG_LOCAL0, local_number);
}

void KivLogger::CreateLogger(kivLogger* logger, int level, int flags) {
    logger->file = nullptr;
    logger->identity = log_identity; // Deliberate: whatever SetLoggerIdentity said before
    creation created(*logger);
    create_locks(*logger);
    logger->level = level;
    logger->writer_thread = nullptr;
    logger->flags = flags;
    logger->detached = 0;
    logger->rotation_callback = nullptr;
    if (logger->base_path.empty()) {
        logger->base_path = GetModuleBasePath();
    }
    if (logger->file_name.empty()) {
        logger->file_name = "default.log";
    }
    if (!KivFileSystem::CheckDirectory(logger->base_path)) {
        // A directory that cannot be made leaves the file target silent.
        KivFileSystem::MakeDirectory(logger->base_path, /*recursive=*/false);
    }
    if ((flags & log_file) != 0) {
        const std::string path = file_path(*logger);
        restore_period_start(*logger, path);
        logger->file = open_log_file(path);
    }
    created.complete();
    if ((flags & system_log) != 0) {
        if (logger->facility == -1) {
            logger->facility = LOG_DAEMON;
        }
        ::openlog(log_identity, LOG_PID | LOG_CONS, logger->facility);
    }
}

void KivLogger::SetLoggerRotation(kivLogger* logger, int mode) {
    logger->rotation = mode;
}

void KivLogger::SetLoggerRotationCallback(kivLogger* logger, void* callback) {
    logger->rotation_callback = reinterpret_cast<void (*)(const char*)>(callback);
}

void KivLogger::SetLoggerDetachedStatus(kivLogger* logger, bool detached) {
    if (logger->lock == nullptr) {
        return; // not created, or destroyed already
    }
    if (detached) {
        start_writer(*logger);
    } else {
        stop_writer(*logger);
    }
}

void KivLogger::AddLogEntry(kivLogger* logger, int level, const char* module, const char* format,
                            ...) {
    if (logger == nullptr || level > logger->level) {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    add_entry(*logger, module, format, arguments);
    va_end(arguments);
}

void KivLogger::DumpLogString(kivLogger* logger, std::string& line, int level, bool flush) {
    write_line(*logger, line, level, {flush, flush});
}

void KivLogger::CheckLogRotation(kivLogger* logger) {
    if (logger->rotation == 0) {
        return;
    }
    const std::optional<rotation_paths> paths = due_rotation(*logger);
    if (!paths) {
        return;
    }
    if (std::FILE* const ended = std::exchange(logger->file, nullptr)) {
        std::fclose(ended);
    }
    // A file that cannot be moved stays, and the next one goes on at its end.
    internal::replace_file(paths->current.c_str(), paths->rotated.c_str());
    logger->file = open_log_file(paths->current);
    logger->period_start = internal::local_now().time; // read again: closing may have taken a while
    if (logger->rotation_callback != nullptr) {
        logger->rotation_callback(paths->rotated.c_str());
    }
}

void KivLogger::FlushDetachedThread(kivLogger* logger) {
    if (polled(logger->detached).load(std::memory_order_acquire) != 0) {
        handover(*logger).flush();
    }
}

void* KivLogger::detached_logger_thread(void* argument) {
    kivLogger& logger = *static_cast<kivLogger*>(KivProcesses::GetThreadData(argument));
    while (polled(logger.stop_writer).load(std::memory_order_acquire) == 0) {
        if (!write_waiting_lines(logger)) {
            handover(logger).idle();
        }
    }
    handover(logger).leave();
    KivProcesses::EndThread(0, argument);
    return nullptr;
}

void KivLogger::DestroyLogger(kivLogger* logger) {
    if (logger == nullptr) {
        return;
    }
    if (polled(logger->detached).load(std::memory_order_acquire) != 0) {
        FlushDetachedThread(logger);
        stop_writer(*logger);
    }
    free_locks(*logger);
    if (logger->file != nullptr) {
        std::fclose(logger->file);
    }
    if ((logger->flags & system_log) != 0) {
        ::closelog();
    }
}
