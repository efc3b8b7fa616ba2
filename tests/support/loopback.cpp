#include "tests/support/loopback.h"

#include "tests/support/transfers.h"

#include <gtest/gtest.h>

#include <cerrno>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using kiv_test::unique_fd;

sockaddr_in loopback_address(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void shrink_send_buffer(int socket) {
    const int size = 1; // the system rounds it up
    EXPECT_EQ(::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
}

} // namespace

unique_fd kiv_test::bound_to_loopback(int type) {
    unique_fd socket(::socket(AF_INET, type | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback_address(0);
    EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
              0);
    return socket;
}

int kiv_test::port_of(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    EXPECT_EQ(::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
}

kiv_test::tcp_connection::tcp_connection() : near(::socket(AF_INET, SOCK_STREAM, 0)) {
    const unique_fd listener = bound_to_loopback(SOCK_STREAM);
    EXPECT_EQ(::listen(listener.get(), 1), 0);
    const sockaddr_in address = loopback_address(port_of(listener.get()));
    // An interrupted one goes on by itself, and accepting the connection waits for it.
    const int connected =
        ::connect(near.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    EXPECT_TRUE(connected == 0 || errno == EINTR);
    far.reset(uninterrupted([&] { return ::accept(listener.get(), nullptr, nullptr); }));
    EXPECT_TRUE(far.valid());
}

kiv_test::local_connection::local_connection() {
    int descriptors[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, descriptors), 0);
    near.reset(descriptors[0]);
    far.reset(descriptors[1]);
    shrink_send_buffer(near.get());
    shrink_send_buffer(far.get());
}

int kiv_test::closed_descriptor() {
    unique_fd descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int number = descriptor.get();
    descriptor.reset();
    return number;
}
