#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

/// The message frame on the wire. All integers are little-endian, whatever the host is.
///
///     0  encoding        0 no body, 1 plain body, 2 body as a zlib stream
///     1  payload length  4 bytes: what follows this field
///     5  message type
///     6  the body (encoding 1); its length in 4 bytes, then the zlib stream (encoding 2)
namespace KivFramework::internal {

constexpr std::size_t frame_head_size = 5;                       ///< encoding and payload length
constexpr std::size_t smallest_frame_size = frame_head_size + 1; ///< with the type

enum class frame_encoding : unsigned char { no_body = 0, plain = 1, deflated = 2 };

/// A message ready to be written as a frame.
struct outgoing_frame {
    frame_encoding encoding = frame_encoding::no_body;
    char type = 0;
    std::string_view carried;        ///< the body as it travels: plain, or its zlib stream
    std::uint32_t body_length = 0;   ///< of the body before compression; encoding `deflated` only
    std::unique_ptr<char[]> storage; ///< owns `carried` unless it is the sender's text

    /// The bytes from the type to the end of the frame.
    std::uint32_t payload_length() const;
    std::size_t size() const { return frame_head_size + payload_length(); }
};

/// Makes a frame that carries `body` as it is. The view must stay valid until it is written.
///
/// \throws std::length_error when the frame's length field cannot express the body's length.
outgoing_frame plain_frame(char type, std::string_view body);

/// Makes a frame of the first `size` bytes of `stream`, the zlib stream of a body of `body_length`.
outgoing_frame deflated_frame(char type, std::unique_ptr<char[]> stream, std::size_t size,
                              std::uint32_t body_length);

/// Writes the `frame.size()` bytes of a frame.
void write_frame(const outgoing_frame& frame, char* destination);

struct frame_head {
    unsigned char encoding = 0; ///< as it came; any value
    std::uint32_t payload_length = 0;

    /// The length of the whole frame, which may exceed 32 bits.
    std::uint64_t frame_size() const { return std::uint64_t{payload_length} + frame_head_size; }
};

/// Reads the first `frame_head_size` bytes of a frame.
frame_head read_frame_head(const char* frame);

/// Makes the receiver's message of a payload that travelled plain: type, body, NUL.
std::unique_ptr<char[]> plain_message(std::string_view payload);

/// A copy of a compressed payload with the zeros behind it that `inflate_message` may look at.
std::string padded_payload(std::string_view payload);

/// Makes the receiver's message of a compressed payload: type, inflated body, NUL.
///
/// \param padded  from `padded_payload`.
/// \returns null when the payload is too short for its fields or its stream does not inflate to at
///          most the length it declares.
std::unique_ptr<char[]> inflate_message(const std::string& padded);

} // namespace KivFramework::internal
