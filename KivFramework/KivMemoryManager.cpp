#include "KivFramework/KivMemoryManager.h"

#include <cstdlib>
#include <new>

using namespace KivFramework;

// Blocks come from malloc itself, because hosts hand them to C code that frees them.
void* KivMemoryManager::AllocateMemory(unsigned long size) {
    void* const block = std::malloc(size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void KivMemoryManager::ReleaseMemory(void* block, unsigned long /*size*/) {
    std::free(block);
}
