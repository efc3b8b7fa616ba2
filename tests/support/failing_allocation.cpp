#include "tests/support/failing_allocation.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

std::atomic<std::size_t> failing_size = std::numeric_limits<std::size_t>::max();

} // namespace

// NOLINTBEGIN(cppcoreguidelines-no-malloc,misc-new-delete-overloads): an allocator is made of these
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return size >= failing_size ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* operator new[](std::size_t size) {
    if (void* const memory = operator new[](size, std::nothrow)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc,misc-new-delete-overloads)

kiv_test::failing_allocation::failing_allocation(std::size_t size) {
    failing_size = size;
}

kiv_test::failing_allocation::~failing_allocation() {
    failing_size = std::numeric_limits<std::size_t>::max();
}
