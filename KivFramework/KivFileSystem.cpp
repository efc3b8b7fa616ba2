#include "KivFramework/KivFileSystem.h"

#include "KivFramework/internal/replace_file.h"
#include "KivFramework/internal/unique_fd.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using KivFramework::kivDirectory;
using KivFramework::internal::unique_fd;

constexpr mode_t directory_mode = 0700;

std::optional<struct stat> file_facts(const char* path) {
    struct stat facts {};
    if (path == nullptr || ::stat(path, &facts) == -1) {
        return std::nullopt;
    }
    return facts;
}

// Deliberate: times and sizes are cut to the 32 bits of the interface.
template <typename number>
int low_32_bits(number value) {
    return static_cast<int>(static_cast<unsigned int>(value));
}

bool open_stream(kivDirectory& directory) {
    directory.handle = ::opendir(directory.path.c_str());
    return directory.handle != nullptr;
}

// Goes on to the next entry of a type, S_IFREG or S_IFDIR. The type is asked for by path: what the
// entry itself says of it holds neither for links nor for what cannot be reached.
bool find_next(kivDirectory& directory, mode_t type) {
    if (directory.handle == nullptr) {
        return false;
    }
    std::string path = directory.path + "/";
    const std::size_t name_start = path.size();
    // readdir is safe here: a record and its stream are one thread's at a time.
    while (const dirent* entry =
               ::readdir(directory.handle)) { // NOLINT(concurrency-mt-unsafe): see above
        path.resize(name_start);
        path += entry->d_name;
        const std::optional<struct stat> facts = file_facts(path.c_str());
        if (facts && (facts->st_mode & S_IFMT) == type) {
            directory.name = entry->d_name;
            return true;
        }
    }
    return false;
}

bool make_one_directory(const std::string& path) {
    return ::mkdir(path.c_str(), directory_mode) == 0;
}

bool make_directories(std::string_view path) {
    // Deliberate: the backslashes stand in the first part as well, so they are doubled.
    std::string prefix = path.starts_with("\\\\") ? "\\\\" : path.starts_with('/') ? "/" : "";
    bool last_made = false;
    while (!path.empty()) {
        const std::string_view part = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(part.size() + 1, path.size()));
        if (part.empty()) {
            continue;
        }
        prefix += part;
        // Deliberate: only the last level decides; the ones above it mostly exist already.
        last_made = make_one_directory(prefix);
        prefix += '/';
    }
    return last_made;
}

} // namespace

int KivFramework::KivFileSystem::GetFileCreation(const char* path) {
    const std::optional<struct stat> facts = file_facts(path);
    return facts ? low_32_bits(facts->st_ctime) : -1;
}

int KivFramework::KivFileSystem::GetFileLastMod(const char* path) {
    const std::optional<struct stat> facts = file_facts(path);
    return facts ? low_32_bits(facts->st_mtime) : -1;
}

int KivFramework::KivFileSystem::GetFileSize(const char* path) {
    const std::optional<struct stat> facts = file_facts(path);
    return facts ? low_32_bits(facts->st_size) : -1;
}

bool KivFramework::KivFileSystem::CheckFile(std::string path) {
    return unique_fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)).valid();
}

bool KivFramework::KivFileSystem::CheckDirectory(std::string path) {
    DIR* stream = ::opendir(path.c_str());
    if (stream == nullptr) {
        return false;
    }
    ::closedir(stream); // nothing was written, so nothing can be lost
    return true;
}

bool KivFramework::KivFileSystem::MoveFile(std::string from, std::string to) {
    // Deliberate: the target goes first, whether or not the rename then succeeds.
    return internal::replace_file(from.c_str(), to.c_str());
}

bool KivFramework::KivFileSystem::MakeDirectory(std::string path, bool recursive) {
    return recursive ? make_directories(path) : make_one_directory(path);
}

bool KivFramework::KivFileSystem::EnumDirFirstFile(kivDirectory* directory, bool /*ignored*/) {
    return open_stream(*directory) && EnumDirNextFile(directory);
}

bool KivFramework::KivFileSystem::EnumDirNextFile(kivDirectory* directory) {
    return find_next(*directory, S_IFREG);
}

bool KivFramework::KivFileSystem::EnumDirGetFirstDir(kivDirectory* directory) {
    return open_stream(*directory) && EnumDirGetNextDir(directory);
}

bool KivFramework::KivFileSystem::EnumDirGetNextDir(kivDirectory* directory) {
    return find_next(*directory, S_IFDIR);
}

bool KivFramework::KivFileSystem::EnumDirClose(kivDirectory* directory) {
    // Deliberate: the field is not reset.
    return directory->handle != nullptr && ::closedir(directory->handle) == 0;
}

std::string KivFramework::KivFileSystem::GetHomeFolder() {
    // getenv is as safe as the host's own use of its environment.
    const char* home = std::getenv("HOME"); // NOLINT(concurrency-mt-unsafe): see above
    return home == nullptr ? "" : home;
}

std::string KivFramework::KivFileSystem::GetAppSettingsFolder() {
    return GetHomeFolder();
}

std::string KivFramework::KivFileSystem::GetTemporaryFolder() {
    return "/tmp";
}

int KivFramework::KivFileSystem::GetNumOfLogicalDrives() {
    return 0;
}

std::string KivFramework::KivFileSystem::DriveIndexToMountPoint(int /*index*/) {
    return {};
}

unsigned long long KivFramework::KivFileSystem::GetSizeOfLogicalDrive(std::string /*mount_point*/) {
    return 0;
}

unsigned long long
KivFramework::KivFileSystem::GetFreeSpaceOfLogicalDrive(std::string /*mount_point*/) {
    return 0;
}
