#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kiv_test {

/// MD5 of a whole message, as RFC 1321 tells it: step by step, the constants from the sine.
inline std::string md5_model(std::string message) {
    const std::uint64_t bits = message.size() * 8;
    message += '\x80';
    while (message.size() % 64 != 56) {
        message += '\0';
    }
    for (int i = 0; i < 8; ++i) {
        message += static_cast<char>(bits >> 8 * i);
    }

    std::uint32_t chain[4] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};
    for (std::size_t block = 0; block < message.size(); block += 64) {
        std::uint32_t words[16] = {};
        for (std::size_t i = 0; i < 64; ++i) {
            const auto byte = static_cast<unsigned char>(message[block + i]);
            words[i / 4] |= static_cast<std::uint32_t>(byte) << 8 * (i % 4);
        }

        std::uint32_t a = chain[0];
        std::uint32_t b = chain[1];
        std::uint32_t c = chain[2];
        std::uint32_t d = chain[3];
        for (std::size_t i = 0; i < 64; ++i) {
            std::uint32_t mixed = 0;
            std::size_t word = 0;
            if (i < 16) {
                mixed = (b & c) | (~b & d);
                word = i;
            } else if (i < 32) {
                mixed = (b & d) | (c & ~d);
                word = (5 * i + 1) % 16;
            } else if (i < 48) {
                mixed = b ^ c ^ d;
                word = (3 * i + 5) % 16;
            } else {
                mixed = c ^ (b | ~d);
                word = 7 * i % 16;
            }
            const auto sine = static_cast<std::uint32_t>(
                std::floor(4294967296.0 * std::fabs(std::sin(static_cast<double>(i + 1)))));
            const int shifts[4][4] = {
                {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
            const int shift = shifts[i / 16][i % 4];
            const std::uint32_t sum = a + mixed + words[word] + sine;
            a = d;
            d = c;
            c = b;
            b += sum << shift | sum >> (32 - shift);
        }
        chain[0] += a;
        chain[1] += b;
        chain[2] += c;
        chain[3] += d;
    }

    std::string digest;
    for (const std::uint32_t word : chain) {
        for (int i = 0; i < 4; ++i) {
            digest += static_cast<char>(word >> 8 * i);
        }
    }
    return digest;
}

} // namespace kiv_test
