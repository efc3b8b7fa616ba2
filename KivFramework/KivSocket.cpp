#include "KivFramework/KivSocket.h"

#include "KivFramework/KivKqueue.h"
#include "KivFramework/KivLibrary.h"
#include "KivFramework/KivLogger.h"
#include "KivFramework/KivProcesses.h"
#include "KivFramework/internal/deflate.h"
#include "KivFramework/internal/frame_codec.h"
#include "KivFramework/internal/mutex_guard.h"
#include "KivFramework/internal/sliding_buffer.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string_view>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

namespace KivFramework::KivSocket {
namespace {

using internal::frame_encoding;
using internal::mutex_guard;

constexpr int error_level = 1;

sockaddr_in ipv4_address(in_addr host, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr = host;
    return address;
}

bool set_option(int socket, int level, int option, int value) {
    return ::setsockopt(socket, level, option, &value, sizeof(value)) == 0;
}

// Reads the descriptor's flags into `flags`.
//
// Deliberate: an EBADF that an earlier call left in errno counts as a failure even when the flags
// were read, because hosts meet that rule at SetBlockStatus and CloseSocket.
bool read_flags(int descriptor, int& flags) {
    flags = ::fcntl(descriptor, F_GETFL);
    return flags != -1 && errno != EBADF;
}

} // namespace
} // namespace KivFramework::KivSocket

using namespace KivFramework;

int KivSocket::CreateSocket(int kind) {
    const int type = kind == 1 || kind == 2 ? SOCK_DGRAM : SOCK_STREAM;
    return ::socket(AF_INET, type, 0);
}

