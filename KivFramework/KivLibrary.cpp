#include "KivFramework/KivLibrary.h"

#include "KivFramework/KivPerformanceMonitor.h"
#include "KivFramework/KivProcesses.h"
#include "KivFramework/platform/executable.h"

#include <atomic>
#include <cstdlib>

#include <sys/select.h>

namespace KivFramework {
namespace {

std::string kiv_basepath;
pthread_mutex_t* kiv_rand_mutex = nullptr;
int kiv_progressive_seed = 0;
std::atomic<kivLogger*> _default_logger = nullptr;

} // namespace
} // namespace KivFramework

using namespace KivFramework;

void KivFramework::InitializeLibrary(const char* /*ignored*/) {
    kiv_basepath = kiv_internal_get_basepath();
    kiv_rand_mutex = KivProcesses::CreateMutex();
    kiv_progressive_seed = std::rand();
}

void KivFramework::ShutdownLibrary() {
    KivProcesses::DestroyMutex(kiv_rand_mutex);
    kiv_rand_mutex = nullptr; // so that a second shutdown finds nothing to destroy
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
