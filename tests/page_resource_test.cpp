// Memory for short work on much of it: large blocks have pages of their own.

#include "KivFramework/internal/page_resource.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory_resource>
#include <new>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

using KivFramework::internal::page_resource;

// Whether any page of a block is mapped.
bool is_mapped(const void* block, std::size_t size) {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    auto* const begin = static_cast<char*>(const_cast<void*>(block));
    for (std::size_t offset = 0; offset < size; offset += page) {
        unsigned char in_memory = 0;
        if (::mincore(begin + offset, 1, &in_memory) == 0) {
            return true;
        }
    }
    return false;
}

// Of the whole process.
std::size_t mapped_pages() {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages;
}

TEST(PageResource, GivesBlocksOfEverySizeThatCanBeWrittenAndRead) {
    page_resource pages;
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{4096}, page_resource::large - 1, page_resource::large,
          2 * page_resource::large, 2 * page_resource::large + 1, 9 * page_resource::large - 1}) {
        auto* const block = static_cast<char*>(pages.allocate(size, alignof(std::max_align_t)));
        std::memset(block, 'x', size);
        EXPECT_EQ(std::string(block, size), std::string(size, 'x'));
        pages.deallocate(block, size, alignof(std::max_align_t));
    }
}

TEST(PageResource, AlignsBlocksAsAsked) {
    page_resource pages;
    for (std::size_t alignment = 1; alignment <= std::size_t{8} << 20; alignment *= 2) {
        for (const std::size_t size : {std::size_t{64}, page_resource::large}) {
            void* const block = pages.allocate(size, alignment);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignment, 0U);
            pages.deallocate(block, size, alignment);
        }
    }
}

TEST(PageResource, GivesTheSystemBackEveryPageOfALargeBlock) {
    page_resource pages;
    const std::size_t size = 3 * page_resource::large;
    void* const block = pages.allocate(size);
    std::memset(block, 1, size);
    ASSERT_TRUE(is_mapped(block, size));
    pages.deallocate(block, size);
    EXPECT_FALSE(is_mapped(block, size));
}

TEST(PageResource, KeepsNothingMappedOfItsBlocks) {
    page_resource pages;
    const std::size_t before = mapped_pages();
    for (std::size_t i = 1; i <= 16; ++i) { // wherever the system has room
        void* const small_gap = pages.allocate(page_resource::large + i);
        void* const block = pages.allocate(i * page_resource::large);
        pages.deallocate(small_gap, page_resource::large + i);
        pages.deallocate(block, i * page_resource::large);
    }
    // Each block would leave a part of 2 MiB before it and the other part behind it. An emulator
    // takes some pages for itself.
    const std::size_t of_two_blocks =
        (std::size_t{4} << 20) / static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    EXPECT_LT(mapped_pages(), before + of_two_blocks);
}

TEST(PageResource, ThrowsWhereTheSystemHasNoRoom) {
    page_resource pages;
    constexpr std::size_t most = std::numeric_limits<std::size_t>::max();
    for (const std::size_t size : {most, most - 1, most / 16 * 15}) {
        EXPECT_THROW(static_cast<void>(pages.allocate(size)), std::bad_alloc);
    }
}

TEST(PageResource, AsksForAllThatThePagesOfALargeBlockHold) {
    EXPECT_EQ(page_resource::size_to_ask_for(100), 100U);
    page_resource pages;
    for (const std::size_t needed :
         {page_resource::large, 3 * page_resource::large, 4 * page_resource::large}) {
        EXPECT_GE(page_resource::size_to_ask_for(needed), needed);
        std::pmr::monotonic_buffer_resource memory(page_resource::size_to_ask_for(needed), &pages);
        auto* const block = static_cast<char*>(memory.allocate(needed, 1));
        std::memset(block, 'x', needed);
    }
}

TEST(PageResource, IsEqualToItselfAlone) {
    const page_resource pages;
    const page_resource others;
    EXPECT_TRUE(pages.is_equal(pages));
    EXPECT_FALSE(pages.is_equal(others));
}

} // namespace
