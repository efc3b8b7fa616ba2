#include "KivFramework/KivProcesses.h"
#include "KivFramework/internal/unique_fd.h"

#include "tests/support/child_process.h"
#include "tests/support/network_namespace.h"
#include "tests/support/transfers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <net/if.h>
#include <netinet/if_ether.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <netpacket/packet.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace KivFramework::KivProcesses;
using kiv_test::report_of_child;
using KivFramework::internal::unique_fd;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// The calls of the sender, in their order. A packet leaves this program only while a test has made
// sure that it is in a network namespace of its own.
struct recorder {
    bool sending_is_safe = false;
    std::string failing;      // the name of the call that fails
    bool interrupted = false; // the first attempt to send meets a signal
    std::vector<std::string> calls;
    std::string sent; // the bytes of the last packet
    sockaddr_in destination{};
};
recorder record;

bool fails(const char* name) {
    record.calls.emplace_back(name);
    if (record.failing != name) {
        return false;
    }
    errno = EPERM;
    return true;
}

template <typename function_type>
function_type* next_function(const char* name) {
    return reinterpret_cast<function_type*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

// These stand before the C library's, for the library too.
extern "C" int socket(int domain, int type, int protocol) noexcept {
    if (fails("socket")) {
        return -1;
    }
    return next_function<int(int, int, int)>("socket")(domain, type, protocol);
}
extern "C" int setsockopt(int fd, int level, int optname, const void* optval,
                          socklen_t optlen) noexcept {
    if (fails("setsockopt")) {
        return -1;
    }
    EXPECT_TRUE(level == SOL_SOCKET && optname == SO_BROADCAST);
    return next_function<int(int, int, int, const void*, socklen_t)>("setsockopt")(
        fd, level, optname, optval, optlen);
}
extern "C" int bind(int fd, const sockaddr* addr, socklen_t len) noexcept {
    if (fails("bind")) {
        return -1;
    }
    sockaddr_in bound{};
    std::memcpy(&bound, addr, sizeof(bound));
    EXPECT_EQ(bound.sin_family, AF_INET);
    EXPECT_EQ(bound.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(bound.sin_port, 0);
    return next_function<int(int, const sockaddr*, socklen_t)>("bind")(fd, addr, len);
}
extern "C" ssize_t sendto(int fd, const void* buf, std::size_t n, int flags, const sockaddr* addr,
                          socklen_t addr_len) {
    if (fails("sendto")) {
        return -1;
    }
    if (record.interrupted) {
        record.interrupted = false;
        errno = EINTR;
        return -1;
    }
    record.sent.assign(static_cast<const char*>(buf), n);
    std::memcpy(&record.destination, addr, sizeof(record.destination));
    if (!record.sending_is_safe) {
        return static_cast<ssize_t>(record.failing == "short" ? n - 1 : n);
    }
    return next_function<ssize_t(int, const void*, std::size_t, int, const sockaddr*, socklen_t)>(
        "sendto")(fd, buf, n, flags, addr, addr_len);
}
extern "C" int close(int fd) {
    record.calls.emplace_back("close");
    return next_function<int(int)>("close")(fd);
}

namespace {

// Records from here to the end of the scope, with `failing` failing.
class recording {
public:
    explicit recording(const std::string& failing = "") {
        record = recorder();
        record.failing = failing;
    }
    ~recording() { record = recorder(); }
    recording(const recording&) = delete;
    recording& operator=(const recording&) = delete;
};

// The packet for an address given as its six bytes.
std::string packet_for(const std::string& address) {
    std::string packet(6, '\xFF');
    for (int i = 0; i < 16; ++i) {
        packet += address;
    }
    return packet;
}

// What would be sent for `mac_address`; nothing leaves the program.
std::string packet_of(const std::string& mac_address) {
    const recording scope;
    EXPECT_TRUE(SendWOL(mac_address, 9)) << mac_address;
    return record.sent;
}

std::set<std::string> interfaces() {
    std::set<std::string> names;
    struct if_nameindex* list = ::if_nameindex();
    for (struct if_nameindex* entry = list; entry != nullptr && entry->if_index != 0; ++entry) {
        names.insert(entry->if_name);
    }
    ::if_freenameindex(list);
    return names;
}

// A socket that sees every IPv4 frame of an interface.
unique_fd listen_on(const char* interface) {
    unique_fd listener(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP)));
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = static_cast<int>(::if_nametoindex(interface));
    EXPECT_EQ(next_function<int(int, const sockaddr*, socklen_t)>("bind")(
                  listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
              0);
    return listener;
}

template <typename header_type>
header_type header_at(const std::string& frame, std::size_t offset) {
    header_type header{};
    EXPECT_GE(frame.size(), offset + sizeof(header));
    std::memcpy(&header, frame.data() + offset, sizeof(header));
    return header;
}

TEST(SendWOL, BroadcastsThePacketOnTheWire) {
    const kiv_test::network_namespace network;
    if (!network.entered()) {
        GTEST_SKIP() << network.refusal();
    }
    network.ip("link add wire0 type veth peer name wire1");
    network.ip("addr add 10.99.0.1/24 dev wire0");
    network.ip("link set wire0 up");
    network.ip("link set wire1 up");
    network.ip("route add default dev wire0");
    ASSERT_EQ(interfaces(), (std::set<std::string>{"lo", "wire0", "wire1"}))
        << "these are not the namespace's interfaces";

    const unique_fd listener = listen_on("wire1");
    bool sent = false;
    {
        const recording scope;
        record.sending_is_safe = true;
        sent = SendWOL("00:11:22:33:44:55", 9);
    }
    ASSERT_TRUE(sent);
    std::array<char, 2048> buffer{};
    const ssize_t length = kiv_test::uninterrupted(
        [&] { return ::recv(listener.get(), buffer.data(), buffer.size(), 0); });
    ASSERT_GT(length, 0);
    const std::string frame(buffer.data(), static_cast<std::size_t>(length));

    const auto ethernet = header_at<ether_header>(frame, 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(ethernet.ether_dhost), ETH_ALEN),
              std::string(ETH_ALEN, '\xFF'));
    const auto internet = header_at<iphdr>(frame, sizeof(ethernet));
    EXPECT_EQ(internet.daddr, htonl(INADDR_BROADCAST));
    EXPECT_EQ(internet.protocol, IPPROTO_UDP);
    const auto datagram = header_at<udphdr>(frame, sizeof(ethernet) + sizeof(internet));
    EXPECT_EQ(ntohs(datagram.dest), 9);
    EXPECT_EQ(frame.substr(sizeof(ethernet) + sizeof(internet) + sizeof(datagram)),
              packet_for({"\x00\x11\x22\x33\x44\x55", 6}));
}

TEST(SendWOL, MakesSixBytesOfOnesAndSixteenAddresses) {
    const std::string packet = packet_of("00:11:22:33:44:55");
    EXPECT_EQ(packet.size(), 102U);
    EXPECT_EQ(packet, packet_for({"\x00\x11\x22\x33\x44\x55", 6}));
}

TEST(SendWOL, IgnoresEverySeparatorWhereverItStands) {
    for (const char* text : {"00-11-22-33-44-55", "001122334455", "0:0-1:1-2:2-3:3-4:4-5:5",
                             "::001122-334455--", "00:11-22:33-44:55:"}) {
        EXPECT_EQ(packet_of(text), packet_for({"\x00\x11\x22\x33\x44\x55", 6})) << text;
    }
}

TEST(SendWOL, ReadsEachPairAsHexToIntDoes) {
    EXPECT_EQ(packet_of("00:11:22:33:44:5G"), packet_for({"\x00\x11\x22\x33\x44\x05", 6}));
    EXPECT_EQ(packet_of("aB0xG1 5+50X"), packet_for({"\xAB\x00\x00\x05\x05\x00", 6}));
    EXPECT_EQ(packet_of(std::string("1\0"
                                    "22334455\0"
                                    "6",
                                    12)),
              packet_for({"\x01\x22\x33\x44\x55\x00", 6}));
}

TEST(SendWOL, RefusesAddressesOfAnotherLengthWithoutASocket) {
    for (const char* text : {"", ":", "0011223344", "00112233445", "0011223344556",
                             "00:11:22:33:44:55:66", "00.11.22.33.44.55", " 00:11:22:33:44:55"}) {
        const recording scope;
        EXPECT_FALSE(SendWOL(text, 9)) << text;
        EXPECT_THAT(record.calls, IsEmpty()) << text;
    }
}

TEST(SendWOL, SendsToTheLimitedBroadcastAddress) {
    const recording scope;
    EXPECT_TRUE(SendWOL("001122334455", 9));
    EXPECT_EQ(record.destination.sin_family, AF_INET);
    EXPECT_EQ(record.destination.sin_addr.s_addr, htonl(INADDR_BROADCAST));
}

TEST(SendWOL, TakesTheLowSixteenBitsOfThePort) {
    const struct {
        int port;
        int on_the_wire;
    } cases[] = {{9, 9}, {40000, 40000}, {65535, 65535}, {65536 + 7, 7}, {0, 0}, {-1, 65535}};
    for (const auto& [port, on_the_wire] : cases) {
        const recording scope;
        EXPECT_TRUE(SendWOL("001122334455", port));
        EXPECT_EQ(ntohs(record.destination.sin_port), on_the_wire) << port;
    }
}

TEST(SendWOL, TakesItsStepsInOrder) {
    const recording scope;
    EXPECT_TRUE(SendWOL("001122334455", 9));
    EXPECT_THAT(record.calls, ElementsAre("socket", "setsockopt", "bind", "sendto", "close"));
}

TEST(SendWOL, ClosesTheSocketAfterAStepThatFails) {
    {
        const recording scope("socket");
        EXPECT_FALSE(SendWOL("001122334455", 9));
        EXPECT_THAT(record.calls, ElementsAre("socket"));
    }
    {
        const recording scope("setsockopt");
        EXPECT_FALSE(SendWOL("001122334455", 9));
        EXPECT_THAT(record.calls, ElementsAre("socket", "setsockopt", "close"));
    }
    {
        const recording scope("bind");
        EXPECT_FALSE(SendWOL("001122334455", 9));
        EXPECT_THAT(record.calls, ElementsAre("socket", "setsockopt", "bind", "close"));
    }
    const recording scope("sendto");
    EXPECT_FALSE(SendWOL("001122334455", 9));
    EXPECT_THAT(record.calls, ElementsAre("socket", "setsockopt", "bind", "sendto", "close"));
}

TEST(SendWOL, IsFalseForAPacketThatWasNotSentWhole) {
    const recording scope("short");
    EXPECT_FALSE(SendWOL("001122334455", 9));
}

TEST(SendWOL, SendsAgainAfterASignal) {
    const recording scope;
    record.interrupted = true;
    EXPECT_TRUE(SendWOL("001122334455", 9));
    EXPECT_EQ(record.sent.size(), 102U);
}

TEST(SendWOL, ClosesItsSocketDespiteAnOldErrorNumber) {
    const recording scope;
    errno = EBADF;
    EXPECT_TRUE(SendWOL("001122334455", 9));
    EXPECT_EQ(record.calls.back(), "close");
}

TEST(SendWOL, FailsWithDescriptorZeroAndLeavesItFree) {
    EXPECT_EQ(report_of_child([] {
                  ::close(STDIN_FILENO);
                  const recording scope;
                  const bool sent = SendWOL("001122334455", 9);
                  const bool is_free = ::dup(STDOUT_FILENO) == STDIN_FILENO;
                  return std::string(sent ? "sent" : "failed") + (is_free ? ", free" : ", taken");
              }),
              "failed, free");
}

TEST(HexToInt, ReadsTwoCharactersLikeStrtol) {
    const struct {
        std::string text;
        int value;
    } cases[] = {
        {"00", 0}, {"0f", 15}, {"F0", 240}, {"ff", 255},   {"FF", 255},     {"5G", 5},
        {"G5", 0}, {"", 0},    {"7", 7},    {"123", 0x12}, {"fff", 255},    {" 5", 5},
        {"5 ", 5}, {"\t9", 9}, {"+5", 5},   {"-1", 255},   {"-f", 0xF1},    {"--", 0},
        {"0x", 0}, {"0x1", 0}, {"x1", 0},   {"  1", 0},    {"\xC3\xA4", 0},
    };
    for (const auto& [text, value] : cases) {
        std::string characters = text;
        EXPECT_EQ(hexToInt(characters.data()), value) << text;
    }
}

TEST(HexToInt, ReadsNothingBeyondTwoCharacters) {
    const std::array<char, 2> unterminated{'a', 'b'};
    std::vector<char> exact(unterminated.begin(), unterminated.end());
    EXPECT_EQ(hexToInt(exact.data()), 0xAB); // the address sanitizer guards the byte behind
}

TEST(HexToInt, LeavesTheTextAsItIs) {
    std::string text = "1G";
    hexToInt(text.data());
    EXPECT_EQ(text, "1G");
}

} // namespace
