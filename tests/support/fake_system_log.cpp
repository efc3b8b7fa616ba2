#include "tests/support/fake_system_log.h"

#include <mutex>
#include <utility>

#include <syslog.h>

namespace {

struct recording {
    std::mutex lock;
    std::vector<kiv_test::fake_system_log::opening> openings;
    std::vector<kiv_test::fake_system_log::entry> entries;
    int closings = 0;
    std::function<void(const kiv_test::fake_system_log::entry&)> hook;
};

recording& current() {
    static recording instance;
    return instance;
}

void forget_everything() {
    recording& log = current();
    const std::lock_guard guard(log.lock);
    log.openings.clear();
    log.entries.clear();
    log.closings = 0;
    log.hook = nullptr;
}

} // namespace

// The program's own definitions go before the C library's, for the library under test as well.
// NOLINTBEGIN: the names and signatures are the C library's
extern "C" void openlog(const char* identity, int options, int facility) {
    recording& log = current();
    const std::lock_guard guard(log.lock);
    log.openings.push_back({identity, options, facility});
}

extern "C" void syslog(int priority, const char* format, ...) {
    recording& log = current();
    const kiv_test::fake_system_log::entry entry{priority, format};
    std::function<void(const kiv_test::fake_system_log::entry&)> hook;
    {
        const std::lock_guard guard(log.lock);
        log.entries.push_back(entry);
        hook = log.hook;
    }
    if (hook) {
        hook(entry);
    }
}

extern "C" void closelog() {
    recording& log = current();
    const std::lock_guard guard(log.lock);
    ++log.closings;
}
// NOLINTEND

kiv_test::fake_system_log::fake_system_log() {
    forget_everything();
}

kiv_test::fake_system_log::~fake_system_log() {
    forget_everything();
}

std::vector<kiv_test::fake_system_log::opening> kiv_test::fake_system_log::openings() const {
    const std::lock_guard guard(current().lock);
    return current().openings;
}

std::vector<kiv_test::fake_system_log::entry> kiv_test::fake_system_log::entries() const {
    const std::lock_guard guard(current().lock);
    return current().entries;
}

int kiv_test::fake_system_log::closings() const {
    const std::lock_guard guard(current().lock);
    return current().closings;
}

void kiv_test::fake_system_log::on_entry(std::function<void(const entry&)> hook) {
    const std::lock_guard guard(current().lock);
    current().hook = std::move(hook);
}
