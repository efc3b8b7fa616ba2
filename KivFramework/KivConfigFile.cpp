#include "KivFramework/KivConfigFile.h"

#include "KivFramework/KivLibrary.h"
#include "KivFramework/KivLogger.h"
#include "KivFramework/KivStringHelper.h"
#include "KivFramework/internal/bounded_line_reader.h"
#include "KivFramework/internal/case_folding.h"
#include "KivFramework/internal/config_text.h"
#include "KivFramework/internal/local_clock.h"
#include "KivFramework/internal/page_resource.h"
#include "KivFramework/internal/pair_sorter.h"
#include "KivFramework/internal/unique_fd.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory_resource>
#include <span>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace KivFramework;
using internal::unique_fd;

namespace {

constexpr int error_level = 1;
constexpr const char* log_module = "KivFramework";

std::string_view without_leading_spaces(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return text;
}

std::string_view without_trailing_spaces(std::string_view text) {
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

// What counts of a line as it was read.
std::string_view content_of(std::string_view line) {
    if (line.starts_with('\r')) {
        line.remove_prefix(1);
    }
    if (line.starts_with('\n')) {
        line.remove_prefix(1);
    }
    line = without_leading_spaces(line);
    // Deliberate: the last byte goes whatever it is. It is the line feed, except where a line was
    // cut; hosts know that such a line loses a byte there.
    return line.substr(0, line.size() - std::min<std::size_t>(line.size(), 1));
}

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
    std::string file_path = path;
    internal::bounded_line_reader reader(file.get(), max_piece);
    const internal::case_folding folding;
    internal::pair_sorter entries;
    std::string composed = "_default_#"; // the section, followed by a key while it is entered
    std::size_t section_size = composed.size();
    std::string_view piece;
    for (int line_number = 1; reader.next(piece); ++line_number) {
        const std::string_view line = content_of(piece);
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
            composed.clear();
            folding.append_folded(composed, line.substr(1, close - 1));
            composed += '#';
            section_size = composed.size();
            continue;
        }
        const std::size_t equals = line.find('=');
        if (equals == std::string_view::npos || equals == 0) {
            continue;
        }
        composed.resize(section_size);
        folding.append_folded(composed, without_trailing_spaces(line.substr(0, equals)));
        entries.add(composed, without_leading_spaces(line.substr(equals + 1)));
    }
    // The manager changes once nothing can fail any more.
    std::map<std::string, std::string> values;
    entries.move_to(values);
    manager->values.swap(values);
    manager->filePath.swap(file_path);
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

// Reads until the end of the file, or as far as it can be read.
std::pmr::string all_bytes(int descriptor, std::pmr::memory_resource* memory) {
    constexpr std::size_t more = std::size_t{64} * 1024;
    struct stat status {};
    const bool has_size = ::fstat(descriptor, &status) == 0;
    // One byte more than the file has, so that its end is seen without growing.
    const std::size_t expected = has_size ? static_cast<std::size_t>(status.st_size) + 1 : more;
    std::pmr::string bytes(expected, '\0', memory);
    std::size_t size = 0;
    for (;;) {
        if (size == bytes.size()) {
            bytes.resize(size + more);
        }
        const ssize_t count = ::read(descriptor, bytes.data() + size, bytes.size() - size);
        if (count == -1 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            bytes.resize(size);
            return bytes;
        }
        size += static_cast<std::size_t>(count);
    }
}

// The text of the file at `path`, or nothing if it cannot be read.
std::pmr::string previous_text(const char* path, std::pmr::memory_resource* memory) {
    // Text is taken block by block, and a zero byte hides the rest of its block.
    constexpr std::size_t block_size = 1024;

    const unique_fd file(::open(path, O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        return std::pmr::string(memory);
    }
    std::pmr::string bytes = all_bytes(file.get(), memory);
    if (bytes.find('\0') == std::string::npos) {
        return bytes;
    }
    std::pmr::string text(memory);
    for (std::size_t block = 0; block < bytes.size(); block += block_size) {
        const std::string_view content = std::string_view(bytes).substr(block, block_size);
        text += content.substr(0, content.find('\0'));
    }
    return text;
}

void drop_old_footer(std::pmr::string& text) {
    // Deliberate: three bytes more than the footer has, so a text that was added behind it loses
    // them; every save has done so, and files on disk are compared byte for byte.
    constexpr std::size_t erased = 37;
    // The string's own search stops at every line feed, as the footer begins with one.
    const void* const found = ::memmem(text.data(), text.size(), footer.data(), footer.size());
    if (found != nullptr) {
        text.erase(static_cast<std::size_t>(static_cast<const char*>(found) - text.data()), erased);
    }
}

// The header is its line and the empty line after it.
void drop_old_header(std::pmr::string& text) {
    const std::size_t begin = text.find(header_begin);
    if (begin == std::string::npos) {
        return;
    }
    const std::size_t line_feed = std::min(text.find('\n', begin), text.size() - 1);
    text.erase(begin, line_feed + 2 - begin);
}

std::string new_header() {
    const std::tm& local = internal::local_now().time;
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), "%s %02d/%02d/%02d %02d:%02d ##\n\n",
                  header_begin.data(), local.tm_mday, local.tm_mon + 1, local.tm_year + 1900,
                  local.tm_hour, local.tm_min);
    return text.data();
}

