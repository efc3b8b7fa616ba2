#include "KivFramework/KivMemoryManager.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

using namespace KivFramework;

// The sanitizers end the program for a size that malloc merely refuses, unless told otherwise.
extern "C" const char* __asan_default_options();  // NOLINT: the name is the sanitizer's
extern "C" const char* __asan_default_options() { // NOLINT: the name is the sanitizer's
    return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options();  // NOLINT: the name is the sanitizer's
extern "C" const char* __tsan_default_options() { // NOLINT: the name is the sanitizer's
    return "allocator_may_return_null=1";
}

namespace {

TEST(AllocateMemory, GivesABlockOfTheWholeSize) {
    constexpr unsigned long size = 100000;
    void* block = KivMemoryManager::AllocateMemory(size);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0U);
    std::memset(block, 0x5A, size);
    KivMemoryManager::ReleaseMemory(block, size);
}

TEST(AllocateMemory, GivesABlockForSizeZero) {
    void* block = KivMemoryManager::AllocateMemory(0);
    EXPECT_NE(block, nullptr);
    KivMemoryManager::ReleaseMemory(block, 0);
}

TEST(AllocateMemory, ThrowsForAnImpossibleSize) {
    EXPECT_THROW(KivMemoryManager::AllocateMemory(ULONG_MAX), std::bad_alloc);
}

TEST(AllocateMemory, GivesBlocksThatFreeTakes) {
    std::free(KivMemoryManager::AllocateMemory(1)); // the address sanitizer knows the difference
}

TEST(ReleaseMemory, IgnoresTheSize) {
    KivMemoryManager::ReleaseMemory(KivMemoryManager::AllocateMemory(10), 12345);
}

TEST(ReleaseMemory, TakesBlocksOfMalloc) {
    KivMemoryManager::ReleaseMemory(std::malloc(10), 10);
}

TEST(ReleaseMemory, IgnoresNull) {
    KivMemoryManager::ReleaseMemory(nullptr, 10);
}

} // namespace
