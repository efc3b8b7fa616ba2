#pragma once

#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <utility>

namespace KivFramework::internal {

/// Bytes that come in at the back and leave at the front without being moved for it.
///
/// The front advances inside an allocation kept at least twice as large as the room asked for, so
/// the bytes go back to its start only after as many have left as stay: the cost of a byte does
/// not depend on how many are held. How many are held is the caller's count.
class sliding_buffer {
public:
    explicit sliding_buffer(std::size_t room)
        : capacity_(spacious(room)), bytes_(new char[capacity_]) {}

    /// The first byte held; valid until the next `reserve` or `drop`.
    char* front() const { return bytes_.get() + front_; }

    /// Makes `room` bytes addressable from the front on and keeps the first `used` of them.
    void reserve(std::size_t used, std::size_t room) {
        if (room > capacity_ / 2) {
            const std::size_t capacity = spacious(room);
            std::unique_ptr<char[]> larger(new char[capacity]);
            std::memcpy(larger.get(), front(), used);
            bytes_ = std::move(larger);
            capacity_ = capacity;
            front_ = 0;
        }
        slide_back(used, room);
    }

    /// Lets the first `count` bytes leave; `rest` bytes stay, with `room` addressable as before.
    void drop(std::size_t count, std::size_t rest, std::size_t room) noexcept {
        front_ = rest == 0 ? 0 : front_ + count;
        slide_back(rest, room);
    }

private:
    // More than the required two rooms, so that not every growth of the room is a new allocation.
    static std::size_t spacious(std::size_t room) {
        // A room of 32 bits can be too large for a size_t that has no more.
        if (room > std::numeric_limits<std::size_t>::max() / 3) {
            throw std::bad_alloc();
        }
        return 3 * room;
    }

    void slide_back(std::size_t used, std::size_t room) noexcept {
        if (front_ + room > capacity_) {
            std::memmove(bytes_.get(), front(), used);
            front_ = 0;
        }
    }

    std::size_t capacity_;
    std::unique_ptr<char[]> bytes_;
    std::size_t front_ = 0;
};

} // namespace KivFramework::internal
