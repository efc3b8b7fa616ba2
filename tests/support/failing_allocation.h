#pragma once

#include <cstddef>

/// For the programs that compile failing_allocation.cpp, which replaces the array forms of `new`.
namespace kiv_test {

/// Makes every array allocation of at least `size` bytes fail, in all threads, until the end of the
/// scope.
class failing_allocation {
public:
    explicit failing_allocation(std::size_t size);
    ~failing_allocation();
    failing_allocation(const failing_allocation&) = delete;
    failing_allocation& operator=(const failing_allocation&) = delete;
};

} // namespace kiv_test
