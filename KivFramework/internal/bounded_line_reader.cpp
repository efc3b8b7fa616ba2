#include "KivFramework/internal/bounded_line_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace KivFramework::internal {
namespace {

// Large enough that system calls do not count, small enough to stay in the cache.
constexpr std::size_t buffer_size = std::size_t{64} * 1024;

bool holds_zero(const char* bytes, std::size_t count) {
    return std::memchr(bytes, '\0', count) != nullptr;
}

} // namespace

bounded_line_reader::bounded_line_reader(int descriptor, std::size_t max_piece)
    : descriptor_(descriptor), max_piece_(max_piece), buffer_(std::max(buffer_size, max_piece)) {}

bool bounded_line_reader::next(std::string_view& piece) {
    std::size_t length = 0;
    for (std::size_t searched = 0;;) {
        const char* const bytes = buffer_.data() + begin_;
        const std::size_t limit = std::min(end_ - begin_, max_piece_);
        const auto* const line_feed =
            static_cast<const char*>(std::memchr(bytes + searched, '\n', limit - searched));
        if (line_feed != nullptr) {
            length = static_cast<std::size_t>(line_feed - bytes) + 1;
            break;
        }
        if (limit == max_piece_) {
            length = max_piece_;
            break;
        }
        searched = limit;
        if (!fill()) {
            return false;
        }
    }
    const char* const bytes = buffer_.data() + begin_;
    begin_ += length;
    piece = {bytes, may_hold_zeros_ ? ::strnlen(bytes, length) : length};
    return true;
}

// Moves the undelivered bytes to the front and reads more behind them.
bool bounded_line_reader::fill() {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;

    ssize_t count = 0;
    do {
        count = ::read(descriptor_, buffer_.data() + end_, buffer_.size() - end_);
    } while (count == -1 && errno == EINTR);
    if (count <= 0) {
        return false;
    }
    const auto added = static_cast<std::size_t>(count);
    may_hold_zeros_ = holds_zero(buffer_.data(), end_ + added);
    end_ += added;
    return true;
}

} // namespace KivFramework::internal
