#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace KivFramework::internal {

/// Reads a descriptor line by line with bounded memory, in the pieces that `fgets` would deliver.
///
/// A piece is a line with its line feed, or the first `max_piece` bytes of what is left of a longer
/// one. The descriptor stays the caller's.
class bounded_line_reader {
public:
    bounded_line_reader(int descriptor, std::size_t max_piece);

    /// Fetches the next piece; the view is valid until the next call.
    ///
    /// The text of a piece ends at its first zero byte, as a C string would; the bytes after it are
    /// consumed with it.
    ///
    /// \returns false at the end of the input or after a read error. What follows the last line
    /// feed is delivered only if it fills a whole piece: the end is not seen before that.
    bool next(std::string_view& piece);

private:
    bool fill();

    int descriptor_;
    std::size_t max_piece_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0; // of the bytes not delivered yet
    std::size_t end_ = 0;
    bool may_hold_zeros_ = false;
};

} // namespace KivFramework::internal
