#include "KivFramework/KivLibrary.h"
#include "KivFramework/KivLogger.h"
#include "KivFramework/KivSocket.h"

#include "tests/support/loopback.h"
#include "tests/support/network_namespace.h"
#include "tests/support/temp_directory.h"
#include "tests/support/transfers.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

int interruptions = 0;       // so many next calls of connect are interrupted
bool done_meanwhile = false; // the connection is made all the same

} // namespace

// The program's own definition goes before the C library's, for the library under test as well.
extern "C" int connect(int socket, const sockaddr* address, socklen_t length) {
    const bool interrupted = interruptions > 0;
    if (!interrupted || done_meanwhile) {
        const long result = ::syscall(SYS_connect, socket, address, length);
        if (!interrupted) {
            return static_cast<int>(result);
        }
    }
    --interruptions;
    errno = EINTR;
    return -1;
}

namespace {

using namespace KivFramework::KivSocket;
using kiv_test::bound_to_loopback;
using kiv_test::closed_descriptor;
using kiv_test::port_of;
using kiv_test::tcp_connection;
using kiv_test::unique_fd;

int int_option(int socket, int level, int option) {
    int value = -1;
    socklen_t length = sizeof(value);
    EXPECT_EQ(::getsockopt(socket, level, option, &value, &length), 0);
    return value;
}

bool is_open(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) != -1;
}

bool is_non_blocking(int descriptor) {
    return (::fcntl(descriptor, F_GETFL) & O_NONBLOCK) != 0;
}

bool is_listening(int socket) {
    return int_option(socket, SOL_SOCKET, SO_ACCEPTCONN) != 0;
}

unique_fd listener() {
    unique_fd socket = bound_to_loopback(SOCK_STREAM);
    EXPECT_FALSE(ListenSocket(socket.get()));
    return socket;
}

// Lets the process open no further descriptor until the end of the scope.
class descriptors_exhausted {
public:
    descriptors_exhausted() {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
        rlimit none = before_;
        none.rlim_cur = 0;
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~descriptors_exhausted() { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before_), 0); }
    descriptors_exhausted(const descriptors_exhausted&) = delete;
    descriptors_exhausted& operator=(const descriptors_exhausted&) = delete;

private:
    rlimit before_{};
};

TEST(CreateSocket, MakesDatagramSocketsForKinds1And2AndStreamSocketsForAllOthers) {
    for (const int kind : {0, 1, 2, 3, -1, 1000}) {
        SCOPED_TRACE(kind);
        const unique_fd socket(CreateSocket(kind));
        ASSERT_TRUE(socket.valid());
        const int type = kind == 1 || kind == 2 ? SOCK_DGRAM : SOCK_STREAM;
        EXPECT_EQ(int_option(socket.get(), SOL_SOCKET, SO_TYPE), type);
        EXPECT_EQ(int_option(socket.get(), SOL_SOCKET, SO_DOMAIN), AF_INET);
    }
}

TEST(CreateSocket, ReturnsMinusOneWithErrnoWhenNoDescriptorIsLeft) {
    const descriptors_exhausted none_left;
    errno = 0;
    EXPECT_EQ(CreateSocket(0), -1);
    EXPECT_EQ(errno, EMFILE);
}

TEST(BindBroadcastSocket, AllowsReuseAndBroadcastAndBindsToTheWildcardAddress) {
    const unique_fd socket(CreateSocket(1));
    ASSERT_TRUE(BindBroadcastSocket(socket.get(), 0));
    EXPECT_EQ(int_option(socket.get(), SOL_SOCKET, SO_REUSEADDR), 1);
    EXPECT_EQ(int_option(socket.get(), SOL_SOCKET, SO_BROADCAST), 1);
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    ASSERT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
}

TEST(BindBroadcastSocket, BindsToThePortThatWasPassed) {
    const kiv_test::network_namespace network;
    if (!network.entered()) {
        GTEST_SKIP() << network.refusal();
    }
    const unique_fd socket(CreateSocket(1));
    ASSERT_TRUE(BindBroadcastSocket(socket.get(), 0x1234));
    EXPECT_EQ(port_of(socket.get()), 0x1234);
}

