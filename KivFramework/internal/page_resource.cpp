#include "KivFramework/internal/page_resource.h"

#include <cstdint>
#include <new>

#include <sys/mman.h>

namespace KivFramework::internal {
namespace {

// The size of a large page on most systems; a block begins where one can.
constexpr std::size_t large_page = std::size_t{2} << 20;

std::size_t whole_pages(std::size_t size) {
    return (size + large_page - 1) / large_page * large_page;
}

} // namespace

std::size_t page_resource::size_to_ask_for(std::size_t needed) {
    constexpr std::size_t kept_back = 128;
    return needed < large ? needed : whole_pages(needed + kept_back) - kept_back;
}

void* page_resource::do_allocate(std::size_t size, std::size_t alignment) {
    if (size < large || alignment > large_page) {
        return std::pmr::new_delete_resource()->allocate(size, alignment);
    }
    const std::size_t kept = whole_pages(size);
    const std::size_t mapped = kept + 2 * large_page; // some before the block, and some behind it
    if (mapped < size) {
        throw std::bad_alloc();
    }
    void* const pages =
        // cppcheck-suppress invalidFunctionArg; a mapping without a file is asked for so
        ::mmap(nullptr, mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) {
        throw std::bad_alloc();
    }
    const std::size_t before = large_page - reinterpret_cast<std::uintptr_t>(pages) % large_page;
    char* const block = static_cast<char*>(pages) + before;
    ::munmap(pages, before);
    ::munmap(block + kept, mapped - before - kept);
#ifdef MADV_HUGEPAGE
    ::madvise(block, kept, MADV_HUGEPAGE); // as well as not
#endif
    return block;
}

void page_resource::do_deallocate(void* block, std::size_t size, std::size_t alignment) {
    if (size < large || alignment > large_page) {
        std::pmr::new_delete_resource()->deallocate(block, size, alignment);
    } else {
        ::munmap(block, whole_pages(size));
    }
}

bool page_resource::do_is_equal(const memory_resource& other) const noexcept {
    return this == &other;
}

} // namespace KivFramework::internal
