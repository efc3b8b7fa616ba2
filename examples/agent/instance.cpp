#include "instance.h"

#include "messages.h"
#include "text.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

#include <KivFramework/KivLibrary.h>
#include <KivFramework/KivProcesses.h>
#include <KivFramework/KivSocket.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace KivFramework;

namespace {

bool is_same_file(int file, const std::string& path) {
    struct stat open_file {};
    struct stat by_path {};
    return ::fstat(file, &open_file) == 0 && ::stat(path.c_str(), &by_path) == 0 &&
           open_file.st_ino == by_path.st_ino && open_file.st_dev == by_path.st_dev;
}

std::string first_line_of(int file) {
    constexpr std::size_t most = 32;
    std::string content;
    std::array<char, most> part{};
    ssize_t count = 0;
    do {
        count =
            ::pread(file, part.data(), most - content.size(), static_cast<off_t>(content.size()));
        content.append(part.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    } while ((count > 0 && content.size() < most) || (count == -1 && errno == EINTR));
    return content.substr(0, content.find('\n'));
}

// Opens and locks a file that must stay at its path: its last holder may have removed it between
// our open and our lock, and a lock on a nameless file excludes nobody.
int open_locked(const std::string& path) {
    for (;;) {
        const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (file == -1) {
            throw agent::refusal("the pid file " + path +
                                 " cannot be made: " + agent::error_text(errno));
        }
        if (::flock(file, LOCK_EX | LOCK_NB) == -1) {
            const std::string owner = first_line_of(file);
            ::close(file);
            throw agent::refusal("an agent with this configuration already runs" +
                                 (owner.empty() ? "" : " (pid " + owner + ")"));
        }
        if (is_same_file(file, path)) {
            return file;
        }
        ::close(file);
    }
}

// A reader that waits for the file sees nothing or all of it, never half a number.
void write_whole_file(const std::string& path, const std::string& text) {
    const std::string unfinished = path + ".new";
    std::ofstream stream(unfinished, std::ios::trunc);
    stream << text;
    stream.close();
    std::error_code error;
    if (stream) {
        std::filesystem::rename(unfinished, path, error);
    }
    if (!stream || error) {
        const int reason = error ? error.value() : errno;
        std::filesystem::remove(unfinished, error);
        throw agent::refusal("the port file " + path +
                             " cannot be written: " + agent::error_text(reason));
    }
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    return address;
}

bool bind_to(int socket, const sockaddr_in& address) {
    // Lets a restarted agent have its port back while old connections linger; it does not let two
    // listeners share one.
    const int on = 1;
    return ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == 0 &&
           ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

int bound_port(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    ::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// Returns true when the socket listens now.
bool start_listening(int socket) {
    // ListenSocket answers true when it FAILED. Its backlog of 5 is small for many consoles that
    // come at once; listening again widens it.
    return !KivSocket::ListenSocket(socket) && ::listen(socket, SOMAXCONN) == 0;
}

void close_socket(int socket) {
    errno = 0; // CloseSocket gives up, without closing, when an old EBADF is still standing there
    KivSocket::CloseSocket(socket);
}

} // namespace

agent::pid_file::pid_file(std::string path) : path_(std::move(path)), file_(open_locked(path_)) {}

agent::pid_file::~pid_file() {
    // Removed before the lock goes: afterwards the path may be another agent's.
    ::unlink(path_.c_str());
    ::close(file_);
}

void agent::pid_file::record_this_process() const {
    const std::string text = std::to_string(KivProcesses::GetCurrentProcessPid()) + "\n";
    // The number is for people and scripts; without it (a full disk) the lock still holds.
    std::size_t used = ::ftruncate(file_, 0) == 0 ? 0 : text.size();
    while (used < text.size()) {
        const ssize_t written =
            ::pwrite(file_, text.data() + used, text.size() - used, static_cast<off_t>(used));
        if (written > 0) {
            used += static_cast<std::size_t>(written);
        } else if (written == 0 || errno != EINTR) {
            // A part of the number would be the number of another process.
            [[maybe_unused]] const int emptied = ::ftruncate(file_, 0);
            return;
        }
    }
}

agent::listener::listener(const settings& values)
    : port_file_(values.port_file), socket_(KivSocket::CreateSocket(0)) {
    if (socket_ == -1) {
        throw refusal("no socket can be made: " + agent::error_text(errno));
    }
    keep_from_children(socket_);
    if (!bind_to(socket_, loopback(values.port)) || !start_listening(socket_)) {
        const int error = errno;
        close_socket(socket_);
        throw refusal("cannot listen on port " + std::to_string(values.port) + ": " +
                      agent::error_text(error));
    }
    errno = 0; // see close_socket; the same goes for SetBlockStatus
    KivSocket::SetBlockStatus(socket_, /*blocking=*/false);
    port_ = bound_port(socket_);
    try {
        announce();
    } catch (...) {
        close_socket(socket_);
        throw;
    }
}

agent::listener::~listener() {
    ::unlink(port_file_.c_str());
    if (lock_ != -1) {
        DeleteUniqueLock(lock_, lock_name_.c_str());
    }
    close_socket(socket_);
}

void agent::listener::announce() {
    write_whole_file(port_file_, std::to_string(port_) + "\n");
    // CreateUniqueLock takes the file away from a live owner. The name carries the port, which
    // only one process can listen on, so nobody who follows the same rule is robbed. Others can
    // ask with flock(1) whether the agent of a port lives.
    lock_name_ = "kiv-agent." + std::to_string(port_) + ".lock";
    lock_ = CreateUniqueLock(lock_name_.c_str());
    if (lock_ != -1) {
        keep_from_children(lock_); // not close-on-exec by itself: a job would keep the lock alive
    }
}

void agent::tell_service_manager() {
    const char* name =
        std::getenv("NOTIFY_SOCKET"); // NOLINT(concurrency-mt-unsafe): no setenv here
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (name == nullptr || std::strlen(name) >= sizeof(address.sun_path)) {
        return;
    }
    const std::size_t length = std::strlen(name);
    std::memcpy(address.sun_path, name, length);
    if (name[0] == '@') {
        address.sun_path[0] = '\0'; // a name that is no file
    }
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket == -1) {
        return;
    }
    constexpr std::string_view message = "READY=1";
    // Nothing is lost when nobody hears it but the manager's patience, which it reports itself.
    ::sendto(socket, message.data(), message.size(), MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr*>(&address),
             static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
    ::close(socket);
}
