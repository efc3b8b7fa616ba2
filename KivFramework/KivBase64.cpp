#include "KivFramework/KivBase64.h"

#include "KivFramework/internal/base64_kernels.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>

using namespace KivFramework;
using namespace KivFramework::internal;

namespace {

// The quartet of the one to three bytes at `in`, padded.
std::array<char, base64_quartet_size> padded_quartet(const char* in, std::size_t length) {
    std::array<char, base64_group_size> group{};
    std::copy_n(in, length, group.begin());
    std::array<char, base64_quartet_size> quartet{};
    portable_base64_kernel.encode(group.data(), 1, quartet.data());
    std::fill(quartet.begin() + static_cast<std::ptrdiff_t>(length) + 1, quartet.end(), '=');
    return quartet;
}

// A buffer that takes what fits and drops the rest.
class bounded_bytes {
public:
    bounded_bytes(char* out, std::size_t room) : out_(out), room_(room) {}

    void put(int byte) {
        if (size_ < room_) {
            out_[size_++] = static_cast<char>(byte);
        }
    }

    std::size_t size() const { return size_; }

private:
    char* out_;
    std::size_t room_;
    std::size_t size_ = 0;
};

// The value of a character, -1 for one that is not of the alphabet.
int value_of(char c) {
    return base64_values[static_cast<unsigned char>(c)];
}

// Decodes quartet by quartet with all the rules of padding and broken ends.
bool decode_to_the_end(const char* in, std::size_t length, bounded_bytes& out) {
    for (; length >= 2; in += base64_quartet_size, length -= base64_quartet_size) {
        const int first = value_of(in[0]);
        const int second = value_of(in[1]);
        if (first < 0 || second < 0) {
            return false;
        }
        // Bytes go out as soon as their characters are known to be good, so that a quartet that
        // breaks later, or ends too early, still delivers them.
        out.put(first << 2 | second >> 4);
        if (length == 2) {
            return false;
        }

        if (in[2] == '=') {
            return length == base64_quartet_size && in[3] == '=';
        }
        const int third = value_of(in[2]);
        if (third < 0) {
            return false;
        }
        out.put(second << 4 | third >> 2);
        if (length == 3) {
            return false;
        }

        if (in[3] == '=') {
            return length == base64_quartet_size;
        }
        const int fourth = value_of(in[3]);
        if (fourth < 0) {
            return false;
        }
        out.put(third << 6 | fourth);
    }
    return length == 0;
}

} // namespace

bool KivBase64::isbase64(char c) {
    return value_of(c) >= 0;
}

void KivBase64::Encode(const char* in, unsigned long length, char* out, unsigned long out_size) {
    // Counted in groups, because the length of the whole text need not fit its type.
    const std::size_t groups = std::min(length / base64_group_size, out_size / base64_quartet_size);
    chosen_base64_kernel().encode(in, groups, out);
    in += groups * base64_group_size;
    length -= groups * base64_group_size;
    out += groups * base64_quartet_size;
    out_size -= groups * base64_quartet_size;

    // What may be left: a last, shorter group, or room for a part of one quartet.
    if (length > 0 && out_size > 0) {
        const auto quartet = padded_quartet(in, std::min<std::size_t>(length, base64_group_size));
        const std::size_t fitting = std::min<std::size_t>(quartet.size(), out_size);
        out = std::copy_n(quartet.begin(), fitting, out);
        out_size -= fitting;
    }
    if (out_size > 0) {
        *out = '\0';
    }
}

unsigned long KivBase64::EncodeAlloc(const char* in, unsigned long length, char** out) {
    const unsigned long text_length = 4 * ((length + 2) / 3);
    const unsigned long size = text_length + 2;
    // Only a text length that has wrapped around is shorter than its data.
    if (size < length) {
        *out = nullptr;
        return 0;
    }
    *out = new char[size];
    Encode(in, length, *out, size);
    // Deliberate: the NUL is counted, because hosts take the result for the size of the text with
    // its end.
    return text_length + 1;
}

bool KivBase64::Decode(const char* in, unsigned long length, char* out, unsigned long* out_size) {
    // The kernels know no padding, which the last quartet may have, and no limit.
    const std::size_t quartets =
        length == 0 ? 0
                    : std::min((length - 1) / base64_quartet_size, *out_size / base64_group_size);
    const std::size_t done = chosen_base64_kernel().decode(in, quartets, out);
    const std::size_t written = done * base64_group_size;

    bounded_bytes rest(out + written, *out_size - written);
    // Deliberate: what came before a fault stays delivered, because hosts salvage what came through
    // of a damaged text.
    const bool valid = decode_to_the_end(in + done * base64_quartet_size,
                                         length - done * base64_quartet_size, rest);
    *out_size = written + rest.size();
    return valid;
}

bool KivBase64::DecodeAlloc(const char* in, unsigned long length, char** out,
                            unsigned long* out_size) {
    unsigned long size = length / base64_quartet_size * base64_group_size + 3;
    auto data = std::make_unique_for_overwrite<char[]>(size);
    if (!Decode(in, length, data.get(), &size)) {
        *out = nullptr;
        return false;
    }
    data[size] = '\0';
    *out = data.release();
    if (out_size != nullptr) {
        *out_size = size;
    }
    return true;
}

void KivBase64::DeleteBuffer(char** buffer) {
    if (buffer != nullptr) {
        // Deliberate: the pointer is not reset, because hosts keep it to name the buffer that is
        // gone.
        delete[] * buffer;
    }
}
