#include "KivFramework/KivConfigFile.h"

#include "KivFramework/KivLibrary.h"
#include "KivFramework/KivLogger.h"
#include "KivFramework/KivStringHelper.h"
#include "KivFramework/internal/bounded_line_reader.h"
#include "KivFramework/internal/unique_fd.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

using namespace KivFramework;
using internal::unique_fd;

namespace {

constexpr int error_level = 1;
constexpr const char* log_module = "KivFramework";

std::string composed_key(const char* section, const char* key) {
    return KivStringHelper::ToLower(std::string(section) + "#" + key);
}

} // namespace

bool KivFramework::LoadConfigFile(kivConfigManager* manager, const char* path) {
    // One read takes what a line buffer of 2048 bytes holds beside its final zero byte.
    constexpr std::size_t max_piece = 2047;

    const unique_fd file(::open(path, O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        KivLogger::AddLogEntry(GetDefaultLogger(), error_level, log_module,
                               "Cannot open file %s to read configuration", path);
        return false;
    }
    manager->filePath = path;
    manager->values.clear();

    internal::bounded_line_reader reader(file.get(), max_piece);
    std::string section = "_default_";
    std::string_view line;
    for (int line_number = 1; reader.next(line); ++line_number) {
        if (line.starts_with('\r')) {
            line.remove_prefix(1);
        }
        if (line.starts_with('\n')) {
            line.remove_prefix(1);
        }
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
        if (!line.empty()) {
            line.remove_suffix(1);
        }
        if (line.empty() || line.front() == '#') {
            continue;
        }
        if (line.front() == '[') {
            const std::size_t close = line.find(']');
            if (close == std::string_view::npos) {
                KivLogger::AddLogEntry(GetDefaultLogger(), error_level, log_module,
                                       "Malformed configuration at line %d in file %s", line_number,
                                       path);
                break;
            }
            section = line.substr(1, close - 1);
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos || equals == 0) {
            continue;
        }
        std::string_view key = line.substr(0, equals);
        key = key.substr(0, key.find_last_not_of(' ') + 1);
        std::string_view value = line.substr(equals + 1);
        value.remove_prefix(std::min(value.find_first_not_of(' '), value.size()));
        manager->values.emplace(KivStringHelper::ToLower(section + "#" + std::string(key)), value);
    }
    return true;
}

std::string KivFramework::GetConfigValue(kivConfigManager* manager, const char* section,
                                         const char* key, std::string default_value) {
    const auto entry = manager->values.find(composed_key(section, key));
    if (entry == manager->values.end()) {
        return default_value;
    }
    std::string value = entry->second;
    KivStringHelper::TrimCR(value);
    return value;
}

int KivFramework::GetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                                 int default_value) {
    const auto entry = manager->values.find(composed_key(section, key));
    if (entry == manager->values.end()) {
        return default_value;
    }
    // atoi leaves a number beyond int undefined; this is what the C library's does with it.
    return static_cast<int>(std::strtol(entry->second.c_str(), nullptr, 10));
}

long KivFramework::GetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                                  long default_value) {
    const auto entry = manager->values.find(composed_key(section, key));
    if (entry == manager->values.end()) {
        return default_value;
    }
    return std::strtol(entry->second.c_str(), nullptr, 10);
}

bool KivFramework::SetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                                  const char* value) {
    manager->values.insert_or_assign(composed_key(section, key), value);
    return true;
}

bool KivFramework::SetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                                  int value) {
    return SetConfigValue(manager, section, key, static_cast<long>(value));
}

bool KivFramework::SetConfigValue(kivConfigManager* manager, const char* section, const char* key,
                                  long value) {
    return SetConfigValue(manager, section, key, std::to_string(value).c_str());
}

namespace {

constexpr std::string_view header_begin = "## This file was autogenerated on";
constexpr std::string_view footer = "\n\n## End of autogenerated file ##\n";

// The text of the file at `path`, or nothing if it cannot be read.
std::string previous_text(const char* path) {
    constexpr std::size_t block_size = 1024;

    const unique_fd file(::open(path, O_RDONLY | O_CLOEXEC));
    std::string bytes;
    std::array<char, 64 * block_size> buffer{};
    while (file.valid()) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        bytes.append(buffer.data(), static_cast<std::size_t>(count));
    }
    if (bytes.find('\0') == std::string::npos) {
        return bytes;
    }
    std::string text;
    for (std::size_t block = 0; block < bytes.size(); block += block_size) {
        const std::string_view content = std::string_view(bytes).substr(block, block_size);
        text += content.substr(0, content.find('\0'));
    }
    return text;
}