// Collects small parts of a text to write them together. It allocates nothing: when it starts, the
// file is already empty, and a failure would lose what it held.
class file_writer {
public:
    static constexpr std::size_t useful_size = std::size_t{64} * 1024; // of the buffer

    file_writer(int descriptor, std::span<char> buffer)
        : descriptor_(descriptor), buffer_(buffer) {}

    void append(std::string_view part) {
        if (part.size() > buffer_.size() - used_) {
            flush();
        }
        if (part.size() > buffer_.size()) {
            write_all(part);
        } else {
            part.copy(buffer_.data() + used_, part.size());
            used_ += part.size();
        }
    }

    void flush() {
        write_all({buffer_.data(), used_});
        used_ = 0;
    }

private:
    // Stops for good where the system takes no more: nothing is reported, and going on would leave
    // a gap or never end.
    void write_all(std::string_view text) {
        while (!stopped_ && !text.empty()) {
            const ssize_t count = ::write(descriptor_, text.data(), text.size());
            if (count > 0) {
                text.remove_prefix(static_cast<std::size_t>(count));
            } else {
                stopped_ = count == 0 || errno != EINTR;
            }
        }
    }

    int descriptor_;
    bool stopped_ = false;
    std::size_t used_ = 0;
    std::span<char> buffer_;
};

// Asks for memory some nodes ahead: those of a loaded map follow each other, which a walk from node
// to node cannot know. Of another map, or behind the last node, nothing comes of it.
void prefetch_nodes_behind(const void* node) {
    constexpr std::size_t distance = 4096;
    constexpr std::size_t cache_line = 64;
    const char* const behind = static_cast<const char*>(node) + distance;
    __builtin_prefetch(behind);
    __builtin_prefetch(behind + cache_line);
    __builtin_prefetch(behind + 2 * cache_line);
}

// About as many bytes as a save takes: it is better to ask for them at once.
std::size_t expected_memory(const kivConfigManager& manager, const char* path) {
    constexpr std::size_t per_byte = 3;   // of the file: its text, the lines and their index
    constexpr std::size_t per_entry = 64; // its new text

    struct stat status {};
    const bool has_size = ::stat(path, &status) == 0;
    return file_writer::useful_size + per_entry * manager.values.size() +
           (has_size ? per_byte * static_cast<std::size_t>(status.st_size) : 0);
}

// Sets every entry in the order of the map, in which those of one section follow each other.
void set_values(internal::config_text& edited, const std::map<std::string, std::string>& values) {
    for (const auto& [composed, value] : values) {
        prefetch_nodes_behind(&composed);
        const std::string_view entry = composed;
        const std::size_t separator = entry.find('#');
        if (separator != std::string_view::npos) {
            edited.replace_key(entry.substr(0, separator), entry.substr(separator + 1), value);
        }
    }
    edited.finish();
}

} // namespace

bool KivFramework::SaveConfigFile(kivConfigManager* manager, const char* path) {
    internal::page_resource pages;
    std::pmr::monotonic_buffer_resource memory(
        internal::page_resource::size_to_ask_for(expected_memory(*manager, path)), &pages);

    std::pmr::string text = previous_text(path, &memory);
    drop_old_footer(text);
    drop_old_header(text);

    internal::config_text edited(std::move(text), memory);
    // What stood before any header goes into a section of its own, behind it: lines outside every
    // section are never touched, so the old one wins at the next load.
    set_values(edited, manager->values);
    const std::string header = new_header();
    const std::span<char> buffer(
        static_cast<char*>(memory.allocate(file_writer::useful_size, alignof(char))),
        file_writer::useful_size);

    constexpr mode_t new_file_mode = 0666; // less the umask, as for every file of the C library
    const unique_fd file(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, new_file_mode));
    if (!file.valid()) {
        return false;
    }
    file_writer writer(file.get(), buffer);
    writer.append(header);
    edited.for_each_part([&writer](std::string_view part) { writer.append(part); });
    writer.append(footer);
    writer.flush();
    return true;
}

void KivFramework::GetConfigValuesectbound(std::string& text, std::string& section, long& start,
                                           long& end) {
    const auto body = internal::find_section(text, section);
    start = body ? static_cast<long>(body->start) : -1;
    end = body ? static_cast<long>(body->end) : -1;
}

void KivFramework::ConfigReplaceKey(std::string& text, std::string section, std::string key,
                                    std::string value) {
    std::pmr::monotonic_buffer_resource memory;
    internal::config_text edited(std::pmr::string(text, &memory), memory);
    edited.replace_key(section, key, value);
    edited.finish();
    std::string result;
    edited.for_each_part([&result](std::string_view part) { result += part; });
    text.swap(result);
}