TEST(BindBroadcastSocket, ReturnsFalseForMinusOneWithoutASystemCall) {
    errno = 0;
    EXPECT_FALSE(BindBroadcastSocket(-1, 0));
    EXPECT_EQ(errno, 0); // a call on it would have left EBADF
}

TEST(BindBroadcastSocket, ReturnsFalseWhenAnOptionCannotBeSet) {
    EXPECT_FALSE(BindBroadcastSocket(closed_descriptor(), 0));
    EXPECT_EQ(errno, EBADF);
}

TEST(BindBroadcastSocket, ReturnsFalseWhenThePortIsTaken) {
    const unique_fd taken = bound_to_loopback(SOCK_DGRAM);
    const unique_fd socket(CreateSocket(1));
    EXPECT_FALSE(BindBroadcastSocket(socket.get(), port_of(taken.get())));
    EXPECT_EQ(errno, EADDRINUSE);
}

TEST(SendbroadcastSocket, ReachesEveryReceiverOnThePort) {
    const kiv_test::network_namespace network;
    if (!network.entered()) {
        GTEST_SKIP() << network.refusal();
    }
    ASSERT_TRUE(network.ip("link add wire0 type bridge"));
    ASSERT_TRUE(network.ip("address add 10.9.8.7/24 dev wire0"));
    ASSERT_TRUE(network.ip("link set wire0 up"));
    ASSERT_TRUE(network.ip("route add default dev wire0"));

    constexpr int port = 0x1234;
    const unique_fd receivers[] = {unique_fd(CreateSocket(1)), unique_fd(CreateSocket(2))};
    for (const unique_fd& receiver : receivers) {
        ASSERT_TRUE(BindBroadcastSocket(receiver.get(), port));
    }
    const unique_fd sender(CreateSocket(1));
    ASSERT_TRUE(BindBroadcastSocket(sender.get(), 0));
    char data[] = "to everyone, and no more";
    ASSERT_TRUE(SendbroadcastSocket(sender.get(), port, data, sizeof("to everyone") - 1));

    for (const unique_fd& receiver : receivers) {
        pollfd ready = {receiver.get(), POLLIN, 0};
        ASSERT_EQ(kiv_test::uninterrupted([&] { return ::poll(&ready, 1, 60'000); }), 1);
        char received[64] = {};
        EXPECT_EQ(::recv(receiver.get(), received, sizeof(received), 0), 11);
        EXPECT_STREQ(received, "to everyone");
    }
}

TEST(SendbroadcastSocket, ReturnsFalseAndLogsWhenSendingFails) {
    const kiv_test::temp_directory directory;
    KivFramework::kivLogger logger;
    KivFramework::KivLogger::SetLoggerBasePath(&logger, directory.path());
    KivFramework::KivLogger::CreateLogger(&logger, /*level=*/1, /*flags=*/4);
    KivFramework::SetDefaultLogger(&logger);

    char data[] = "nobody";
    EXPECT_FALSE(SendbroadcastSocket(closed_descriptor(), 9, data, 6));

    KivFramework::RemoveDefaultLogger();
    KivFramework::KivLogger::DestroyLogger(&logger);
    EXPECT_NE(kiv_test::read_file(directory.file("default.log"))
                  .find(" - [KivFramework] Unable to send broadcast packet. Socket error!\n"),
              std::string::npos);
}

TEST(SendbroadcastSocket, FailsWithoutPermissionToBroadcast) {
    const kiv_test::network_namespace network;
    if (!network.entered()) {
        GTEST_SKIP() << network.refusal();
    }
    ASSERT_TRUE(network.ip("route add default dev lo"));
    const unique_fd socket(CreateSocket(1)); // no BindBroadcastSocket before
    char data[] = "x";
    EXPECT_FALSE(SendbroadcastSocket(socket.get(), 9, data, 1));
}

TEST(SendbroadcastSocket, FailsWithEinvalForANegativeLength) {
    const unique_fd socket = bound_to_loopback(SOCK_DGRAM);
    char data[] = "x";
    EXPECT_FALSE(SendbroadcastSocket(socket.get(), 9, data, -1));
    EXPECT_EQ(errno, EINVAL);
}

TEST(SendbroadcastSocket, NeverRaisesSigpipe) {
    const tcp_connection connection;
    ASSERT_EQ(::shutdown(connection.near.get(), SHUT_WR), 0);
    char data[] = "x";
    // A connected stream socket ignores the address, so nothing leaves this host.
    EXPECT_FALSE(SendbroadcastSocket(connection.near.get(), 9, data, 1));
    EXPECT_EQ(errno, EPIPE);
}

TEST(ConnectSocket, ConnectsToADottedAddress) {
    const unique_fd server = listener();
    const unique_fd socket(CreateSocket(0));
    ASSERT_TRUE(ConnectSocket(socket.get(), "127.0.0.1", port_of(server.get())));
    sockaddr_in peer{};
    socklen_t length = sizeof(peer);
    ASSERT_EQ(::getpeername(socket.get(), reinterpret_cast<sockaddr*>(&peer), &length), 0);
    EXPECT_EQ(ntohs(peer.sin_port), port_of(server.get()));
}

TEST(ConnectSocket, GoesOnWhenSignalsInterruptIt) {
    for (const bool meanwhile : {false, true}) {
        const unique_fd listening = listener();
        const unique_fd socket(CreateSocket(0));
        interruptions = 3;
        done_meanwhile = meanwhile;
        EXPECT_TRUE(ConnectSocket(socket.get(), "127.0.0.1", port_of(listening.get())));
        EXPECT_EQ(interruptions, 0);
        const unique_fd accepted(AcceptSocket(listening.get(), nullptr, nullptr));
        EXPECT_TRUE(accepted.valid());
    }
    done_meanwhile = false;
}

TEST(ConnectSocket, ReturnsFalseWhenThePeerRefusesAfterASignal) {
    const unique_fd not_listening = bound_to_loopback(SOCK_STREAM);
    const unique_fd socket(CreateSocket(0));
    interruptions = 1;
    EXPECT_FALSE(ConnectSocket(socket.get(), "127.0.0.1", port_of(not_listening.get())));
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(ConnectSocket, ReturnsFalseForASocketThatIsConnectedAlready) {
    const unique_fd listening = listener();
    const unique_fd socket(CreateSocket(0));
    ASSERT_TRUE(ConnectSocket(socket.get(), "127.0.0.1", port_of(listening.get())));
    EXPECT_FALSE(ConnectSocket(socket.get(), "127.0.0.1", port_of(listening.get())));
    EXPECT_EQ(errno, EISCONN);
}

TEST(ConnectSocket, ReturnsFalseWhenThePeerRefuses) {
    const unique_fd not_listening = bound_to_loopback(SOCK_STREAM);
    const unique_fd socket(CreateSocket(0));
    EXPECT_FALSE(ConnectSocket(socket.get(), "127.0.0.1", port_of(not_listening.get())));
    EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(ConnectSocket, CountsAConnectionInProgressAsAFailure) {
    const unique_fd server = listener();
    const unique_fd socket(CreateSocket(0));
    ASSERT_TRUE(SetBlockStatus(socket.get(), /*blocking=*/false));
    EXPECT_FALSE(ConnectSocket(socket.get(), "127.0.0.1", port_of(server.get())));
    EXPECT_EQ(errno, EINPROGRESS);
}

TEST(ConnectSocket, FailsWithEinvalForATextThatIsNoAddress) {
    // A datagram socket that may broadcast: the system would connect it to 255.255.255.255.
    const unique_fd socket(CreateSocket(1));
    const int on = 1;
    ASSERT_EQ(::setsockopt(socket.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on)), 0);
    for (const char* text : {"", "localhost", "127.0.0.256", "127.0.0.1.1", "::1"}) {
        SCOPED_TRACE(text);
        errno = 0;
        EXPECT_FALSE(ConnectSocket(socket.get(), text, 9));
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST(ListenSocket, ReturnsFalseWhenListeningStarted) {
    const unique_fd socket = bound_to_loopback(SOCK_STREAM);
    EXPECT_FALSE(ListenSocket(socket.get()));
    EXPECT_TRUE(is_listening(socket.get()));
}

TEST(ListenSocket, ReturnsTrueOnAClosedDescriptor) {
    EXPECT_TRUE(ListenSocket(closed_descriptor()));
    EXPECT_EQ(errno, EBADF);
}

TEST(ListenSocket, ReturnsTrueOnADatagramSocket) {
    const unique_fd socket = bound_to_loopback(SOCK_DGRAM);
    EXPECT_TRUE(ListenSocket(socket.get()));
    EXPECT_EQ(errno, EOPNOTSUPP);
}

TEST(ListenSocket, HasABacklogOf5) {
    const unique_fd socket = listener();
    tcp_info info{};
    socklen_t length = sizeof(info);
    ASSERT_EQ(::getsockopt(socket.get(), IPPROTO_TCP, TCP_INFO, &info, &length), 0);
    EXPECT_EQ(info.tcpi_sacked, 5U); // the backlog, while a socket listens
}

TEST(AcceptSocket, ReturnsTheConnectionAndThePeersAddress) {
    const unique_fd server = listener();
    const unique_fd client(CreateSocket(0));
    ASSERT_TRUE(ConnectSocket(client.get(), "127.0.0.1", port_of(server.get())));
    sockaddr_in peer{};
    unsigned int length = sizeof(peer);
    const unique_fd accepted(
        AcceptSocket(server.get(), reinterpret_cast<sockaddr*>(&peer), &length));
    ASSERT_TRUE(accepted.valid());
    EXPECT_EQ(length, sizeof(peer));
    EXPECT_EQ(ntohs(peer.sin_port), port_of(client.get()));
}

TEST(AcceptSocket, TakesNullForTheAddress) {
    const unique_fd server = listener();
    const unique_fd client(CreateSocket(0));
    ASSERT_TRUE(ConnectSocket(client.get(), "127.0.0.1", port_of(server.get())));
    const unique_fd accepted(AcceptSocket(server.get(), nullptr, nullptr));
    EXPECT_TRUE(accepted.valid());
}

TEST(AcceptSocket, ReturnsMinusOneWithErrnoOnFailure) {
    const unique_fd server = listener();
    ASSERT_TRUE(SetBlockStatus(server.get(), /*blocking=*/false));
    EXPECT_EQ(AcceptSocket(server.get(), nullptr, nullptr), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(SelectSocket, LeavesTheReadyDescriptorsInTheSets) {
    const tcp_connection connection;
    ASSERT_EQ(::send(connection.far.get(), "x", 1, 0), 1);
    pollfd arrived = {connection.near.get(), POLLIN, 0};
    ASSERT_EQ(kiv_test::uninterrupted([&] { return ::poll(&arrived, 1, 60'000); }), 1);

    fd_set read_set;
    fd_set write_set;
    FD_ZERO(&read_set);
    FD_ZERO(&write_set);
    FD_SET(connection.near.get(), &read_set);
    FD_SET(connection.far.get(), &read_set);
    FD_SET(connection.far.get(), &write_set);
    const int count = std::max(connection.near.get(), connection.far.get()) + 1;
    EXPECT_EQ(SelectSocket(count, &read_set, &write_set, nullptr, nullptr), 2);
    EXPECT_TRUE(FD_ISSET(connection.near.get(), &read_set));
    EXPECT_FALSE(FD_ISSET(connection.far.get(), &read_set));
    EXPECT_TRUE(FD_ISSET(connection.far.get(), &write_set));
}

TEST(SelectSocket, Returns0WhenTheTimePassed) {
    const tcp_connection connection;
    fd_set read_set;
    FD_ZERO(&read_set);
    FD_SET(connection.near.get(), &read_set);
    timeval at_once = {0, 0};
    EXPECT_EQ(SelectSocket(connection.near.get() + 1, &read_set, nullptr, nullptr, &at_once), 0);
}

TEST(SelectSocket, FailsForAClosedDescriptorAndForANegativeCount) {
    const int closed = closed_descriptor();
    fd_set read_set;
    FD_ZERO(&read_set);
    FD_SET(closed, &read_set);
    timeval at_once = {0, 0};
    EXPECT_EQ(SelectSocket(closed + 1, &read_set, nullptr, nullptr, &at_once), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(SelectSocket(-1, nullptr, nullptr, nullptr, &at_once), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(SelectSocket, NeverReadsOrWritesBeyondASet) {
    // An open descriptor beyond the sets makes the system look at bits beyond them.
    constexpr int beyond = FD_SETSIZE + 8;
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max <= beyond) {
        GTEST_SKIP() << "at most " << limit.rlim_max << " descriptors are permitted";
    }
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    const tcp_connection connection;
    const unique_fd high(::fcntl(connection.near.get(), F_DUPFD_CLOEXEC, beyond));
    ASSERT_EQ(high.get(), beyond);

    struct {
        fd_set set;
        unsigned char neighbour[64];
    } memory;
    std::memset(&memory, 0xFF, sizeof(memory));
    timeval at_once = {0, 0};
    EXPECT_EQ(SelectSocket(beyond + 1, nullptr, &memory.set, nullptr, &at_once), -1);
    EXPECT_EQ(errno, EINVAL);
    for (const unsigned char byte : memory.neighbour) {
        EXPECT_EQ(byte, 0xFF);
    }
    FD_ZERO(&memory.set);
    EXPECT_EQ(SelectSocket(FD_SETSIZE, nullptr, &memory.set, nullptr, &at_once), 0);
}

TEST(SetBlockStatus, ClearsAndSetsTheFlagAndKeepsTheOthers) {
    const unique_fd file(::open("/dev/null", O_WRONLY | O_APPEND | O_CLOEXEC));
    errno = 0;
    ASSERT_TRUE(SetBlockStatus(file.get(), /*blocking=*/false));
    EXPECT_EQ(::fcntl(file.get(), F_GETFL) & (O_NONBLOCK | O_APPEND), O_NONBLOCK | O_APPEND);
    ASSERT_TRUE(SetBlockStatus(file.get(), /*blocking=*/true));
    EXPECT_EQ(::fcntl(file.get(), F_GETFL) & (O_NONBLOCK | O_APPEND), O_APPEND);
}

TEST(SetBlockStatus, ReturnsFalseOnAClosedDescriptor) {
    errno = 0;
    EXPECT_FALSE(SetBlockStatus(closed_descriptor(), false));
    EXPECT_EQ(errno, EBADF);
}

TEST(SetBlockStatus, GivesUpOnAnEbadfThatAnEarlierCallLeft) {
    const tcp_connection connection;
    errno = EBADF;
    EXPECT_FALSE(SetBlockStatus(connection.near.get(), false));
    EXPECT_FALSE(is_non_blocking(connection.near.get()));
    errno = EIO; // no other error counts
    EXPECT_TRUE(SetBlockStatus(connection.near.get(), false));
    EXPECT_TRUE(is_non_blocking(connection.near.get()));
}

TEST(SetBlockStatus, ReturnsTrueWhateverSettingTheFlagsAnswers) {
    // A descriptor that only stands for a path lets its flags be read, but not changed.
    const unique_fd path_only(::open("/", O_PATH | O_CLOEXEC));
    ASSERT_EQ(::fcntl(path_only.get(), F_SETFL, O_NONBLOCK), -1);
    errno = 0;
    EXPECT_TRUE(SetBlockStatus(path_only.get(), false));
}

TEST(SetNagleStatus, SetsNoDelayToTheOppositeOfItsArgument) {
    const unique_fd socket(CreateSocket(0));
    EXPECT_TRUE(SetNagleStatus(socket.get(), false));
    EXPECT_EQ(int_option(socket.get(), IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_TRUE(SetNagleStatus(socket.get(), true));
    EXPECT_EQ(int_option(socket.get(), IPPROTO_TCP, TCP_NODELAY), 0);
}

TEST(SetNagleStatus, ReturnsFalseWithErrnoOnFailure) {
    EXPECT_FALSE(SetNagleStatus(closed_descriptor(), true));
    EXPECT_EQ(errno, EBADF);
    const unique_fd datagrams(CreateSocket(1));
    EXPECT_FALSE(SetNagleStatus(datagrams.get(), true));
}

TEST(SockAtMark, IsAlways0) {
    const tcp_connection connection;
    ASSERT_EQ(::send(connection.far.get(), "!", 1, MSG_OOB), 1);
    pollfd urgent = {connection.near.get(), POLLPRI, 0};
    ASSERT_EQ(kiv_test::uninterrupted([&] { return ::poll(&urgent, 1, 60'000); }), 1);
    EXPECT_EQ(SockAtMark(connection.near.get()), 0);
    EXPECT_EQ(SockAtMark(-1), 0);
}

TEST(CloseSocket, Returns0AndCloses) {
    const int socket = CreateSocket(0);
    errno = 0;
    EXPECT_EQ(CloseSocket(socket), 0);
    EXPECT_FALSE(is_open(socket));
}

TEST(CloseSocket, ShutsBothDirectionsDownBeforeClosing) {
    tcp_connection connection;
    // Another holder of the same socket keeps a mere close from ending the connection.
    const unique_fd other_holder(::fcntl(connection.near.get(), F_DUPFD_CLOEXEC, 0));
    errno = 0;
    ASSERT_EQ(CloseSocket(connection.near.release()), 0);
    char byte = 0;
    EXPECT_EQ(kiv_test::uninterrupted([&] { return ::recv(connection.far.get(), &byte, 1, 0); }),
              0);
    EXPECT_EQ(kiv_test::uninterrupted([&] { return ::recv(other_holder.get(), &byte, 1, 0); }), 0);
}

TEST(CloseSocket, ClosesADescriptorThatCannotBeShutDown) {
    unique_fd file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    errno = 0;
    const int number = file.release();
    EXPECT_EQ(CloseSocket(number), 0);
    EXPECT_FALSE(is_open(number));
}

TEST(CloseSocket, Returns9OnDescriptorsThatAreNotOpen) {
    errno = 0;
    EXPECT_EQ(CloseSocket(-1), 9);
    errno = 0;
    EXPECT_EQ(CloseSocket(closed_descriptor()), 9);
}

TEST(CloseSocket, Returns9WithoutClosingOnAnEbadfThatAnEarlierCallLeft) {
    const tcp_connection connection;
    errno = EBADF;
    EXPECT_EQ(CloseSocket(connection.near.get()), 9);
    ASSERT_TRUE(is_open(connection.near.get()));
    ASSERT_EQ(::send(connection.near.get(), "x", 1, 0), 1); // nor is it shut down
    char byte = 0;
    EXPECT_EQ(kiv_test::read_fully(connection.far.get(), &byte, 1), 1U);
}

TEST(CreateLoopbackPipes, MakesAReadAndAWriteEndThatDoNotBlock) {
    int ends[2] = {-1, -1};
    errno = 0;
    ASSERT_EQ(CreateLoopbackPipes(ends), 0);
    const unique_fd read_end(ends[0]);
    const unique_fd write_end(ends[1]);
    EXPECT_TRUE(is_non_blocking(read_end.get()));
    EXPECT_TRUE(is_non_blocking(write_end.get()));
    ASSERT_EQ(::write(write_end.get(), "x", 1), 1);
    char byte = 0;
    EXPECT_EQ(::read(read_end.get(), &byte, 1), 1);
    EXPECT_EQ(byte, 'x');
}

TEST(CreateLoopbackPipes, LeavesBothEndsBlockingOnAnEbadfThatAnEarlierCallLeft) {
    int ends[2] = {-1, -1};
    errno = EBADF;
    ASSERT_EQ(CreateLoopbackPipes(ends), 0);
    const unique_fd read_end(ends[0]);
    const unique_fd write_end(ends[1]);
    EXPECT_FALSE(is_non_blocking(read_end.get()));
    EXPECT_FALSE(is_non_blocking(write_end.get()));
}

TEST(CreateLoopbackPipes, ReturnsMinusOneWithTheErrorOfPipe) {
    int ends[2] = {-1, -1};
    const descriptors_exhausted none_left;
    errno = 0;
    EXPECT_EQ(CreateLoopbackPipes(ends), -1);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(ends[0], -1);
    EXPECT_EQ(ends[1], -1);
}

TEST(CreateLoopbackPipes, SwitchesWhatTheArrayHeldAfterAFailedPipe) {
    const tcp_connection connection;
    int ends[2] = {connection.near.get(), connection.far.get()};
    {
        const descriptors_exhausted none_left;
        errno = 0;
        ASSERT_EQ(CreateLoopbackPipes(ends), -1);
    }
    EXPECT_TRUE(is_non_blocking(connection.near.get()));
    EXPECT_TRUE(is_non_blocking(connection.far.get()));
}

} // namespace