void drop_old_footer(std::string& text) {
    // Deliberate: three bytes more than the footer has, as in every file saved so far.
    constexpr std::size_t erased = 37;
    const std::size_t begin = text.find(footer);
    if (begin != std::string::npos) {
        text.erase(begin, erased);
    }
}

// The header is its line and the empty line after it.
void drop_old_header(std::string& text) {
    const std::size_t begin = text.find(header_begin);
    if (begin == std::string::npos) {
        return;
    }
    const std::size_t line_feed = std::min(text.find('\n', begin), text.size() - 1);
    text.erase(begin, line_feed + 2 - begin);
}

std::string new_header() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::tzset(); // localtime_r alone need not see a changed TZ
    ::localtime_r(&now, &local);
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), "%s %02d/%02d/%02d %02d:%02d ##\n\n",
                  header_begin.data(), local.tm_mday, local.tm_mon + 1, local.tm_year + 1900,
                  local.tm_hour, local.tm_min);
    return text.data();
}

// Stops where the system takes no more: nothing is reported, and waiting would never end.
void write_all(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(descriptor, text.data(), text.size());
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

} // namespace

bool KivFramework::SaveConfigFile(kivConfigManager* manager, const char* path) {
    std::string text = previous_text(path);
    drop_old_footer(text);
    drop_old_header(text);
    for (const auto& [composed, value] : manager->values) {
        const std::size_t separator = composed.find('#');
        if (separator != std::string::npos) {
            ConfigReplaceKey(text, composed.substr(0, separator), composed.substr(separator + 1),
                             value);
        }
    }
    text.insert(0, new_header());
    text += footer;

    constexpr mode_t new_file_mode = 0666; // less the umask, as for every file of the C library
    const unique_fd file(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, new_file_mode));
    if (!file.valid()) {
        return false;
    }
    write_all(file.get(), text);
    return true;
}

void KivFramework::GetConfigValuesectbound(std::string& text, std::string& section, long& start,
                                           long& end) {
    const std::string pattern = KivStringHelper::ToLower("[" + section + "]");
    start = -1;
    end = -1;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t line_feed = text.find('\n', at);
        if (line_feed == std::string::npos) {
            break;
        }
        std::string line = KivStringHelper::ToLower(text.substr(at, line_feed - at));
        KivStringHelper::TrimLeft(line);
        if (line.starts_with(pattern)) {
            start = static_cast<long>(line_feed + 1);
        } else if (start != -1 && line.starts_with('[')) {
            end = static_cast<long>(at) - 1;
            break;
        }
        at = line_feed + 1;
    }
    if (start != -1 && end == -1) {
        end = static_cast<long>(text.size());
    }
}

void KivFramework::ConfigReplaceKey(std::string& text, std::string section, std::string key,
                                    std::string value) {
    const std::string new_line = key + " = " + value;
    long start = -1;
    long end = -1;
    GetConfigValuesectbound(text, section, start, end);
    if (start == -1) {
        text += "\n[" + section + "]\n\n" + new_line + "\n";
        return;
    }
    const std::string wanted = KivStringHelper::ToLower(key);
    bool replaced = false;
    auto at = static_cast<std::size_t>(start);
    while (static_cast<long>(at) < end) {
        const std::size_t line_feed = text.find('\n', at);
        if (line_feed == std::string::npos) {
            break;
        }
        std::string line = KivStringHelper::ToLower(text.substr(at, line_feed - at));
        line.erase(std::min(line.find('='), line.size()));
        KivStringHelper::TrimLeft(line);
        KivStringHelper::TrimRight(line);
        if (line == wanted) {
            text.replace(at, line_feed - at, new_line);
            replaced = true;
        }
        at = line_feed + 1;
    }
    if (!replaced) {
        text.insert(static_cast<std::size_t>(end), new_line + "\n");
    }
}
