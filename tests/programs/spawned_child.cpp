// The program that the spawning tests start: spawned_child MODE [ARGUMENT...]. It reports what it
// was given, or ends in the way that it is told to.

#include "tests/support/transfers.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include <fcntl.h>
#include <unistd.h>

namespace {

// One line each, in brackets, so that empty arguments show.
int print_all(char* const* texts) {
    for (; *texts != nullptr; ++texts) {
        std::cout << '[' << *texts << "]\n";
    }
    return 0;
}

int print_open_descriptors() {
    for (int descriptor = 0; descriptor < 100; ++descriptor) {
        if (::fcntl(descriptor, F_GETFD) != -1) {
            std::cout << descriptor << ' ';
        }
    }
    std::cout << '\n';
    return 0;
}

// The masks of blocked, ignored and caught signals.
int print_signals() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("SigBlk:", 0) == 0 || line.rfind("SigIgn:", 0) == 0 ||
            line.rfind("SigCgt:", 0) == 0) {
            std::cout << line << '\n';
        }
    }
    return 0;
}

// A stream would take an interrupted read for the end of its input.
int copy_input() {
    const std::string text = kiv_test::read_to_end(STDIN_FILENO);
    return kiv_test::write_fully(STDOUT_FILENO, text.data(), text.size()) ? 0 : 1;
}

int print_on_both_streams() {
    std::cout << "output\n" << std::flush;
    std::cerr << "error\n";
    return 0;
}

// Ends only when nobody reads any more.
int flood_output() {
    const std::string text(4096, 'x');
    while (::write(STDOUT_FILENO, text.data(), text.size()) > 0 || errno == EINTR) {
    }
    return 0;
}

int close_streams_and_wait() {
    ::close(STDIN_FILENO);
    ::close(STDOUT_FILENO);
    ::close(STDERR_FILENO);
    for (;;) {
        ::pause();
    }
}

} // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "arguments") {
        return print_all(argv);
    }
    if (mode == "environment") {
        return print_all(::environ);
    }
    if (mode == "descriptors") {
        return print_open_descriptors();
    }
    if (mode == "signals") {
        return print_signals();
    }
    if (mode == "copy") {
        return copy_input();
    }
    if (mode == "both") {
        return print_on_both_streams();
    }
    if (mode == "flood") {
        return flood_output();
    }
    if (mode == "close") {
        return close_streams_and_wait();
    }
    if (mode == "exit" && argc > 2) {
        return std::atoi(argv[2]);
    }
    if (mode == "signal" && argc > 2) {
        return std::raise(std::atoi(argv[2]));
    }
    return 64;
}
