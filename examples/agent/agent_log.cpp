#include "agent_log.h"

#include "text.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include <KivFramework/KivFileSystem.h>
#include <KivFramework/KivLibrary.h>
#include <KivFramework/KivProcesses.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace KivFramework;

namespace {

constexpr int file_target = 4;
constexpr int hourly = 1;
constexpr std::size_t longest_tail = 1024UL * 1024;
constexpr std::size_t follow_chunk = 64UL * 1024;

// Holds one of the logger's locks, by the library's own calls.
class lock_hold {
public:
    explicit lock_hold(pthread_mutex_t* mutex) : mutex_(mutex) { KivProcesses::LockMutex(mutex_); }
    ~lock_hold() { KivProcesses::UnlockMutex(mutex_); }
    lock_hold(const lock_hold&) = delete;
    lock_hold& operator=(const lock_hold&) = delete;

private:
    pthread_mutex_t* mutex_;
};

// The rotation callback is a plain function: what it reports to `rotate_now` goes through here.
// Both run under the logger's lock.
std::string* rotated_by_hand = nullptr;

// Gives a file rotated by hand a name of its own. Under the plain name the rotation at the end of
// the same hour would replace it.
void number_rotated_file(const char* rotated_path) {
    if (rotated_by_hand == nullptr) {
        return; // the clock's rotation: the name stays as it is
    }
    for (int number = 1;; ++number) {
        const std::string numbered = std::string(rotated_path) + "." + std::to_string(number);
        std::error_code error;
        if (!std::filesystem::exists(numbered, error)) {
            if (KivFileSystem::MoveFile(rotated_path, numbered)) {
                *rotated_by_hand = numbered;
            }
            return;
        }
    }
}

} // namespace

agent::agent_log::agent_log(const settings& values) {
    if (!KivFileSystem::CheckDirectory(values.log_directory) &&
        !KivFileSystem::MakeDirectory(values.log_directory, /*recursive=*/false)) {
        throw refusal("the log directory " + values.log_directory +
                      " cannot be used: " + error_text(errno));
    }
    KivLogger::SetLoggerBasePath(&logger_, values.log_directory);
    KivLogger::SetLoggerFile(&logger_, values.log_file.c_str());
    KivLogger::CreateLogger(&logger_, values.log_level, file_target);
    if (logger_.file == nullptr) {
        const int error = errno;
        KivLogger::DestroyLogger(&logger_);
        throw refusal("the log file " + path() + " cannot be opened: " + error_text(error));
    }
    KivLogger::SetLoggerRotation(&logger_, values.log_rotation);
    KivLogger::SetLoggerRotationCallback(&logger_, reinterpret_cast<void*>(&number_rotated_file));
    SetDefaultLogger(&logger_);
}

agent::agent_log::~agent_log() {
    RemoveDefaultLogger();
    KivLogger::DestroyLogger(&logger_);
}

void agent::agent_log::detach() {
    KivLogger::SetLoggerDetachedStatus(&logger_, true);
}

void agent::agent_log::adjust(const settings& values) {
    // The setters take no lock and the writer reads both fields, each under one of these. The
    // order is the logger's own: its queue first.
    const lock_hold queue(logger_.queue_lock);
    const lock_hold targets(logger_.lock);
    logger_.level = values.log_level;
    KivLogger::SetLoggerRotation(&logger_, values.log_rotation);
}

std::string agent::agent_log::rotate_now() {
    flush_all(); // what was said before the call belongs into the old file
    std::string rotated;
    const lock_hold targets(logger_.lock);
    const int mode = logger_.rotation;
    // An hourly check, whatever the mode, because its name is the finest; and another day of the
    // week, because that one field decides without showing in the name.
    logger_.rotation = hourly;
    logger_.period_start.tm_wday = (logger_.period_start.tm_wday + 1) % 7;
    rotated_by_hand = &rotated;
    KivLogger::CheckLogRotation(&logger_);
    rotated_by_hand = nullptr;
    logger_.rotation = mode;
    return rotated;
}

void agent::agent_log::flush_file() {
    const lock_hold targets(logger_.lock);
    if (logger_.file != nullptr) { // null after a rotation that could not open the file again
        std::fflush(logger_.file);
    }
}

void agent::agent_log::flush_all() {
    KivLogger::FlushDetachedThread(&logger_);
    flush_file();
}

std::string agent::agent_log::path() const {
    return logger_.base_path + "/" + logger_.file_name;
}

std::string agent::last_lines(const std::string& path, int count) {
    std::ifstream stream(path, std::ios::binary | std::ios::ate);
    if (!stream || count <= 0) {
        return {};
    }
    const auto size = static_cast<std::size_t>(stream.tellg());
    std::string text(std::min(size, longest_tail), '\0');
    stream.seekg(static_cast<std::streamoff>(size - text.size()));
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(stream.gcount()));

    std::size_t start = text.size();
    for (int line = 0; line <= count && start != std::string::npos; ++line) {
        if (start == 0) {
            return text;
        }
        start = text.rfind('\n', start - 1);
    }
    return start == std::string::npos ? text : text.substr(start + 1);
}

agent::log_follower::log_follower(std::string path)
    : path_(std::move(path)), file_(::open(path_.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (file_ != -1) {
        ::lseek(file_, 0, SEEK_END);
    }
}

agent::log_follower::~log_follower() {
    if (file_ != -1) {
        ::close(file_);
    }
}

std::string agent::log_follower::new_lines() {
    // Looked at first: once the file has its rotated name nothing more is written to it, so the
    // read that follows sees its end.
    const bool replaced = file_was_replaced();
    const std::size_t before = pending_.size();
    append_new_bytes();
    if (replaced && pending_.size() == before) {
        if (file_ != -1) {
            ::close(file_);
        }
        file_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
        append_new_bytes();
    }
    const std::size_t end = pending_.rfind('\n') + 1; // npos + 1 is 0: no whole line yet
    std::string lines = pending_.substr(0, end);
    pending_.erase(0, end);
    return lines;
}

void agent::log_follower::append_new_bytes() {
    if (file_ == -1) {
        return;
    }
    const std::size_t before = pending_.size();
    pending_.resize(before + follow_chunk);
    const ssize_t count = ::read(file_, pending_.data() + before, follow_chunk);
    pending_.resize(before + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
}

bool agent::log_follower::file_was_replaced() const {
    struct stat by_path {};
    struct stat open_file {};
    if (::stat(path_.c_str(), &by_path) == -1) {
        return false; // between the two steps of a rotation; the next call will see
    }
    return file_ == -1 || ::fstat(file_, &open_file) == -1 || by_path.st_ino != open_file.st_ino ||
           by_path.st_dev != open_file.st_dev;
}
