#include "KivFramework/platform/process_table.h"

#include "KivFramework/internal/read_fully.h"
#include "KivFramework/internal/unique_fd.h"
#include "KivFramework/platform/linux/stat_line.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace KivFramework::platform {
namespace {

using internal::unique_fd;

// The kernel keeps 15 characters of a name. Its own workers show more of themselves in the stat
// line: what they work on.
constexpr std::size_t name_limit = 15;

enum class row_result { read, absent, failed };

// A process that ended meanwhile, or that this caller may not look at, is no failure of the table.
row_result result_of_error(int error) {
    const bool absent = error == ENOENT || error == ESRCH || error == EACCES || error == EPERM;
    return absent ? row_result::absent : row_result::failed;
}

// Reads the row of the process whose directory in `proc` is `pid_text`, which ends in a NUL.
row_result read_row(int proc, std::string_view pid_text, process_row& row) {
    constexpr std::string_view file = "/stat";
    std::array<char, 32> path{}; // holds any int and the file's name
    if (pid_text.size() + file.size() >= path.size()) {
        return row_result::absent;
    }
    std::memcpy(path.data(), pid_text.data(), pid_text.size());
    std::memcpy(path.data() + pid_text.size(), file.data(), file.size());

    const unique_fd stat(::openat(proc, path.data(), O_RDONLY | O_CLOEXEC));
    if (!stat.valid()) {
        return result_of_error(errno);
    }
    std::array<char, 128> line; // the fields of interest take less, even with a worker's name
    const ssize_t length = internal::read_fully(stat.get(), line.data(), line.size());
    if (length < 0) {
        return result_of_error(errno);
    }
    const auto fields = parse_stat_line({line.data(), static_cast<std::size_t>(length)});
    if (!fields) {
        return row_result::absent;
    }
    row.pid = fields->pid;
    row.ppid = fields->ppid;
    row.name = fields->name.substr(0, name_limit);
    return row_result::read;
}

bool is_process_directory(std::string_view name) {
    // procfs has no other entry that begins with a digit.
    return name.front() >= '1' && name.front() <= '9';
}

// Adds the rows of the processes among `entries`, a buffer filled by getdents64.
bool append_rows(int proc, std::string_view entries, std::vector<process_row>& rows) {
    while (!entries.empty()) {
        unsigned short entry_length = 0;
        std::memcpy(&entry_length, entries.data() + offsetof(dirent64, d_reclen),
                    sizeof(entry_length));
        const std::string_view name(entries.data() + offsetof(dirent64, d_name));
        entries.remove_prefix(entry_length);
        if (!is_process_directory(name)) {
            continue;
        }
        process_row row;
        const row_result result = read_row(proc, name, row);
        if (result == row_result::failed) {
            return false;
        }
        if (result == row_result::read) {
            rows.push_back(std::move(row));
        }
    }
    return true;
}

// The number after `label` at the start of a line of `status`.
std::optional<int> status_number(std::string_view status, std::string_view label) {
    const std::size_t found = status.find(label);
    if (found == std::string_view::npos) {
        return std::nullopt;
    }
    status.remove_prefix(found + label.size());
    int number = 0;
    const auto [rest, error] =
        std::from_chars(status.data(), status.data() + status.size(), number);
    static_cast<void>(rest);
    return error == std::errc() ? std::optional(number) : std::nullopt;
}

} // namespace
} // namespace KivFramework::platform

using namespace KivFramework;

std::optional<std::vector<platform::process_row>> platform::read_process_table() {
    const unique_fd proc(::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!proc.valid()) {
        return std::nullopt;
    }
    std::vector<process_row> rows;
    alignas(dirent64) std::array<char, 8192> entries;
    for (;;) {
        const ssize_t length = ::getdents64(proc.get(), entries.data(), entries.size());
        if (length < 0) {
            return std::nullopt;
        }
        if (length == 0) {
            break;
        }
        if (!append_rows(proc.get(), {entries.data(), static_cast<std::size_t>(length)}, rows)) {
            return std::nullopt;
        }
    }
    // The caller is in every table that deserves the name; an empty directory is not procfs.
    if (rows.empty()) {
        return std::nullopt;
    }
    return rows;
}

std::optional<int> platform::read_parent_pid(int pid) {
    const std::string path = "/proc/" + std::to_string(pid) + "/status";
    const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        return std::nullopt;
    }
    std::array<char, 1024> buffer; // ends well after the fields of interest
    const ssize_t length = internal::read_fully(file.get(), buffer.data(), buffer.size());
    if (length < 0) {
        return std::nullopt;
    }
    const std::string_view status(buffer.data(), static_cast<std::size_t>(length));
    // The directory of a thread can be opened too, although it is never listed. Line feeds in the
    // name are escaped here, so a label at the start of a line is one.
    if (status_number(status, "\nTgid:\t") != pid) {
        return std::nullopt;
    }
    return status_number(status, "\nPPid:\t");
}
