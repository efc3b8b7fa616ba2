#include "tests/support/program.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using KivFramework::internal::unique_fd;

std::pair<unique_fd, unique_fd> make_pipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        ADD_FAILURE() << "no pipe can be made";
        return {};
    }
    return {unique_fd(ends[0]), unique_fd(ends[1])};
}

} // namespace

kiv_test::program::program(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    auto [input_read, input_write] = make_pipe();
    auto [output_read, output_write] = make_pipe();
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input_read.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output_write.get(), STDOUT_FILENO);
    if (::posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        pid_ = -1;
    }
    ::posix_spawn_file_actions_destroy(&actions);
    input_ = std::move(input_write);
    output_ = std::move(output_read);
}

kiv_test::program::~program() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        while (::waitpid(pid_, nullptr, 0) == -1 && errno == EINTR) {
        }
    }
}

std::string kiv_test::program::next_line() const {
    std::string line;
    char byte = '\0';
    while (::read(output_.get(), &byte, 1) == 1 && byte != '\n') {
        line += byte;
    }
    return line;
}
