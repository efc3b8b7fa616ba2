#include "messages.h"

#include <KivFramework/KivProcesses.h>
#include <fcntl.h>

using namespace KivFramework;

namespace {

// The frame: encoding byte, payload length, then the payload: type byte and body. A compressed
// body begins with its unpacked length. Lengths are little-endian.
constexpr std::size_t length_offset = 1;
constexpr std::size_t payload_offset = 5;
constexpr std::size_t unpacked_length_offset = 6;
constexpr std::size_t compressed_header = 5; // type byte and unpacked length

enum encoding : unsigned char { no_body = 0, plain = 1, compressed = 2 };

unsigned char byte_at(const kivSocketStream& stream, std::size_t offset) {
    return static_cast<unsigned char>(stream.inBuffer[offset]);
}

std::size_t length_at(const kivSocketStream& stream, std::size_t offset) {
    std::size_t value = 0;
    for (std::size_t i = 4; i-- > 0;) {
        value = value << 8 | byte_at(stream, offset + i);
    }
    return value;
}

// What is wrong with the frame at the front of the buffer as far as it has arrived; empty when
// nothing is. The fields are read without the stream's lock: only the thread that calls this
// changes the incoming buffer.
std::string frame_problem(const kivSocketStream& stream, std::size_t longest_body) {
    if (stream.inUsed == 0) {
        return {};
    }
    const unsigned char encoding = byte_at(stream, 0);
    if (encoding > compressed) {
        return "unknown encoding " + std::to_string(encoding);
    }
    if (stream.inUsed < payload_offset) {
        return {};
    }
    const std::size_t length = length_at(stream, length_offset);
    if (length == 0 || (encoding == no_body && length != 1) ||
        (encoding == compressed && length <= compressed_header)) {
        return "a frame of impossible length " + std::to_string(length);
    }
    if (length > longest_body + compressed_header) {
        return "a frame of " + std::to_string(length) + " bytes";
    }
    if (encoding == compressed && stream.inUsed >= payload_offset + compressed_header) {
        const std::size_t unpacked = length_at(stream, unpacked_length_offset);
        if (unpacked > longest_body) {
            return "a frame that unpacks to " + std::to_string(unpacked) + " bytes";
        }
    }
    return {};
}

bool has_whole_frame(const kivSocketStream& stream) {
    return stream.inUsed > payload_offset &&
           stream.inUsed >= payload_offset + length_at(stream, length_offset);
}

} // namespace

agent::incoming agent::take_message(kivSocketStream& stream, std::size_t longest_body) {
    incoming result;
    result.text = frame_problem(stream, longest_body);
    if (!result.text.empty()) {
        result.what = incoming::kind::malformed;
        return result;
    }
    if (!has_whole_frame(stream)) {
        return result;
    }
    char* message = stream.GetNextMessage();
    if (message == nullptr) {
        // A whole frame that gives no message: its compressed body was damaged. The stream reports
        // that by keeping its mutex locked, so that nobody reads on by accident. This thread made
        // the call, so it holds the mutex and may give it back, which the stream's end needs: a
        // held mutex must not be destroyed.
        KivProcesses::UnlockMutex(stream.mutex);
        result.what = incoming::kind::malformed;
        result.text = "a compressed frame that does not unpack";
        return result;
    }
    result.what = incoming::kind::message;
    result.type = message[0];
    result.text = message + 1;
    KivSocket::destroyEncodedMessage(message);
    return result;
}

void agent::keep_from_children(int descriptor) {
    const int flags = ::fcntl(descriptor, F_GETFD);
    if (flags != -1) {
        ::fcntl(descriptor, F_SETFD, flags | FD_CLOEXEC);
    }
}
