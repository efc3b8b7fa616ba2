#include "tests/support/scripted_socket.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <optional>
#include <utility>

#include <dlfcn.h>
#include <sys/socket.h>

namespace {

struct scripted_call {
    ssize_t result = 0;
    int error = 0;
    std::string bytes; // what a recv with a result above 0 receives
};

std::deque<scripted_call> recv_script;
std::deque<scripted_call> send_script;
std::string sent_bytes;

std::optional<scripted_call> next_of(std::deque<scripted_call>& script) {
    if (script.empty()) {
        return std::nullopt;
    }
    scripted_call call = std::move(script.front());
    script.pop_front();
    return call;
}

ssize_t fail(const scripted_call& call) {
    errno = call.error;
    return call.result;
}

} // namespace

extern "C" ssize_t recv(int socket, void* buffer, size_t size, int flags) {
    static const auto system_recv = reinterpret_cast<decltype(&recv)>(::dlsym(RTLD_NEXT, "recv"));
    const std::optional<scripted_call> call = next_of(recv_script);
    if (!call) {
        return system_recv(socket, buffer, size, flags);
    }
    if (call->result <= 0) {
        return fail(*call);
    }
    return static_cast<ssize_t>(call->bytes.copy(static_cast<char*>(buffer), size));
}

extern "C" ssize_t send(int socket, const void* buffer, size_t size, int flags) {
    static const auto system_send = reinterpret_cast<decltype(&send)>(::dlsym(RTLD_NEXT, "send"));
    const std::optional<scripted_call> call = next_of(send_script);
    if (!call) {
        return system_send(socket, buffer, size, flags);
    }
    if (call->result <= 0) {
        return fail(*call);
    }
    const std::size_t taken = std::min(size, static_cast<std::size_t>(call->result));
    sent_bytes.append(static_cast<const char*>(buffer), taken);
    return static_cast<ssize_t>(taken);
}

void kiv_test::script_recv(std::string bytes) {
    recv_script.push_back({1, 0, std::move(bytes)});
}

void kiv_test::script_recv(ssize_t result, int error) {
    recv_script.push_back({result, error, {}});
}

void kiv_test::script_send(std::size_t size) {
    send_script.push_back({static_cast<ssize_t>(size), 0, {}});
}

void kiv_test::script_send(ssize_t result, int error) {
    send_script.push_back({result, error, {}});
}

std::string kiv_test::take_sent_bytes() {
    return std::exchange(sent_bytes, {});
}

std::size_t kiv_test::drop_script() {
    const std::size_t left = recv_script.size() + send_script.size();
    recv_script.clear();
    send_script.clear();
    return left;
}
