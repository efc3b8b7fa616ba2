/// \file
/// Base64: the standard alphabet of RFC 4648, `=` padding, no line breaks.
#pragma once

#include "KivFramework/KivExport.h"

namespace KivFramework {
namespace KivBase64 {

/// Tells whether `c` is one of the 64 characters of the alphabet; the padding `=` is not.
KIV_API bool isbase64(char c);

/// Encodes into a buffer of the caller's.
///
/// The text has 4 * ((length + 2) / 3) characters. It is cut off at `out_size` bytes when the
/// buffer is smaller; a NUL follows it only when the buffer is larger. Bytes behind that stay as
/// they are. `Encode("a", 1, out, 4)` gives "YQ==" without a NUL; with 5 bytes there is one.
///
/// \param in        `length` bytes of any value; may be null when `length` is 0.
/// \param out       `out_size` bytes, which `in` must not overlap; may be null when `out_size` is
///                   0.
/// \param out_size  the bytes that may be written, the NUL included.
///
/// Threads: no lock; any number at once.
KIV_API void Encode(const char* in, unsigned long length, char* out, unsigned long out_size);

/// Encodes into a buffer of the right size.
///
/// \code
/// char* encoded = nullptr;
/// KivBase64::EncodeAlloc(reinterpret_cast<const char*>(digest), sizeof(digest), &encoded);
/// std::printf("%s\n", encoded);
/// KivBase64::DeleteBuffer(&encoded);
/// \endcode
///
/// \param[out] out  the text and its NUL, the caller's until `DeleteBuffer`; null when the result
///                  is 0.
/// \returns the length of the text plus 1 for its NUL, or 0 when `length` is so large that the size
///          of the text exceeds an `unsigned long`.
/// \throws std::bad_alloc when memory runs out; `*out` is as it was.
///
/// Threads: no lock; any number at once.
/// Deliberate: the result counts the NUL, because hosts pass it on as the size of a text that
/// includes its end.
KIV_API unsigned long EncodeAlloc(const char* in, unsigned long length, char** out);

/// Decodes into a buffer of the caller's.
///
/// The text is read in quartets of characters. The first character that may not stand where it does
/// ends the decoding: white space and line breaks are not skipped, `=` may only be the last or the
/// last two characters of the whole text, and NUL is a character like any other. The bits that the
/// last character before the padding leaves unused may have any value.
///
/// \param in                `length` characters; may be null when `length` is 0.
/// \param out               `*out_size` bytes; may be null when that is 0. It may begin where `in`
///                          does, to decode in place, and must not overlap it in any other way.
/// \param[in,out] out_size  the bytes that may be written; becomes the number written. Three for
///                          every four characters are always enough. When they are fewer than the
///                          text holds, the rest is checked but not delivered.
/// \returns true when the whole text is valid and padded, also when not all of it was delivered.
///
/// Threads: no lock; any number at once.
/// Deliberate: false still delivers every byte before the fault, down to those of the broken
/// quartet whose characters were good ("YQ" without its padding gives "a" and false), because hosts
/// salvage what came through of a damaged text.
KIV_API bool Decode(const char* in, unsigned long length, char* out, unsigned long* out_size);

/// Decodes into a buffer of the right size, by the rules of `Decode`.
///
/// \param[out] out       the data and a NUL behind it, the caller's until `DeleteBuffer`; null when
///                       the result is false.
/// \param[out] out_size  the length of the data without that NUL; may be null. It is as it was when
///                       the result is false.
/// \returns true when the whole text is valid and padded; nothing is delivered otherwise.
/// \throws std::bad_alloc when memory runs out; `*out` and `*out_size` are as they were.
///
/// Threads: no lock; any number at once.
KIV_API bool DecodeAlloc(const char* in, unsigned long length, char** out, unsigned long* out_size);

/// Releases a buffer of `EncodeAlloc` or `DecodeAlloc`; null, at either level, is ignored.
///
/// Deliberate: `*buffer` is not reset, because hosts keep the pointer to name the buffer that is
/// gone; releasing twice is theirs to avoid.
KIV_API void DeleteBuffer(char** buffer);

} // namespace KivBase64
} // namespace KivFramework
