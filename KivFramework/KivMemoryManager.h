/// \file
/// Raw memory blocks.
#pragma once

#include "KivFramework/KivExport.h"

namespace KivFramework {
namespace KivMemoryManager {

/// Allocates a block of `size` bytes, aligned for every type; its bytes have no defined values.
///
/// \returns the block, the caller's until `ReleaseMemory`; never null, not even for a size of 0.
/// \throws std::bad_alloc when there is not that much memory.
///
/// Threads: no lock; any number of threads.
KIV_API void* AllocateMemory(unsigned long size);

/// Frees a block from `AllocateMemory`, or one from a call that names this one as its release;
/// null is ignored.
///
/// \param size  accepted and never looked at.
///
/// Threads: no lock; any number of threads.
KIV_API void ReleaseMemory(void* block, unsigned long size);

} // namespace KivMemoryManager
} // namespace KivFramework
