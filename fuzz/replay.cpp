// Hands every file of a directory to a fuzz target, once each and without a fuzzer.

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " DIRECTORY\n";
        return 2;
    }
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::cout << entry.path().filename().string() << std::endl; // before it can fail
        std::ifstream file(entry.path(), std::ios::binary);
        std::vector<std::uint8_t> bytes(std::istreambuf_iterator<char>(file), {});
        bytes.shrink_to_fit(); // a read beyond its end is seen
        LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
        ++count;
    }
    return count > 0 ? 0 : 1;
}
