#include "KivFramework/KivLibrary.h"

#include "KivFramework/KivPerformanceMonitor.h"
#include "KivFramework/KivProcesses.h"
#include "KivFramework/internal/unique_fd.h"
#include "KivFramework/platform/executable.h"
#include "KivFramework/platform/network_interfaces.h"
#include "KivFramework/platform/processors.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

namespace KivFramework {
namespace {

using internal::unique_fd;

std::string kiv_basepath;
pthread_mutex_t* kiv_rand_mutex = nullptr;
int kiv_progressive_seed = 0;
std::atomic<kivLogger*> _default_logger = nullptr;

// Hosts seed this generator, so no other one will do; the system's is safe in any thread.
int draw() {
    return std::rand(); // NOLINT(concurrency-mt-unsafe): see above
}

// The path of a lock file. It takes no memory, so that a lock can be given back without any.
class lock_path {
public:
    explicit lock_path(const char* name) {
        std::snprintf(text_.data(), text_.size(), "/tmp/%s", name == nullptr ? "" : name);
    }
    const char* c_str() const { return text_.data(); }

private:
    // One more than the system takes: it refuses what does not fit, cut off or not.
    std::array<char, PATH_MAX + 1> text_;
};

// Byte by byte, since the address need not be aligned.
template <std::size_t size>
void swap_bytes(void* value) {
    auto* const bytes = static_cast<unsigned char*>(value);
    std::reverse(bytes, bytes + size);
}

std::string hexadecimal(const std::array<unsigned char, 6>& address) {
    constexpr const char* digits = "0123456789abcdef";
    constexpr unsigned int low_digit = 0xF;

    std::string text;
    for (const unsigned int byte : address) {
        text += digits[byte >> 4U];
        text += digits[byte & low_digit];
    }
    return text;
}

} // namespace
} // namespace KivFramework

using namespace KivFramework;

void KivFramework::InitializeLibrary(const char* /*ignored*/) {
    // Deliberate: the argument plays no part in it.
    kiv_basepath = kiv_internal_get_basepath();
    pthread_mutex_t* const mutex = KivProcesses::CreateMutex();
    // One is left by a start without a stop.
    KivProcesses::DestroyMutex(std::exchange(kiv_rand_mutex, mutex));
    kiv_progressive_seed = draw();
}

void KivFramework::ShutdownLibrary() {
    // A second shutdown finds nothing to destroy.
    KivProcesses::DestroyMutex(std::exchange(kiv_rand_mutex, nullptr));
    KivPerformanceMonitor::StopPerformanceMonitor();
}

std::string KivFramework::kiv_internal_get_basepath() {
    return GetBundlePath();
}

std::string KivFramework::GetModuleBasePath() {
    return kiv_basepath;
}

std::string KivFramework::GetBundlePath() {
    return platform::executable_directory();
}

void KivFramework::SetDefaultLogger(kivLogger* logger) {
    _default_logger.store(logger, std::memory_order_release);
}

void KivFramework::RemoveDefaultLogger() {
    SetDefaultLogger(nullptr);
}

kivLogger* KivFramework::GetDefaultLogger() {
    return _default_logger.load(std::memory_order_acquire);
}

int KivFramework::GetProgressiveSeed() {
    KivProcesses::LockMutex(kiv_rand_mutex);
    const int seed = kiv_progressive_seed;
    // Signed overflow is undefined, and the seed must wrap.
    kiv_progressive_seed = static_cast<int>(static_cast<unsigned int>(seed) + 1U);
    KivProcesses::UnlockMutex(kiv_rand_mutex);
    return seed;
}

void KivFramework::MicroSleep(int milliseconds) {
    constexpr int ms_per_second = 1000;
    constexpr int us_per_ms = 1000;

    int seconds = milliseconds / ms_per_second;
    int rest = milliseconds - seconds * ms_per_second;
    // Deliberate: the comparison is unsigned, so it holds only for the rest of a negative argument.
    if (static_cast<unsigned int>(rest) > static_cast<unsigned int>(ms_per_second)) {
        rest -= ms_per_second;
        ++seconds;
    }
    timeval wait{};
    wait.tv_sec = seconds;
    wait.tv_usec = static_cast<suseconds_t>(rest) * us_per_ms;
    // No descriptor is watched. An interrupted wait ends early, and a negative time is refused at
    // once: both are the documented result.
    ::select(0, nullptr, nullptr, nullptr, &wait);
}

int KivFramework::GetRunningPlatformOS() {
    constexpr int this_platform = 4;
    return this_platform;
}

void KivFramework::Swap2Bytes(void* value) {
    swap_bytes<2>(value);
}

void KivFramework::Swap4Bytes(void* value) {
    swap_bytes<4>(value);
}

void KivFramework::Swap8Bytes(void* value) {
    swap_bytes<8>(value);
}

int KivFramework::GetProcessorsCount() {
    return platform::processors_online().value_or(1);
}

bool KivFramework::GetHostName(std::string& name) {
    std::array<char, 255> buffer{};
    if (::gethostname(buffer.data(), buffer.size()) == -1) {
        return false;
    }
    // A name that fills the buffer need not have a terminator.
    name.assign(buffer.data(), ::strnlen(buffer.data(), buffer.size()));
    return true;
}

int KivFramework::CreateUniqueLock(const char* name) {
    constexpr mode_t owner_only = 0600;

    const lock_path path(name);
    // Deliberate: a file left by a crashed process must not block us, so the lock always guards a
    // fresh one, even where a live process holds the old one.
    ::unlink(path.c_str());

    // The descriptor becomes the caller's in every respect, so it is not made close-on-exec.
    unique_fd lock(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CREAT, owner_only));
    if (!lock.valid() || ::flock(lock.get(), LOCK_EX | LOCK_NB) == -1) {
        return -1;
    }
    return lock.release();
}

bool KivFramework::DeleteUniqueLock(int descriptor, const char* name) {
    // Deliberate: whatever fails here, the lock is gone afterwards, so the answer is always true.
    ::flock(descriptor, LOCK_UN);
    ::close(descriptor);
    ::unlink(lock_path(name).c_str());
    return true;
}

std::string KivFramework::GetHostMacAddresses(bool /*ignored*/) {
    std::string addresses;
    for (const platform::link_address& link : platform::link_addresses()) {
        if (link.interface_name.starts_with("en")) {
            addresses.append(addresses.empty() ? "" : "|").append(hexadecimal(link.address));
        }
    }
    return addresses;
}

std::string KivFramework::GenerateUniqueGUID() {
    const std::time_t now = std::time(nullptr);
    std::array<unsigned int, 4> draws{};
    std::generate(draws.begin(), draws.end(), [] { return static_cast<unsigned int>(draw()); });

    // Four draws of up to 8 digits, a time of up to 16 and the terminator.
    std::array<char, 4 * 8 + 16 + 1> text;
    // Deliberate: "at least 4 digits", and more where a value needs them.
    std::snprintf(text.data(), text.size(), "%4.4X%4.4X%4.4X%4.4X%4.4lX", draws[0], draws[1],
                  draws[2], draws[3], static_cast<unsigned long>(now));
    return text.data();
}
