#pragma once

#include "tests/support/temp_directory.h"

#include <cstddef>
#include <string>

namespace kiv_test {

/// A file system of a few pages in the memory of a mount namespace of the calling thread's own, in
/// which threads and children made from here on take part. The thread stays in the namespace.
class small_file_system {
public:
    /// \param most_files  how many files and directories it can hold, its root included.
    explicit small_file_system(std::size_t bytes, int most_files = 100);
    ~small_file_system();
    small_file_system(const small_file_system&) = delete;
    small_file_system& operator=(const small_file_system&) = delete;

    /// Why there is none; empty when there is.
    const std::string& refusal() const { return refusal_; }

    const std::string& path() const { return directory_.path(); }
    std::string file(const std::string& name) const { return directory_.file(name); }

    /// Leaves room for `bytes` more, to the page.
    void fill(std::size_t bytes = 0) const;

    /// Takes back what `fill` wrote.
    void make_room() const;

    /// Lets nobody write any more. Nobody may have a file open for writing.
    void make_read_only() const;

private:
    temp_directory directory_;
    std::string refusal_;
};

} // namespace kiv_test
