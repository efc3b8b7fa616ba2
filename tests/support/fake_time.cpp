#include "tests/support/fake_time.h"

#include <atomic>
#include <cstdlib>

namespace {

std::atomic<bool> faked = false;
std::atomic<std::time_t> fake_now = 0;
std::atomic<std::time_t> fake_step = 0;

std::time_t real_now() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

} // namespace

// The program's own definition goes before the C library's, for the library under test as well.
extern "C" std::time_t time(std::time_t* result) noexcept { // NOLINT: the name is the C library's
    const std::time_t now = faked ? fake_now.fetch_add(fake_step) : real_now();
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

kiv_test::fake_time::fake_time(std::time_t now, std::time_t step) {
    set(now, step);
    faked = true;
}

kiv_test::fake_time::~fake_time() {
    faked = false;
}

void kiv_test::fake_time::set(std::time_t now, std::time_t step) {
    fake_now = now;
    fake_step = step;
}

// Tests change the environment before they start threads. NOLINTBEGIN(concurrency-mt-unsafe)
kiv_test::time_zone::time_zone(const std::string& zone) : was_set_(std::getenv("TZ") != nullptr) {
    if (was_set_) {
        old_ = std::getenv("TZ");
    }
    ::setenv("TZ", zone.c_str(), /*overwrite=*/1);
}

kiv_test::time_zone::~time_zone() {
    if (was_set_) {
        ::setenv("TZ", old_.c_str(), /*overwrite=*/1);
    } else {
        ::unsetenv("TZ");
    }
}
// NOLINTEND(concurrency-mt-unsafe)
