#include "KivFramework/internal/reread_file.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

using namespace KivFramework::internal;

int reread_file::descriptor() {
    if (!descriptor_.valid()) {
        descriptor_.reset(::open(path_, O_RDONLY | O_CLOEXEC));
    }
    return descriptor_.get();
}

std::optional<std::string_view> reread_file::reading::next_line() {
    for (;;) {
        const std::string_view rest(buffer_.data() + begin_, end_ - begin_);
        const std::size_t length = rest.find('\n');
        if (length != std::string_view::npos) {
            begin_ += length + 1;
            return rest.substr(0, length);
        }
        if (!read_more()) {
            return std::nullopt;
        }
    }
}

bool reread_file::reading::read_more() {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    // No room is no end of the file, but reading nothing looks the same: the line is too long.
    ssize_t length = 0;
    do {
        length = ::pread(descriptor_, buffer_.data() + end_, buffer_.size() - end_, offset_);
    } while (length < 0 && errno == EINTR);
    if (length <= 0) {
        return false;
    }
    offset_ += length;
    end_ += static_cast<std::size_t>(length);
    return true;
}
