#pragma once

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace kiv_test {

/// The message stream stated as plainly as possible: buffers that really grow and really move, and
/// system calls whose outcome is an argument.
class socket_stream_model {
public:
    std::vector<char> out_buffer = std::vector<char>(2049);
    std::vector<char> in_buffer = std::vector<char>(2049);
    unsigned int in_used = 0;
    unsigned int out_used = 0;
    unsigned int max_in_size = 128000;
    unsigned int max_out_size = 128000;
    bool buffer_check = true;
    long long sent_counter = 0;
    long long received_counter = 0;
    bool shutdown_by_us = false;
    bool closed = false;
    bool mutex_stays_locked = false;

    /// What one call of `send` or `recv` answers, and the bytes that a `recv` delivers.
    struct transfer {
        ssize_t result = 0;
        int error = 0;
        std::string bytes;
    };

    static std::string encode(char type, const std::string& body) {
        if (body.empty()) {
            return std::string(1, 0) + little_endian(1) + type;
        }
        if (body.size() > 10) {
            const auto capacity =
                static_cast<unsigned int>(static_cast<double>(body.size()) * 1.01) + 12;
            uLongf size = capacity;
            std::string compressed(capacity, '\0');
            const int result = compress(reinterpret_cast<Bytef*>(compressed.data()), &size,
                                        reinterpret_cast<const Bytef*>(body.data()), body.size());
            if (result == Z_OK && size < body.size() + 4) {
                return std::string(1, 2) + little_endian(size + 5) + type +
                       little_endian(body.size()) + compressed.substr(0, size);
            }
        }
        return std::string(1, 1) + little_endian(body.size() + 1) + type + body;
    }

    bool add_message(char type, const std::string& body) {
        if (closed) {
            return false;
        }
        const std::string frame = encode(type, body);
        if (out_used + frame.size() + 1 > out_buffer.size()) {
            if (out_used + frame.size() > max_out_size && buffer_check) {
                shutdown_by_us = true;
                closed = true;
                return false;
            }
            out_buffer.resize(out_used + frame.size());
        }
        std::memcpy(out_buffer.data() + out_used, frame.data(), frame.size());
        out_used += static_cast<unsigned int>(frame.size());
        return true;
    }

    /// \param received  not looked at when the call does not come to receive.
    int read(const transfer& received) {
        if (closed) {
            return 0;
        }
        if (in_buffer.size() - in_used <= 4096) {
            if (in_buffer.size() + 4097 > max_in_size && buffer_check) {
                closed = true;
                shutdown_by_us = true;
                return 0;
            }
            in_buffer.resize(in_buffer.size() + 4097);
        }
        if (received.result > 0) {
            const std::string bytes = received.bytes.substr(0, 4096);
            std::memcpy(in_buffer.data() + in_used, bytes.data(), bytes.size());
            in_used += static_cast<unsigned int>(bytes.size());
            in_buffer[in_used] = 0;
            received_counter += static_cast<long long>(bytes.size());
            return static_cast<int>(bytes.size());
        }
        if (received.result == -1 && received.error == EAGAIN) {
            return -1;
        }
        shutdown_by_us = false;
        return 0;
    }

    /// \param sent  not looked at when the call does not come to send.
    int write(const transfer& sent) {
        if (closed) {
            return 0;
        }
        if (out_used == 0) {
            return -1;
        }
        if (sent.result > 0) {
            const unsigned int count = std::min(out_used, static_cast<unsigned int>(sent.result));
            out_used -= count;
            std::memmove(out_buffer.data(), out_buffer.data() + count, out_used);
            sent_counter += count;
            return static_cast<int>(count);
        }
        if (sent.error == EAGAIN) {
            return static_cast<int>(sent.result);
        }
        shutdown_by_us = false;
        closed = true;
        return 0;
    }

    /// The type, the body and the NUL of the next message.
    std::optional<std::string> get_next_message() {
        if (closed || in_used < 6) {
            return std::nullopt;
        }
        const unsigned long length = read_little_endian(in_buffer.data() + 1);
        if (in_used < length + 5) {
            return std::nullopt;
        }
        const char encoding = in_buffer[0];
        const std::string copy(in_buffer.data() + 5, length);
        std::memset(in_buffer.data(), 0, length + 5);
        in_used -= static_cast<unsigned int>(length + 5);
        std::memmove(in_buffer.data(), in_buffer.data() + length + 5, in_used);
        in_buffer[in_used] = 0;
        if (encoding != 2) {
            return (length == 0 ? std::string(1, 0) : copy) + std::string(1, 0);
        }
        if (length >= 5) {
            const std::string stream = copy.substr(5) + std::string(4, 0);
            uLongf size = read_little_endian(copy.data() + 1);
            // Not a string: nothing may touch the memory that a false length asks for.
            const std::unique_ptr<char[]> body(new char[size + 1]);
            if (uncompress(reinterpret_cast<Bytef*>(body.get()), &size,
                           reinterpret_cast<const Bytef*>(stream.data()), length - 1) == Z_OK) {
                return copy.substr(0, 1) + std::string(body.get(), size) + std::string(1, 0);
            }
        }
        mutex_stays_locked = true;
        return std::nullopt;
    }

    char get_first_byte() const { return in_used > 5 ? in_buffer[5] : '\0'; }

    void clear_buffers() {
        in_used = 0;
        out_used = 0;
    }

private:
    static std::string little_endian(unsigned long value) {
        std::string bytes;
        for (int i = 0; i < 4; ++i) {
            bytes += static_cast<char>(static_cast<unsigned char>(value % 256));
            value /= 256;
        }
        return bytes;
    }

    static unsigned long read_little_endian(const char* bytes) {
        unsigned long value = 0;
        for (int i = 3; i >= 0; --i) {
            value = value * 256 + static_cast<unsigned char>(bytes[i]);
        }
        return value;
    }
};

} // namespace kiv_test
