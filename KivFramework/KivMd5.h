/// \file
/// MD5 digests (RFC 1321), computed piece by piece.
///
/// MD5 tells damaged or different files apart; it does not withstand somebody who forges them.
#pragma once

#include "KivFramework/KivExport.h"

namespace KivFramework {
namespace KivMd5 {

/// A digest in the making, the caller's, usually on the stack. `md5_init` starts it; hosts do not
/// touch its fields. It owns nothing, so that it needs no release and may be copied at any point to
/// go on in two ways.
///
/// Threads: no lock; one thread at a time.
struct md5_state_s {
    unsigned int count[2];    ///< bits fed so far, modulo 2^64, low word first
    unsigned int chain[4];    ///< the chaining words A, B, C and D
    unsigned char buffer[64]; ///< the beginning of a block that is not complete yet
};

/// Starts a new digest.
///
/// \code
/// md5_state_s state;
/// KivMd5::md5_init(&state);
/// unsigned char bytes[65536];
/// while (const std::size_t size = std::fread(bytes, 1, sizeof(bytes), file)) {
///     KivMd5::md5_append(&state, bytes, static_cast<int>(size));
/// }
/// \endcode
KIV_API void md5_init(md5_state_s* state);

/// Feeds `length` bytes. It may be called any number of times; only the bytes count, not how they
/// were cut.
///
/// \param data    may be null when `length` is 0.
/// \param length  nothing is fed when it is 0 or negative.
KIV_API void md5_append(md5_state_s* state, const unsigned char* data, int length);

/// Ends the digest: feeds the padding and writes the 16 bytes. The state then needs `md5_init`.
KIV_API void md5_finish(md5_state_s* state, unsigned char digest[16]);

/// Feeds one block of 64 bytes to the chaining words alone: neither the count of bits nor the
/// buffer takes part. `md5_append` is the call for data.
KIV_API void md5_process(md5_state_s* state, const unsigned char* block);

/// Writes a digest as text.
///
/// \param digest     16 bytes; not written to.
/// \param[out] text  33 bytes: 32 lower-case hexadecimal digits and a NUL.
/// \returns `text`.
KIV_API char* md5_string(unsigned char* digest, char* text);

} // namespace KivMd5

using KivMd5::md5_state_s;

} // namespace KivFramework
