#include "tests/support/allocation_count.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> given_out{0};
std::atomic<long> deleted{0};

} // namespace

long kiv_test::allocations() {
    return given_out;
}

long kiv_test::live_allocations() {
    return given_out - deleted;
}

void* operator new(std::size_t size) {
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    ++given_out;
    return memory;
}

void operator delete(void* memory) noexcept {
    if (memory != nullptr) {
        ++deleted;
        std::free(memory);
    }
}

void operator delete(void* memory, std::size_t /*size*/) noexcept {
    operator delete(memory);
}
