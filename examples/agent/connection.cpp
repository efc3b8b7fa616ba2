#include "connection.h"

#include "messages.h"
#include "text.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>

#include <KivFramework/KivKqueue.h>
#include <unistd.h>

// Also what makes `struct kevent` the library's record here and the system's where it has one.
using namespace KivFramework;

namespace {

// An agent may be busy killing a tree or copying a file, but not for this long.
constexpr int longest_silence_seconds = 60;

int connected_socket(int port) {
    const int socket = KivSocket::CreateSocket(0);
    if (socket == -1) {
        throw agent::console_error("no socket can be made: " + agent::error_text(errno));
    }
    // Connected while it still blocks: on a non-blocking socket a connection in progress would
    // count as a failure.
    if (!KivSocket::ConnectSocket(socket, "127.0.0.1", port)) {
        const int error = errno;
        KivSocket::CloseSocket(socket);
        throw agent::console_error("no agent answers on port " + std::to_string(port) + ": " +
                                   agent::error_text(error));
    }
    errno = 0; // SetBlockStatus gives up when an old EBADF is still standing there
    KivSocket::SetBlockStatus(socket, /*blocking=*/false);
    KivSocket::SetNagleStatus(socket, /*enabled=*/false);
    return socket;
}

} // namespace

agent::connection::connection(int port) : queue_(-1) {
    stream_.socket = connected_socket(port);
    stream_.SetMaxIncomingBufferSize(2 * protocol::longest_reply);
    queue_ = kqueue();
    if (queue_ == -1) {
        const int error = errno;
        stream_.Close();
        throw console_error("kqueue: " + agent::error_text(error));
    }
    stream_.RegisterKq(queue_);
}

agent::connection::~connection() {
    errno = 0; // the close gives up, and leaks, when an old EBADF is still standing there
    stream_.Close();
    ::close(queue_);
}

int agent::connection::ask(protocol::request type, const std::string& body,
                           const std::function<void(const std::string&)>& on_text) {
    using clock = std::chrono::steady_clock;
    constexpr std::chrono::seconds beat(protocol::heart_beat_seconds);
    send_message(stream_, type, body);
    clock::time_point next_beat = clock::now() + beat;
    for (;;) {
        const incoming message = take_message(stream_, protocol::longest_reply);
        if (message.what == incoming::kind::malformed) {
            throw console_error("the agent's answer is malformed: " + message.text);
        }
        if (message.what == incoming::kind::message) {
            stream_.UpdateHeartBeat();
            switch (static_cast<protocol::reply>(message.type)) {
            case protocol::reply::heart_beat:
                break;
            case protocol::reply::text:
                on_text(message.text);
                break;
            case protocol::reply::done:
                return std::atoi(message.text.c_str()); // no text is 0, the usual answer
            case protocol::reply::failed:
                throw console_error(message.text);
            }
            continue;
        }
        if (!stream_.CheckHeartBeat(longest_silence_seconds)) {
            throw console_error("the agent does not answer");
        }
        if (clock::now() >= next_beat) {
            send_message(stream_, protocol::request::heart_beat, {});
            next_beat = clock::now() + beat;
        }
        exchange();
    }
}

// Waits until something can be received or sent, at most until the next heart-beat, and does it.
void agent::connection::exchange() {
    const struct timespec limit { protocol::heart_beat_seconds, 0 };
    std::array<struct kevent, 2> events{};
    const int count =
        kevent(queue_, nullptr, 0, events.data(), static_cast<int>(events.size()), &limit);
    for (int i = 0; i < count; ++i) {
        const bool writable = events[static_cast<std::size_t>(i)].filter == EVFILT_WRITE;
        if ((writable ? stream_.Write() : stream_.Read()) == 0) {
            throw console_error("the agent is gone");
        }
    }
}
