#include "tests/support/test_logger.h"

#include <gtest/gtest.h>

#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

kiv_test::test_logger::test_logger(int flags, int level) {
    KivFramework::KivLogger::SetLoggerBasePath(&record_, directory_.path());
    KivFramework::KivLogger::CreateLogger(&record_, level, flags);
}

kiv_test::test_logger::~test_logger() {
    destroy();
}

void kiv_test::test_logger::destroy() {
    if (created_) {
        KivFramework::KivLogger::DestroyLogger(&record_);
        created_ = false;
    }
}

std::string kiv_test::test_logger::path(const std::string& name) const {
    return directory_.file(name);
}

std::string kiv_test::without_dates(std::string_view text) {
    constexpr std::size_t date_size = 19;
    std::string lines;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n') + 1);
        if (line.size() <= date_size) {
            ADD_FAILURE() << "not a whole entry: " << text;
            break;
        }
        lines += line.substr(date_size);
        text.remove_prefix(line.size());
    }
    return lines;
}

kiv_test::stdout_redirection::stdout_redirection() : saved_(::fcntl(1, F_DUPFD_CLOEXEC, 3)) {
    std::fflush(stdout);
    const int file =
        ::open(directory_.file("stdout").c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (file != 1) {
        ::dup2(file, 1);
        ::close(file);
    }
}

kiv_test::stdout_redirection::~stdout_redirection() {
    std::fflush(stdout);
    if (saved_ == -1) {
        ::close(1); // as it was
        return;
    }
    ::dup2(saved_, 1);
    ::close(saved_);
}

std::string kiv_test::stdout_redirection::bytes() const {
    return read_file(directory_.file("stdout"));
}