bool KivSocket::BindBroadcastSocket(int socket, int port) {
    if (socket == -1) {
        return false;
    }
    if (!set_option(socket, SOL_SOCKET, SO_REUSEADDR, 1) ||
        !set_option(socket, SOL_SOCKET, SO_BROADCAST, 1)) {
        return false;
    }
    const sockaddr_in address = ipv4_address({htonl(INADDR_ANY)}, port);
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool KivSocket::SendbroadcastSocket(int socket, int port, char* data, int length) {
    const sockaddr_in address = ipv4_address({htonl(INADDR_BROADCAST)}, port);
    ssize_t sent = -1;
    if (length < 0) {
        errno = EINVAL; // as a size it would reach far beyond the data
    } else {
        sent = ::sendto(socket, data, static_cast<std::size_t>(length), MSG_NOSIGNAL,
                        reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    }
    if (sent == -1) {
        KivLogger::AddLogEntry(GetDefaultLogger(), error_level, "KivFramework",
                               "Unable to send broadcast packet. Socket error!");
    }
    return sent != -1;
}

bool KivSocket::ConnectSocket(int socket, std::string address, int port) {
    in_addr host{};
    // A text that is no address stands for 255.255.255.255 in inet_addr's result, and a misspelt
    // peer must not become everyone.
    if (::inet_aton(address.c_str(), &host) == 0) {
        errno = EINVAL;
        return false;
    }
    const sockaddr_in peer = ipv4_address(host, port);
    bool interrupted = false;
    while (::connect(socket, reinterpret_cast<const sockaddr*>(&peer), sizeof(peer)) == -1) {
        if (errno != EINTR) {
            // An interrupted attempt goes on by itself, and may be done when it is asked for again.
            return interrupted && errno == EISCONN;
        }
        interrupted = true;
    }
    return true;
}

bool KivSocket::ListenSocket(int socket) {
    constexpr int backlog = 5;
    // Deliberate: the result is inverted, because hosts already test it in this sense.
    return ::listen(socket, backlog) == -1;
}

int KivSocket::AcceptSocket(int socket, sockaddr* address, unsigned int* length) {
    return ::accept(socket, address, length);
}

int KivSocket::SelectSocket(int count, fd_set* read, fd_set* write, fd_set* error,
                            timeval* timeout) {
    // The sets end there; the system would read and write beyond them.
    if (count > FD_SETSIZE) {
        errno = EINVAL;
        return -1;
    }
    return ::select(count, read, write, error, timeout);
}

bool KivSocket::SetBlockStatus(int socket, bool blocking) {
    int flags = 0;
    if (!read_flags(socket, flags)) {
        return false;
    }
    // Deliberate: the result tells only of reading the flags; hosts are promised no more.
    ::fcntl(socket, F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
    return true;
}

bool KivSocket::SetNagleStatus(int socket, bool enabled) {
    return set_option(socket, IPPROTO_TCP, TCP_NODELAY, enabled ? 0 : 1);
}

int KivSocket::SockAtMark(int /*socket*/) {
    return 0;
}

int KivSocket::CloseSocket(int socket) {
    int flags = 0;
    if (!read_flags(socket, flags)) {
        return EBADF;
    }
    // Both directions end even while another process still holds the socket. A descriptor that
    // cannot be shut down is closed all the same.
    ::shutdown(socket, SHUT_RDWR);
    return ::close(socket);
}

int KivSocket::CreateLoopbackPipes(int* descriptors) {
    const int result = ::pipe(descriptors);
    const int error = errno;
    // Deliberate: the switch follows a failed creation too, as hosts have always seen it; the two
    // calls then fail on whatever the array held before.
    SetBlockStatus(descriptors[0], /*blocking=*/false);
    SetBlockStatus(descriptors[1], /*blocking=*/false);
    if (result == -1) {
        errno = error;
    }
    return result;
}

namespace KivFramework::KivSocket {
namespace {

// Compresses `body` into a frame; without a result when that does not pay.
bool compressed_frame(char type, std::string_view body, internal::outgoing_frame& frame) {
    constexpr std::size_t longest_plain_body = 10;
    constexpr double growth = 1.01;
    constexpr std::size_t spare = 12;
    // Deliberate: a compressed frame that is up to seven bytes longer than the plain one is still
    // sent, because peers compare frames byte for byte.
    constexpr std::size_t margin = 4;

    if (body.size() <= longest_plain_body ||
        body.size() > std::numeric_limits<std::uint32_t>::max()) {
        return false;
    }
    const auto capacity =
        static_cast<std::size_t>(static_cast<double>(body.size()) * growth) + spare;
    std::unique_ptr<char[]> stream(new char[capacity]);
    const std::size_t size = internal::deflate_text(body, stream.get(), capacity);
    if (size == 0 || size >= body.size() + margin) {
        return false;
    }
    frame = internal::deflated_frame(type, std::move(stream), size,
                                     static_cast<std::uint32_t>(body.size()));
    return true;
}

// The frame of a message; it borrows `body`.
internal::outgoing_frame frame_of(const char* type, const char* body) {
    const std::string_view text = body == nullptr ? std::string_view() : std::string_view(body);
    internal::outgoing_frame frame;
    if (!compressed_frame(*type, text, frame)) {
        frame = internal::plain_frame(*type, text);
    }
    return frame;
}

} // namespace
} // namespace KivFramework::KivSocket

void KivSocket::encodeMessage(const char* type, const char* body, char** frame,
                              unsigned long* payload_length, unsigned long* frame_length) {
    const internal::outgoing_frame message = frame_of(type, body);
    *frame = new char[message.size() + 1]; // one spare byte that is never sent
    internal::write_frame(message, *frame);
    *payload_length = message.payload_length();
    if (frame_length != nullptr) {
        *frame_length = message.size();
    }
}

void KivSocket::destroyEncodedMessage(char* buffer) {
    delete[] buffer;
}

char* KivSocket::kiv_resize_buffer(char* buffer, unsigned long* size, unsigned long used,
                                   unsigned long new_size) {
    char* const resized = new char[new_size]();
    if (buffer != nullptr) {
        std::memcpy(resized, buffer, std::min(used, new_size));
        delete[] buffer;
    }
    *size = new_size;
    return resized;
}

namespace KivFramework::KivSocket {
namespace {

constexpr const char* stream_module = "KivSocket";
constexpr const char* source_name = "./KivFramework/KivSocket"; // part of the message text

constexpr unsigned int receive_chunk = 4096;

// Fields that hosts and other threads read without the lock are read and written whole.
template <typename value_type>
value_type load(value_type& field) {
    return std::atomic_ref(field).load(std::memory_order_relaxed);
}

template <typename value_type>
void store(value_type& field, value_type value) {
    std::atomic_ref(field).store(value, std::memory_order_relaxed);
}

// Sizes are shown in 32 bits; a buffer beyond them cannot be had.
unsigned int shown_size(std::uint64_t size) {
    if (size > std::numeric_limits<unsigned int>::max()) {
        throw std::bad_alloc();
    }
    return static_cast<unsigned int>(size);
}

unsigned int shown_limit(unsigned long size) {
    return static_cast<unsigned int>(
        std::min<unsigned long>(size, std::numeric_limits<unsigned int>::max()));
}

// Hands one change to the stream's queue and returns 0 or the error.
//
// The caller's errno stays: an EBADF of the queue left in it would make SetBlockStatus and
// CloseSocket give up on a healthy socket.
int submit_change(kivSocketStream& stream, std::int16_t filter, std::uint16_t flags) {
    const int callers_errno = errno;
    struct kevent change {};
    // The address lets the host's loop find the stream of an event without a table.
    EV_SET(&change, static_cast<std::uintptr_t>(stream.socket), filter, flags, 0, 0, &stream);
    const int error = kevent(load(stream.kq), &change, 1, nullptr, 0, nullptr) == -1 ? errno : 0;
    errno = callers_errno;
    return error;
}

// Asks for write readiness, once, while output is pending, and for read readiness otherwise.
void update_interest(kivSocketStream& stream, int source_line) {
    if (load(stream.kq) == -1) {
        return;
    }
    const int error = load(stream.outUsed) != 0
                          ? submit_change(stream, EVFILT_WRITE, EV_ADD | EV_ONESHOT)
                          : submit_change(stream, EVFILT_READ, EV_ADD);
    if (error != 0) {
        // Deliberate: the logger is null, so nothing is written; a lost update is found by the
        // host's heart-beats.
        KivLogger::AddLogEntry(nullptr, error_level, stream_module,
                               "kevent(%d:%d) error on EV_ADD [%s:%d:%d]\n", load(stream.kq),
                               stream.socket, source_name, source_line, error);
    }
}

// Called inside the stream's mutex; the host's lock is always taken second.
void add_to_counter(long long* counter, pthread_mutex_t** lock, long long bytes) {
    if (counter == nullptr) {
        return;
    }
    if (lock == nullptr || *lock == nullptr) {
        *counter += bytes;
        return;
    }
    const mutex_guard guard(*lock);
    *counter += bytes;
}

// This side ends the connection, because a buffer would pass its limit.
void close_over_limit(kivSocketStream& stream) {
    store(stream.shutdownByUs, 1);
    store(stream.closed, 1);
    ::shutdown(stream.socket, SHUT_RDWR);
}

// The peer or an error ended the connection.
void end_by_peer(kivSocketStream& stream) {
    ::shutdown(stream.socket, SHUT_RDWR);
    store(stream.shutdownByUs, 0);
}

} // namespace

// What stands behind the two visible buffers. The visible pointers are the fronts of these.
struct kivSocketStream::buffers {
    internal::sliding_buffer in;
    internal::sliding_buffer out;

    buffers(unsigned int in_size, unsigned int out_size) : in(in_size), out(out_size) {}

    void drop_incoming(kivSocketStream& stream, unsigned int count) {
        const unsigned int rest = stream.inUsed - count;
        in.drop(count, rest, stream.inSize);
        stream.inBuffer = in.front();
        stream.inBuffer[rest] = 0;
        store(stream.inUsed, rest);
    }

    void drop_outgoing(kivSocketStream& stream, unsigned int count) {
        const unsigned int rest = stream.outUsed - count;
        out.drop(count, rest, stream.outSize);
        stream.outBuffer = out.front();
        store(stream.outUsed, rest);
    }
};

} // namespace KivFramework::KivSocket

KivSocket::kivSocketStream::kivSocketStream() : lastHeartBeat(std::time(nullptr)) {
    auto state = std::make_unique<buffers>(inSize, outSize);
    outBuffer = state->out.front();
    inBuffer = state->in.front();
    inBuffer[0] = 0;
    mutex = KivProcesses::CreateMutex();
    internal_state_ = state.release();
}

KivSocket::kivSocketStream::~kivSocketStream() {
    KivProcesses::DestroyMutex(mutex);
    mutex = nullptr;
    delete internal_state_;
}

void KivSocket::kivSocketStream::RegisterKq(int kqueue_descriptor) {
    store(kq, kqueue_descriptor);
    if (submit_change(*this, EVFILT_READ, EV_ADD) != 0) {
        KivLogger::AddLogEntry(nullptr, error_level, stream_module,
                               "Cannot kevent() on client listening socket");
    }
}

void KivSocket::kivSocketStream::RegisterCounters(long long* sent, long long* received,
                                                  pthread_mutex_t** lock) {
    sentCounter = sent;
    receivedCounter = received;
    countersMutex = lock;
}

bool KivSocket::kivSocketStream::AddMessage(const char* type, const char* body) {
    constexpr int update_line = 232; // part of the message text; does not follow this file

    if (load(closed) != 0 || mutex == nullptr) {
        return false;
    }
    const internal::outgoing_frame message = frame_of(type, body);
    {
        const mutex_guard guard(mutex);
        const std::uint64_t pending = std::uint64_t{outUsed} + message.size();
        if (pending + 1 > outSize) {
            if (pending > load(maxOutSize) && load(bufferCheck) != 0) {
                close_over_limit(*this);
                return false;
            }
            const unsigned int size = shown_size(pending);
            internal_state_->out.reserve(outUsed, size);
            outBuffer = internal_state_->out.front();
            outSize = size;
        }
        internal::write_frame(message, outBuffer + outUsed);
        store(outUsed, static_cast<unsigned int>(pending));
    }
    update_interest(*this, update_line);
    return true;
}

int KivSocket::kivSocketStream::Read() {
    constexpr int update_line = 319; // part of the message text; does not follow this file

    if (load(closed) != 0 || mutex == nullptr) {
        return 0;
    }
    const mutex_guard guard(mutex);
    if (inSize - inUsed <= receive_chunk) {
        const std::uint64_t grown = std::uint64_t{inSize} + receive_chunk + 1;
        if (grown > load(maxInSize) && load(bufferCheck) != 0) {
            close_over_limit(*this);
            return 0;
        }
        const unsigned int size = shown_size(grown);
        internal_state_->in.reserve(inUsed, size);
        inBuffer = internal_state_->in.front();
        inBuffer[inUsed] = 0; // stays behind the data even when nothing comes in now
        inSize = size;
    }

    const ssize_t received = ::recv(socket, inBuffer + inUsed, receive_chunk, 0);
    const int error = errno;
    if (received > 0) {
        store(inUsed, inUsed + static_cast<unsigned int>(received));
        inBuffer[inUsed] = 0;
        add_to_counter(receivedCounter, countersMutex, received);
        return static_cast<int>(received);
    }
    if (received == -1 && error == EAGAIN) {
        update_interest(*this, update_line);
        return -1;
    }
    end_by_peer(*this);
    return 0;
}

int KivSocket::kivSocketStream::Write() {
    constexpr int update_line = 388; // part of the message text; does not follow this file

    if (load(closed) != 0 || mutex == nullptr) {
        return 0;
    }
    const mutex_guard guard(mutex);
    if (outUsed == 0) {
        return -1;
    }

    const ssize_t sent = ::send(socket, outBuffer, outUsed, MSG_NOSIGNAL);
    const int error = errno;
    auto result = static_cast<int>(sent); // the system sends less than 2 GiB at a time
    if (sent > 0) {
        internal_state_->drop_outgoing(*this, static_cast<unsigned int>(sent));
        add_to_counter(sentCounter, countersMutex, sent);
    } else if (error != EAGAIN) {
        store(closed, 1);
        end_by_peer(*this);
        result = 0;
    }
    update_interest(*this, update_line);
    return result;
}

char* KivSocket::kivSocketStream::GetNextMessage() {
    if (load(closed) != 0 || mutex == nullptr) {
        return nullptr;
    }
    mutex_guard guard(mutex);
    if (inUsed < internal::smallest_frame_size) {
        return nullptr;
    }
    const internal::frame_head head = internal::read_frame_head(inBuffer);
    if (head.frame_size() > inUsed) {
        return nullptr;
    }

    const std::string_view payload(inBuffer + internal::frame_head_size, head.payload_length);
    if (head.encoding != static_cast<unsigned char>(frame_encoding::deflated)) {
        auto message = internal::plain_message(payload);
        internal_state_->drop_incoming(*this, static_cast<unsigned int>(head.frame_size()));
        return message.release();
    }

    // The frame is gone before it is inflated, whatever comes of it: a bad one must not come again.
    const std::string padded = internal::padded_payload(payload);
    internal_state_->drop_incoming(*this, static_cast<unsigned int>(head.frame_size()));
    auto message = internal::inflate_message(padded);
    if (message == nullptr) {
        // Deliberate: after a frame that does not inflate the mutex stays held, so that nobody goes
        // on with a stream whose peer sends garbage; hosts see it as a stream that stands still.
        guard.release();
    }
    return message.release();
}

char KivSocket::kivSocketStream::GetFirstByte() {
    if (mutex == nullptr) {
        return 0;
    }
    const mutex_guard guard(mutex);
    return inUsed < internal::smallest_frame_size ? '\0' : inBuffer[internal::frame_head_size];
}

void KivSocket::kivSocketStream::ClearBuffers() {
    if (mutex == nullptr) {
        return;
    }
    const mutex_guard guard(mutex);
    internal_state_->drop_incoming(*this, inUsed);
    internal_state_->drop_outgoing(*this, outUsed);
}

void KivSocket::kivSocketStream::GetBuffersUsage(double& incoming, double& outgoing) {
    constexpr double percent = 100;
    incoming = load(inUsed) * percent / load(maxInSize);
    outgoing = load(outUsed) * percent / load(maxOutSize);
}

bool KivSocket::kivSocketStream::HasToWrite() {
    return load(closed) == 0 && load(outUsed) != 0;
}

void KivSocket::kivSocketStream::UpdateHeartBeat() {
    store(lastHeartBeat, std::time(nullptr));
}

bool KivSocket::kivSocketStream::CheckHeartBeat(int seconds) {
    return std::time(nullptr) - load(lastHeartBeat) <= seconds;
}

void KivSocket::kivSocketStream::SetMaxIncomingBufferSize(unsigned long size) {
    store(maxInSize, shown_limit(size));
}

void KivSocket::kivSocketStream::SetMaxOutgoingBufferSize(unsigned long size) {
    store(maxOutSize, shown_limit(size));
}

void KivSocket::kivSocketStream::SetBufferCheck(bool enabled) {
    store(bufferCheck, enabled ? 1 : 0);
}

void KivSocket::kivSocketStream::Shutdown() {
    store(shutdownByUs, 1);
    if (::fcntl(socket, F_GETFL) == -1 && errno == EBADF) {
        return;
    }
    ::shutdown(socket, SHUT_RDWR);
}

void KivSocket::kivSocketStream::Close() {
    store(shutdownByUs, 1);
    if (load(kq) != -1) {
        // A filter that is not there any more (a write interest is one-shot) is no error here.
        submit_change(*this, EVFILT_WRITE, EV_DELETE);
        submit_change(*this, EVFILT_READ, EV_DELETE);
    }
    CloseSocket(socket);
}
