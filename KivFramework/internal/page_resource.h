#pragma once

#include <cstddef>
#include <memory_resource>

namespace KivFramework::internal {

/// Gives large blocks fresh pages of their own, large ones where the system has them, and takes
/// small blocks from the heap.
///
/// A request to the heap for a large block first tidies up all that was freed there in small
/// pieces, which may take longer than the work that the block is for; and pages of the usual size
/// cost the system a fault for every 4 KiB.
class page_resource final : public std::pmr::memory_resource {
public:
    /// Blocks of this size and more have their own pages.
    static constexpr std::size_t large = std::size_t{1} << 20;

    /// What to ask for where at least this much is needed: all that its pages hold, less the little
    /// that a `std::pmr::monotonic_buffer_resource` keeps of it.
    static std::size_t size_to_ask_for(std::size_t needed);

private:
    void* do_allocate(std::size_t size, std::size_t alignment) override;
    void do_deallocate(void* block, std::size_t size, std::size_t alignment) override;
    bool do_is_equal(const memory_resource& other) const noexcept override;
};

} // namespace KivFramework::internal
