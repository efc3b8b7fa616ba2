#pragma once

namespace kiv_test {

/// How many blocks of the whole process, the library's included, `new` has given out.
///
/// Only in programs that `allocation_count.cpp` is linked into.
long allocations();

/// How many of them have not been deleted.
long live_allocations();

} // namespace kiv_test
