#pragma once

#include <string>

namespace kiv_test {

/// A fresh directory that disappears with everything in it at the end of the scope.
class temp_directory {
public:
    temp_directory();
    ~temp_directory();
    temp_directory(const temp_directory&) = delete;
    temp_directory& operator=(const temp_directory&) = delete;

    /// The directory's path, without a trailing separator.
    const std::string& path() const { return path_; }

    /// The path of `name` inside the directory.
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

/// The bytes of a file; a missing file adds a test failure and gives an empty text.
std::string read_file(const std::string& path);

/// Writes `bytes` to a file, replacing what was there; a failure is added to the test.
void write_file(const std::string& path, const std::string& bytes);

} // namespace kiv_test
