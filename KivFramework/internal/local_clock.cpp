#include "KivFramework/internal/local_clock.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace KivFramework::internal {
namespace {

// The value that TZ had at the last conversion.
class zone_memory {
public:
    bool is(const char* zone) const {
        if (!known_ || zone == nullptr || !set_) {
            return known_ && zone == nullptr && !set_;
        }
        return std::strcmp(zone, text_) == 0;
    }

    void remember(const char* zone) {
        set_ = zone != nullptr;
        const std::size_t length = set_ ? std::strlen(zone) : 0;
        known_ = length < sizeof(text_); // a longer one is converted anew every time
        if (known_ && set_) {
            std::memcpy(text_, zone, length + 1);
        }
    }

private:
    bool known_ = false;
    bool set_ = false;
    char text_[128] = {};
};

struct second_memory {
    std::time_t second = 0;
    zone_memory zone;
    local_second now = {};
    char text[80] = {}; // room for six numbers of any size
};

constinit thread_local second_memory memory;

void convert(std::time_t second, const char* zone) {
    ::tzset(); // localtime_r alone would go on with the zone it first saw
    std::tm time{};
    ::localtime_r(&second, &time); // a year beyond its range leaves the zeros
    const int length = std::snprintf(
        memory.text, sizeof(memory.text), "%02d/%02d/%04lld %02d:%02d:%02d", time.tm_mon + 1,
        time.tm_mday, time.tm_year + 1900LL, time.tm_hour, time.tm_min, time.tm_sec);
    memory.now.time = time;
    memory.now.text = std::string_view(memory.text, static_cast<std::size_t>(length));
    memory.second = second;
    memory.zone.remember(zone);
}

} // namespace
} // namespace KivFramework::internal

const KivFramework::internal::local_second& KivFramework::internal::local_now() {
    const std::time_t second = std::time(nullptr);
    // Looking at the environment races with a host that changes it in another thread, as every
    // conversion to local time does; such hosts set TZ before they start threads.
    const char* zone = std::getenv("TZ"); // NOLINT(concurrency-mt-unsafe): see above
    if (second != memory.second || !memory.zone.is(zone)) {
        convert(second, zone);
    }
    return memory.now;
}
