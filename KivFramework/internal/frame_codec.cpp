#include "KivFramework/internal/frame_codec.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

namespace KivFramework::internal {
namespace {

constexpr std::size_t type_size = 1;
constexpr std::size_t length_size = 4;
// Receivers of this format pass zlib a length that is greater by the body's length field.
constexpr std::size_t padding_size = length_size;

void write_length(std::uint32_t value, char* destination) {
    for (unsigned int shift = 0; shift < 32; shift += 8) {
        *destination++ = static_cast<char>(static_cast<unsigned char>(value >> shift));
    }
}

std::uint32_t read_length(const char* source) {
    std::uint32_t value = 0;
    for (unsigned int shift = 0; shift < 32; shift += 8) {
        value |= std::uint32_t{static_cast<unsigned char>(*source++)} << shift;
    }
    return value;
}

// The longest text that a zlib stream of `size` bytes can hold: a match of 258 bytes takes at least
// two bits.
std::uint64_t most_inflated(std::uint64_t size) {
    constexpr std::uint64_t best_ratio = 1032;
    return size * best_ratio;
}

// Room for a type, a body of up to `room` bytes and a NUL; null when it cannot be had.
std::unique_ptr<char[]> room_for_message(std::size_t room) {
    // Where size_t has 32 bits a declared length can be so long that the sum wraps around.
    if (room > std::numeric_limits<std::size_t>::max() - type_size - 1) {
        return nullptr;
    }
    return std::unique_ptr<char[]>(new (std::nothrow) char[type_size + room + 1]);
}

} // namespace
} // namespace KivFramework::internal

using namespace KivFramework;
using namespace KivFramework::internal;

std::uint32_t internal::outgoing_frame::payload_length() const {
    const std::size_t length_field = encoding == frame_encoding::deflated ? length_size : 0;
    return static_cast<std::uint32_t>(type_size + length_field + carried.size());
}

outgoing_frame internal::plain_frame(char type, std::string_view body) {
    // The size of the whole frame must fit as well, which is less where size_t has 32 bits.
    constexpr std::uint64_t longest_payload =
        std::min<std::uint64_t>(std::numeric_limits<std::uint32_t>::max(),
                                std::numeric_limits<std::size_t>::max() - frame_head_size);
    if (body.size() > longest_payload - type_size) {
        throw std::length_error("message body longer than a frame can express");
    }
    outgoing_frame frame;
    frame.encoding = body.empty() ? frame_encoding::no_body : frame_encoding::plain;
    frame.type = type;
    frame.carried = body;
    return frame;
}

outgoing_frame internal::deflated_frame(char type, std::unique_ptr<char[]> stream, std::size_t size,
                                        std::uint32_t body_length) {
    outgoing_frame frame;
    frame.encoding = frame_encoding::deflated;
    frame.type = type;
    frame.carried = {stream.get(), size};
    frame.body_length = body_length;
    frame.storage = std::move(stream);
    return frame;
}

void internal::write_frame(const outgoing_frame& frame, char* destination) {
    *destination++ = static_cast<char>(frame.encoding);
    write_length(frame.payload_length(), destination);
    destination += length_size;
    *destination++ = frame.type;
    if (frame.encoding == frame_encoding::deflated) {
        write_length(frame.body_length, destination);
        destination += length_size;
    }
    frame.carried.copy(destination, frame.carried.size());
}

frame_head internal::read_frame_head(const char* frame) {
    return {static_cast<unsigned char>(frame[0]), read_length(frame + 1)};
}

std::unique_ptr<char[]> internal::plain_message(std::string_view payload) {
    // A payload of no bytes lacks even the type; it reads as type 0, and the NUL still follows.
    const std::size_t length = std::max(payload.size(), type_size);
    std::unique_ptr<char[]> message(new char[length + 1]);
    message[0] = 0;
    payload.copy(message.get(), payload.size());
    message[length] = 0;
    return message;
}

std::string internal::padded_payload(std::string_view payload) {
    std::string padded;
    padded.reserve(payload.size() + padding_size);
    padded.append(payload).append(padding_size, '\0');
    return padded;
}

std::unique_ptr<char[]> internal::inflate_message(const std::string& padded) {
    constexpr std::size_t fields_size = type_size + length_size;
    if (padded.size() - padding_size < fields_size) {
        return nullptr;
    }
    const char* const stream = padded.data() + fields_size;
    const std::size_t stream_size = padded.size() - fields_size;
    std::size_t room = read_length(padded.data() + type_size);

    // The declared length is only a claim. Memory that the stream does not fill is never touched,
    // and where the system will not even promise it, the most that the stream can fill will do.
    std::unique_ptr<char[]> message = room_for_message(room);
    if (message == nullptr) {
        room = static_cast<std::size_t>(std::min<std::uint64_t>(room, most_inflated(stream_size)));
        message = room_for_message(room);
    }
    if (message == nullptr) {
        throw std::bad_alloc();
    }

    char* const body = message.get() + type_size;
    uLongf inflated = room;
    const int result = uncompress(reinterpret_cast<Bytef*>(body), &inflated,
                                  reinterpret_cast<const Bytef*>(stream), stream_size);
    if (result == Z_MEM_ERROR) {
        throw std::bad_alloc(); // the message may well be sound
    }
    if (result != Z_OK) {
        return nullptr;
    }
    message[0] = padded[0];
    body[inflated] = 0; // where the text ends
    body[room] = 0;     // and where the sender said that it would
    return message;
}
