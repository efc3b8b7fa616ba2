#include "tests/support/program.h"

#include "tests/support/pipe_ends.h"
#include "tests/support/transfers.h"

#include <gtest/gtest.h>

#include <csignal>
#include <utility>

#include <spawn.h>
#include <unistd.h>

kiv_test::program::program(std::vector<std::string> arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);

    pipe_ends input = make_pipe();
    pipe_ends output = make_pipe();
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input.read.get(), STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output.write.get(), STDOUT_FILENO);
    if (::posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        pid_ = -1;
    }
    ::posix_spawn_file_actions_destroy(&actions);
    input_ = std::move(input.write);
    output_ = std::move(output.read);
}

kiv_test::program::~program() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait_for_child(pid_);
    }
}

std::string kiv_test::program::next_line() const {
    std::string line;
    char byte = '\0';
    while (read_fully(output_.get(), &byte, 1) == 1 && byte != '\n') {
        line += byte;
    }
    return line;
}

void kiv_test::program::hold() const {
    EXPECT_EQ(::kill(pid_, SIGSTOP), 0);
}

void kiv_test::program::go_on() const {
    EXPECT_EQ(::kill(pid_, SIGCONT), 0);
}
