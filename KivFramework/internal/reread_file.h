#pragma once

#include "KivFramework/internal/unique_fd.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

#include <sys/types.h>

namespace KivFramework::internal {

/// A text file that is read from its start again and again, such as the system's own figures.
///
/// It is opened by the first reading and stays open, so that a reading neither looks its path up
/// nor allocates. One that could not be opened is tried again by the next reading.
class reread_file {
public:
    /// One reading, line by line. The file must outlive it.
    class reading {
    public:
        explicit reading(reread_file& file) : descriptor_(file.descriptor()) {}

        /// The next line without its line feed, valid until the next call.
        ///
        /// \returns nothing at the end of the file, which is also where a line has no line feed,
        ///          is longer than 4095 bytes or cannot be read.
        std::optional<std::string_view> next_line();

    private:
        bool read_more();

        int descriptor_;
        off_t offset_ = 0; ///< of what comes after the buffer's bytes
        std::size_t begin_ = 0;
        std::size_t end_ = 0;
        std::array<char, 4096> buffer_;
    };

    /// \param path  stays the caller's and must outlive the object.
    explicit reread_file(const char* path) : path_(path) {}

private:
    int descriptor();

    const char* path_;
    unique_fd descriptor_;
};

} // namespace KivFramework::internal
