#include "tests/support/small_file_system.h"

#include "tests/support/transfers.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* filler = "filler";

bool enter_own_mount_namespace() {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// Tried out by a child: in a root directory that is no mount point (`chroot`) only the second step
// fails, and the first cannot be taken back; the process would see other names of its files.
bool may_enter_own_mount_namespace() {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(enter_own_mount_namespace() ? 0 : errno);
    }
    int status = 0;
    if (child == -1 || kiv_test::wait_for_child(child, &status) != child) {
        return false;
    }
    errno = WEXITSTATUS(status);
    return status == 0;
}

} // namespace

kiv_test::small_file_system::small_file_system(std::size_t bytes, int most_files) {
    const std::string options =
        "size=" + std::to_string(bytes) + ",nr_inodes=" + std::to_string(most_files) + ",mode=0777";
    if (!may_enter_own_mount_namespace() || !enter_own_mount_namespace() ||
        ::mount("none", path().c_str(), "tmpfs", 0, options.c_str()) == -1) {
        refusal_ = "no file system of its own: " + std::generic_category().message(errno);
    }
}

kiv_test::small_file_system::~small_file_system() {
    if (refusal_.empty()) {
        EXPECT_EQ(::umount2(path().c_str(), MNT_DETACH), 0);
    }
}

void kiv_test::small_file_system::fill(std::size_t bytes) const {
    const int file = ::open(this->file(filler).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    struct statvfs now {};
    ASSERT_EQ(::statvfs(path().c_str(), &now), 0);
    const std::size_t room = now.f_bavail * now.f_bsize;
    ASSERT_GE(room, bytes);
    EXPECT_EQ(::posix_fallocate(file, 0, static_cast<off_t>(room - bytes)), 0);
    ::close(file);
}

void kiv_test::small_file_system::make_room() const {
    EXPECT_TRUE(std::filesystem::remove(file(filler)));
}

void kiv_test::small_file_system::make_read_only() const {
    EXPECT_EQ(::mount(nullptr, path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0)
        << std::generic_category().message(errno);
}
