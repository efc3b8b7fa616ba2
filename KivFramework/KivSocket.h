/// \file
/// Sockets: IPv4 primitives, the message frame and the buffered message stream.
///
/// Threads: the functions take no lock of their own and share no state, so any number of them may
/// run at once, on one socket as well. But two changes of one descriptor by `SetBlockStatus` may
/// undo each other, and a socket is closed when no other thread uses it any more, since its number
/// may come back at once. `errno`, which `SetBlockStatus`, `CloseSocket` and `CreateLoopbackPipes`
/// look at, is the calling thread's own. No call touches a signal handler or mask. A stream has a
/// mutex: see `kivSocketStream`.
#pragma once

#include "KivFramework/KivExport.h"

#include <ctime>
#include <string>

#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace KivFramework {
namespace KivSocket {

/// Makes an IPv4 socket.
///
/// \param kind  1 and 2 make a datagram socket, every other value (0 is usual) a stream socket.
/// \returns the descriptor, the caller's until `CloseSocket`; -1 on failure (`errno` tells why).
KIV_API int CreateSocket(int kind);

/// Prepares a datagram socket for broadcasts: allows reuse of the address (`SO_REUSEADDR`) and
/// broadcasting (`SO_BROADCAST`), then binds to `port` on all interfaces.
///
/// \param port  0 to 65535; of other values the low 16 bits count.
/// \returns true when all three steps succeeded; false at the first that failed (`errno` tells why)
///          and, without a system call, for a `socket` of -1.
KIV_API bool BindBroadcastSocket(int socket, int port);

/// Sends one datagram to everyone on the local network (255.255.255.255).
///
/// A failure is also written to the default logger, at level 1.
///
/// \param socket  one that `BindBroadcastSocket` prepared.
/// \param port    the receivers' port; of values above 65535 the low 16 bits count.
/// \param data    `length` bytes; not written to.
/// \param length  a negative one fails with `EINVAL`.
/// \returns false when the datagram could not be sent (`errno` tells why).
KIV_API bool SendbroadcastSocket(int socket, int port, char* data, int length);

/// Connects to an IPv4 address.
///
/// \param address  in dotted form; names are not looked up. Any other text fails with `EINVAL`, and
///                 nothing is connected.
/// \param port     0 to 65535; of other values the low 16 bits count.
/// \returns true when connected, whatever signals arrive meanwhile; otherwise `errno` tells why. A
///          non-blocking socket whose connection is still in progress counts as failed
///          (`EINPROGRESS`).
KIV_API bool ConnectSocket(int socket, std::string address, int port);

/// Starts listening with a backlog of 5.
///
/// \param socket  a bound stream socket; it stays the caller's.
/// \returns false when listening started, true when `listen` failed (`errno` tells why).
///
/// Deliberate: the result is inverted, because hosts already test it in this sense.
KIV_API bool ListenSocket(int socket);

/// Accepts a connection: `accept` with the same arguments.
///
/// \param[out] address    the peer's address; may be null.
/// \param[in,out] length  bytes available at `address`, then bytes of the peer's address; null
///                        when `address` is.
/// \returns the connection, the caller's until `CloseSocket`; -1 on failure (`errno` tells why).
KIV_API int AcceptSocket(int socket, sockaddr* address, unsigned int* length);

/// Waits until descriptors are ready: `select` with the same arguments.
///
/// \param count  the highest descriptor of the sets plus 1; above `FD_SETSIZE` the call fails with
///               `EINVAL` and leaves the sets alone.
/// \returns the number of descriptors left in the sets, 0 when the time passed, -1 on failure
///          (`errno` tells why; an interrupted wait is not resumed).
KIV_API int SelectSocket(int count, fd_set* read, fd_set* write, fd_set* error, timeval* timeout);

/// Makes a descriptor blocking or non-blocking.
///
/// \returns false when the descriptor's flags could not be read (`errno` tells why).
///
/// Deliberate: an `errno` of `EBADF` left by any earlier call gives false too, without a change,
/// and a failure to set the flags gives true; hosts know the call this way. Clear `errno` first.
KIV_API bool SetBlockStatus(int socket, bool blocking);

/// Switches Nagle's algorithm, which holds small segments back to join them.
///
/// \param enabled  false sends every segment at once (`TCP_NODELAY`).
/// \returns true on success; otherwise `errno` tells why.
KIV_API bool SetNagleStatus(int socket, bool enabled);

/// Tells whether the socket is at out-of-band data: always 0, such data is never reported.
KIV_API int SockAtMark(int socket);

/// Shuts a socket down in both directions and closes it; other descriptors are just closed.
///
/// \returns the result of `close` (0, or -1 and `errno` tells why), or 9 (`EBADF`) when the
///          descriptor is not open; then nothing is closed.
///
/// Deliberate: an `errno` of `EBADF` left by any earlier call gives 9 too, and the descriptor stays
/// open; hosts know the call this way. Clear `errno` first.
KIV_API int CloseSocket(int socket);

/// Makes a pipe and switches both its ends to non-blocking with `SetBlockStatus`.
///
/// \param[out] descriptors  two descriptors, the caller's: 0 is the read end, 1 the write end.
/// \returns the result of `pipe`: 0, or -1 (`errno` tells why).
///
/// Deliberate: after a failed `pipe` the switch is tried on what the array held before, as hosts
/// have always seen it; fill it with -1 first. The rule of `SetBlockStatus` on an old `EBADF` holds
/// here as well: it leaves both ends blocking.
KIV_API int CreateLoopbackPipes(int* descriptors);

/// Makes the frame in which a message travels.
///
/// Byte 0 is the encoding (0 no body, 1 plain, 2 compressed), bytes 1 to 4 the payload length in
/// little-endian order, byte 5 the type; the body follows, or its length in 4 little-endian bytes
/// and its zlib stream. Bodies longer than 10 bytes are compressed at zlib's default level.
///
/// \param type                 not null; only its first byte is sent (0 for an empty text).
/// \param body                 the text; null and empty are the same.
/// \param[out] frame           the frame, released with `destroyEncodedMessage`.
/// \param[out] payload_length  the bytes from the type to the end.
/// \param[out] frame_length    the bytes of the whole frame, 5 more; may be null.
/// \throws std::bad_alloc when memory runs out, std::length_error for a body of 4 GiB and more.
///
/// Threads: any number at once. Each keeps the state of its compressor (about 256 KiB), until it
/// ends.
/// Deliberate: a compressed body is used as long as it is less than 4 bytes longer than the body
/// itself, so that a frame may be up to 7 bytes longer than the plain one; peers compare frames
/// byte for byte.
KIV_API void encodeMessage(const char* type, const char* body, char** frame,
                           unsigned long* payload_length, unsigned long* frame_length);

/// Releases a frame of `encodeMessage` or a message of `kivSocketStream::GetNextMessage`; null is
/// ignored.
KIV_API void destroyEncodedMessage(char* buffer);

/// Moves the bytes of a buffer made with `new[]` into a larger, zero-filled one.
///
/// Not for the buffers of a stream, which have their own way to grow.
///
/// \param buffer     released with `delete[]`; may be null.
/// \param[out] size  becomes `new_size`.
/// \param used       the bytes to keep; no more than `new_size` are.
/// \returns the new buffer, the caller's, released with `delete[]`.
KIV_API char* kiv_resize_buffer(char* buffer, unsigned long* size, unsigned long used,
                                unsigned long new_size);

/// A two-way channel of messages over a connected, non-blocking stream socket.
///
/// The host sets `socket` first, registers its queue and counters if it has them, and then drives
/// the stream from its `kevent` loop: `Write` when the socket is writable, `Read` and then
/// `GetNextMessage` until it returns null when it is readable. The stream keeps the socket's
/// interest up to date; the events carry the stream's own address as `udata`. It ends when the host
/// calls `Shutdown` or `Close`, when a buffer would pass its limit, or when the peer or an error
/// ends the connection; `shutdownByUs` tells the last from the others. Nothing reopens a stream,
/// and destroying it leaves `socket` alone.
///
/// Taking what has arrived, and answering it:
///
/// \code
/// while (char* message = stream.GetNextMessage()) {
///     if (answer != nullptr) {
///         stream.AddMessage(answer, message + 1); // message[0] is the type
///     }
///     KivSocket::destroyEncodedMessage(message);
/// \endcode
///
/// Hosts read the fields and set `socket`; the rest is the stream's. The bytes held stand at the
/// front of each buffer, whose address any call on the stream may change.
///
/// Threads: `mutex` serialises `AddMessage`, `Read`, `Write`, `GetNextMessage`, `GetFirstByte` and
/// `ClearBuffers`, so that one thread may queue messages while another drives the stream. The other
/// calls take no lock; `HasToWrite`, `GetBuffersUsage`, the heart-beat calls, the setters of limits
/// and `Shutdown` may run at any time, `RegisterKq`, `RegisterCounters` and `Close` belong to the
/// thread that drives it. A thread cancelled inside a call leaves no lock held.
///
/// When memory runs out, `AddMessage`, `Read` and `GetNextMessage` throw `std::bad_alloc`, release
/// the lock and leave the stream as it was, but for a compressed message, which is lost.
class KIV_API kivSocketStream {
public:
    kivSocketStream();
    ~kivSocketStream();
    kivSocketStream(const kivSocketStream&) = delete;
    kivSocketStream& operator=(const kivSocketStream&) = delete;

