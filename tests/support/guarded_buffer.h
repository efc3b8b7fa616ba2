#pragma once

#include <cstddef>
#include <new>

#include <sys/mman.h>
#include <unistd.h>

namespace kiv_test {

/// Memory between two pages that may not be touched: a read or write out of bounds ends the test.
class guarded_buffer {
public:
    explicit guarded_buffer(std::size_t size)
        : page_(static_cast<std::size_t>(::sysconf(_SC_PAGESIZE))),
          room_((size + page_ - 1) / page_ * page_),
          map_(::mmap(nullptr, room_ + 2 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        if (map_ == MAP_FAILED || ::mprotect(begin(), room_, PROT_READ | PROT_WRITE) != 0) {
            throw std::bad_alloc();
        }
    }
    ~guarded_buffer() { ::munmap(map_, room_ + 2 * page_); }
    guarded_buffer(const guarded_buffer&) = delete;
    guarded_buffer& operator=(const guarded_buffer&) = delete;

    /// The first byte, right behind a guard page and so aligned to a page.
    char* begin() { return static_cast<char*>(map_) + page_; }

    /// The end of the last byte, right before a guard page.
    char* end() { return begin() + room_; }

private:
    std::size_t page_;
    std::size_t room_;
    void* map_;
};

} // namespace kiv_test
