/// \file
/// The bytes that message frames are made of, for tests that write frames out themselves.
#pragma once

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdint>
#include <string>

namespace kiv_test {

/// The four bytes of a length field.
inline std::string little_endian(std::uint64_t value) {
    std::string bytes;
    for (unsigned int shift = 0; shift < 32; shift += 8) {
        bytes += static_cast<char>(static_cast<unsigned char>(value >> shift));
    }
    return bytes;
}

/// What zlib makes of a body at its default level.
inline std::string zlib_stream(const std::string& body) {
    uLongf size = compressBound(body.size());
    std::string stream(size, '\0');
    EXPECT_EQ(compress(reinterpret_cast<Bytef*>(stream.data()), &size,
                       reinterpret_cast<const Bytef*>(body.data()), body.size()),
              Z_OK);
    stream.resize(size);
    return stream;
}

} // namespace kiv_test