    /// Makes the stream keep its interest up to date in a queue, and asks for read readiness there.
    ///
    /// \param kqueue_descriptor  from `kqueue`; it stays the caller's. -1 for none.
    ///
    /// Deliberate: a failure to ask is not reported anywhere, as for all interest updates; the
    /// host's heart-beats find a stream that nothing wakes.
    void RegisterKq(int kqueue_descriptor);

    /// Makes the stream add the bytes it moves to totals of the host.
    ///
    /// \param sent      total of bytes sent; may be null.
    /// \param received  total of bytes received; may be null.
    /// \param lock      address of the handle of the mutex that guards both totals; may be null. It
    ///                  is taken inside the stream's own, so several streams can share it.
    ///
    /// All three stay the caller's and must outlive their use.
    void RegisterCounters(long long* sent, long long* received, pthread_mutex_t** lock);

    /// Queues a message and asks the queue for write readiness.
    ///
    /// \param type  not null; only its first byte is sent.
    /// \param body  the text; may be null.
    /// \returns true when queued. False when the stream is closed, or when the pending bytes would
    ///          pass the outgoing limit (with the buffer check on): then the message is dropped and
    ///          the stream closed by this side.
    /// \throws std::bad_alloc, std::length_error as `encodeMessage`.
    bool AddMessage(const char* type, const char* body);

