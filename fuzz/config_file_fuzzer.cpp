// Configuration files of any bytes: loading, single edits, saving and loading again against the
// literal model.

#include "KivFramework/KivConfigFile.h"

#include "tests/oracle/config_text_model.h"
#include "tests/support/memory_file.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

using namespace KivFramework;

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

void write_file(const char* path, std::string_view bytes) {
    FILE* const file = std::fopen(path, "wb");
    require(file != nullptr);
    require(std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size());
    require(std::fclose(file) == 0);
}

std::string read_file(const char* path) {
    FILE* const file = std::fopen(path, "rb");
    require(file != nullptr);
    std::string bytes;
    std::array<char, 4096> buffer;
    for (std::size_t count = 0; (count = std::fread(buffer.data(), 1, buffer.size(), file)) > 0;) {
        bytes.append(buffer.data(), count);
    }
    std::fclose(file);
    return bytes;
}

// The input up to the next byte 0x01; the rest stays.
std::string next_part(std::string_view& input) {
    const std::string_view part = input.substr(0, input.find('\x01'));
    input.remove_prefix(part.size() < input.size() ? part.size() + 1 : part.size());
    return std::string(part);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const kiv_test::memory_file file;
    std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::string text = next_part(input);

    write_file(file.path(), text);
    kivConfigManager manager;
    require(LoadConfigFile(&manager, file.path()));
    require(manager.values == kiv_oracle::load(file.path()).values);

    // Some edits double the text, and the model takes quadratic time.
    constexpr std::size_t enough = 4000;
    std::string edited = text;
    std::string expected = text;
    while (!input.empty() && expected.size() < enough) {
        std::string section = next_part(input);
        const std::string key = next_part(input);
        const std::string value = next_part(input);
        long start = 0;
        long end = 0;
        long expected_start = 0;
        long expected_end = 0;
        GetConfigValuesectbound(edited, section, start, end);
        kiv_oracle::section_bounds(expected, section, expected_start, expected_end);
        require(start == expected_start && end == expected_end);
        ConfigReplaceKey(edited, section, key, value);
        kiv_oracle::replace_key(expected, section, key, value);
        require(edited == expected);
        manager.values[section.append("#").append(key)] = value;
    }
    if (expected.size() >= enough) {
        return 0;
    }

    require(SaveConfigFile(&manager, file.path()));
    const std::string saved = read_file(file.path());
    kivConfigManager loaded;
    require(LoadConfigFile(&loaded, file.path()));
    require(loaded.values == kiv_oracle::load(file.path()).values);
    const std::string header = saved.substr(0, saved.find("##\n\n") + 4);
    write_file(file.path(), text);
    require(saved == kiv_oracle::saved_text(file.path(), manager.values, header));
    return 0;
}
