#include "tests/support/temp_directory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

kiv_test::temp_directory::temp_directory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kiv-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        ADD_FAILURE() << "no temporary directory can be made like " << pattern;
        return;
    }
    path_ = pattern;
}

kiv_test::temp_directory::~temp_directory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string kiv_test::read_file(const std::string& path) {
    const std::ifstream stream(path, std::ios::binary);
    if (!stream) {
        ADD_FAILURE() << "cannot read " << path;
        return {};
    }
    return {std::istreambuf_iterator<char>(stream.rdbuf()), std::istreambuf_iterator<char>()};
}

void kiv_test::write_file(const std::string& path, const std::string& bytes) {
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream.close();
    if (!stream) {
        ADD_FAILURE() << "cannot write " << path;
    }
}