    /// Receives once, at most 4096 bytes, into the incoming buffer.
    ///
    /// \returns the number of bytes received; -1 when there are none now; 0 when the stream is
    ///          closed, the peer closed, an error occurred, or the buffer would pass the incoming
    ///          limit (with the buffer check on), which closes the stream by this side.
    ///
    /// The buffer grows by 4097 bytes whenever 4096 or fewer are free, so the limit ends a stream
    /// before its bytes do.
    /// Deliberate: after the peer closed or an error occurred the socket is shut down but `closed`
    /// stays clear, because hosts take the messages that came before with `GetNextMessage`.
    int Read();

    /// Sends once, as much of the outgoing buffer as the socket takes.
    ///
    /// Never raises `SIGPIPE`.
    ///
    /// \returns the number of bytes sent; -1 when nothing was pending or the socket takes nothing
    ///          now; 0 when the stream is closed or an error occurred, which closes it.
    int Write();

    /// Takes the next whole message from the incoming buffer.
    ///
    /// \returns the type byte, the body and a NUL, released with `destroyEncodedMessage`. Null when
    ///          no whole message is buffered, the stream is closed, or a compressed message is
    ///          corrupt.
    ///
    /// Deliberate: a corrupt message is dropped and the mutex stays held, so every later call on
    /// the stream that takes it blocks; hosts know such a peer by a stream that stands still. A
    /// host whose streams each belong to one thread can ask after a null result:
    /// `pthread_mutex_trylock(stream.mutex)` gives `EBUSY` then (and takes the lock otherwise).
    char* GetNextMessage();

