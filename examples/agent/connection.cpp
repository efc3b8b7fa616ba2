#include "connection.h"

#include "messages.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include <KivFramework/KivBase64.h>
#include <KivFramework/KivKqueue.h>
#include <unistd.h>

// Also what makes `struct kevent` the library's record here and the system's where it has one.
using namespace KivFramework;

namespace {

// An agent may be busy killing a tree or copying a file, but not for this long.
constexpr int longest_silence_seconds = 60;

constexpr std::chrono::seconds heart_beat(agent::protocol::heart_beat_seconds);
constexpr int heart_beat_ms = agent::protocol::heart_beat_seconds * 1000;

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

std::string decoded(const std::string& base64) {
    char* bytes = nullptr;
    unsigned long size = 0;
    if (!KivBase64::DecodeAlloc(base64.data(), base64.size(), &bytes, &size)) {
        throw agent::console_error("the agent's answer is malformed: not Base64");
    }
    std::string text(bytes, size);
    KivBase64::DeleteBuffer(&bytes);
    return text;
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

void agent::connection::begin(protocol::request type, const std::string& body) {
    send_message(stream_, type, body);
    next_beat_ = clock::now() + heart_beat;
}

int agent::connection::ask(protocol::request type, const std::string& body,
                           const std::function<void(const std::string&)>& on_text) {
    begin(type, body);
    for (;;) {
        const std::optional<int> exit_code = wait(heart_beat_ms, on_text);
        if (exit_code) {
            return *exit_code;
        }
    }
}

std::optional<int> agent::connection::wait(int limit_ms,
                                           const std::function<void(const std::string&)>& on_text) {
    std::optional<int> exit_code = take_answer(on_text);
    if (!exit_code) {
        keep_alive();
        exchange(std::min(limit_ms, heart_beat_ms));
        exit_code = take_answer(on_text);
    }
    return exit_code;
}

bool agent::connection::watch(int descriptor) {
    struct kevent change {};
    EV_SET(&change, static_cast<std::uintptr_t>(descriptor), EVFILT_READ, EV_ADD, 0, 0, nullptr);
    return kevent(queue_, &change, 1, nullptr, 0, nullptr) != -1;
}

void agent::connection::forget(int descriptor) {
    struct kevent change {};
    EV_SET(&change, static_cast<std::uintptr_t>(descriptor), EVFILT_READ, EV_DELETE, 0, 0, nullptr);
    kevent(queue_, &change, 1, nullptr, 0, nullptr);
}

// Handles the messages that have arrived, up to the end of the answer.
std::optional<int>
agent::connection::take_answer(const std::function<void(const std::string&)>& on_text) {
    for (;;) {
        const incoming message = take_message(stream_, protocol::longest_reply);
        if (message.what == incoming::kind::nothing) {
            return std::nullopt;
        }
        if (message.what == incoming::kind::malformed) {
            throw console_error("the agent's answer is malformed: " + message.text);
        }
        stream_.UpdateHeartBeat();
        switch (static_cast<protocol::reply>(message.type)) {
        case protocol::reply::heart_beat:
            break;
        case protocol::reply::text:
            on_text(message.text);
            break;
        case protocol::reply::base64:
            on_text(decoded(message.text));
            break;
        case protocol::reply::done:
            return std::atoi(message.text.c_str()); // no text is 0, the usual answer
        case protocol::reply::failed:
            throw console_error(message.text);
        }
    }
}

void agent::connection::keep_alive() {
    if (clock_watch_.was_set()) {
        stream_.UpdateHeartBeat(); // the agent's silence counts from now
    }
    if (!stream_.CheckHeartBeat(longest_silence_seconds)) {
        throw console_error("the agent does not answer");
    }
    if (clock::now() >= next_beat_) {
        send_message(stream_, protocol::request::heart_beat, {});
        next_beat_ = clock::now() + heart_beat;
    }
}

// Waits until something can be received or sent, or a watched descriptor read, and does the former.
void agent::connection::exchange(int limit_ms) {
    const struct timespec limit { limit_ms / 1000, limit_ms % 1000 * 1000000L };
    std::array<struct kevent, 4> events{};
    const int count =
        kevent(queue_, nullptr, 0, events.data(), static_cast<int>(events.size()), &limit);
    for (int i = 0; i < count; ++i) {
        const struct kevent& event = events[static_cast<std::size_t>(i)];
        if (static_cast<int>(event.ident) != stream_.socket) {
            continue; // whoever watches it looks for himself
        }
        if ((event.filter == EVFILT_WRITE ? stream_.Write() : stream_.Read()) == 0) {
            throw console_error("the agent is gone");
        }
    }
}
