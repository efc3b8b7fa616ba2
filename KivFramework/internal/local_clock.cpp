#include "KivFramework/internal/local_clock.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>

#include <unistd.h>

namespace KivFramework::internal {
namespace {

// Tells whether TZ still has the value it had when last read, without walking the environment.
//
// Whatever sets, replaces or removes a variable moves the array, the entry of TZ or, while there is
// none, the array's end. Looking at them races with a host that changes the environment in another
// thread, as every conversion to local time does; such hosts set TZ before they start threads.
class zone_watch {
public:
    bool unchanged() const {
        if (!known_ || environ != entries_) {
            return false;
        }
        if (entries_ == nullptr) {
            return true;
        }
        if (entries_[index_] != entry_) {
            return false;
        }
        // The text behind an entry may change in place: it is the host's after putenv.
        return entry_ != nullptr ? std::strcmp(entry_, text_) == 0
                                 : index_ == 0 || entries_[index_ - 1] == last_;
    }

    void read() {
        entries_ = environ;
        index_ = 0;
        entry_ = nullptr;
        last_ = nullptr;
        known_ = true;
        for (; entries_ != nullptr && entries_[index_] != nullptr; ++index_) {
            last_ = entries_[index_];
            if (std::strncmp(last_, "TZ=", 3) == 0) {
                entry_ = last_;
                remember_text();
                return;
            }
        }
    }

private:
    void remember_text() {
        const std::size_t size = std::strlen(entry_) + 1;
        known_ = size <= sizeof(text_); // a longer one is read anew every time
        if (known_) {
            std::memcpy(text_, entry_, size);
        }
    }

    bool known_ = false;
    char** entries_ = nullptr;    // the environment
    std::size_t index_ = 0;       // of TZ's entry, or of the end
    const char* entry_ = nullptr; // TZ's; null when TZ is not set
    const char* last_ = nullptr;  // the entry before the end
    char text_[128] = {};         // what entry_ said
};

struct second_memory {
    std::time_t second = 0;
    zone_watch zone;
    local_second now = {};
    char text[80] = {}; // room for six numbers of any size
};

constinit thread_local second_memory memory;

// Guards the two calls of a conversion, which share the zone behind the C library's back.
constinit std::mutex conversion_lock;

void convert(std::time_t second) {
    memory.zone.read();
    const std::tm time = local_time(second).value_or(std::tm{});
    const int length = std::snprintf(
        memory.text, sizeof(memory.text), "%02d/%02d/%04lld %02d:%02d:%02d", time.tm_mon + 1,
        time.tm_mday, time.tm_year + 1900LL, time.tm_hour, time.tm_min, time.tm_sec);
    memory.now.time = time;
    memory.now.text = std::string_view(memory.text, static_cast<std::size_t>(length));
    memory.second = second;
}

} // namespace
} // namespace KivFramework::internal

std::optional<std::tm> KivFramework::internal::local_time(std::time_t second) {
    const std::lock_guard guard(conversion_lock);
    ::tzset(); // localtime_r alone would go on with the zone it first saw
    std::tm time{};
    if (::localtime_r(&second, &time) == nullptr) {
        return std::nullopt;
    }
    return time;
}

const KivFramework::internal::local_second& KivFramework::internal::local_now() {
    const std::time_t second = std::time(nullptr);
    if (second != memory.second || !memory.zone.unchanged()) {
        convert(second);
    }
    return memory.now;
}