    /// The type byte of the first buffered frame, whole or not; 0 while it has not arrived.
    char GetFirstByte();

    /// Forgets all bytes held, in both directions; the buffers keep their sizes.
    void ClearBuffers();

    /// Tells how full the buffers are, in percent of their limits (not of their sizes).
    ///
    /// A limit of 0 gives infinity, or not-a-number while nothing is held.
    void GetBuffersUsage(double& incoming, double& outgoing);

    /// Whether the stream is open and has bytes to send.
    bool HasToWrite();

    /// Notes that the peer was heard of now.
    void UpdateHeartBeat();

    /// Whether the peer was heard of within the last `seconds` seconds, by the wall clock: a clock
    /// that is set forward makes every peer silent.
    bool CheckHeartBeat(int seconds);

    /// Sets the limit of the incoming buffer in bytes; values beyond 32 bits set the greatest one.
    void SetMaxIncomingBufferSize(unsigned long size);

    /// Sets the limit of the outgoing buffer in bytes; values beyond 32 bits set the greatest one.
    void SetMaxOutgoingBufferSize(unsigned long size);

    /// Chooses whether passing a limit closes the stream; without it the buffers grow on.
    void SetBufferCheck(bool enabled);

    /// Ends the connection in both directions, as this side's deed. The socket stays open, and
    /// `closed` clear.
    void Shutdown();

    /// Withdraws both interests from the queue and closes the socket, as this side's deed.
    ///
    /// Deliberate: the socket is closed by `CloseSocket`, so an `errno` of `EBADF` left by any
    /// earlier call keeps it open; and `closed` stays clear. Destroy the stream next.
    void Close();

    char* outBuffer;                  ///< frames to send
    char* inBuffer;                   ///< bytes received and not yet taken, with a NUL behind them
    unsigned int inUsed = 0;          ///< bytes held in `inBuffer`
    unsigned int outUsed = 0;         ///< bytes held in `outBuffer`
    unsigned int inSize = 2049;       ///< size of `inBuffer`
    unsigned int outSize = 2049;      ///< size of `outBuffer`
    pthread_mutex_t* mutex;           ///< guards both buffers and their counts
    std::time_t lastHeartBeat;        ///< starts at the time of construction
    unsigned int maxInSize = 128000;  ///< limit of `inSize`
    unsigned int maxOutSize = 128000; ///< limit of `outUsed`
    int bufferCheck = 1;              ///< 1: passing a limit closes the stream
    long long* sentCounter = nullptr; ///< the host's, or null
    long long* receivedCounter = nullptr;      ///< the host's, or null
    pthread_mutex_t** countersMutex = nullptr; ///< the host's, or null; guards both counters
    int kq = -1;                               ///< queue of the interest updates, or -1
    int shutdownByUs = 0;                      ///< 1 when this side ended the connection
    int closed = 0;  ///< 1: `Read`, `Write`, `AddMessage`, `GetNextMessage` do nothing
    int socket = -1; ///< the connected socket, set by the host

private:
    struct buffers;

    buffers* internal_state_;
};

} // namespace KivSocket

using KivSocket::kivSocketStream;

} // namespace KivFramework
