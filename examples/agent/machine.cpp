#include "machine.h"

#include <algorithm>
#include <cstddef>

#include <KivFramework/KivLibrary.h>
#include <KivFramework/KivPerformanceMonitor.h>
#include <unistd.h>

using namespace KivFramework;

namespace {

constexpr int most_processors = 64;                     // that the monitor measures
constexpr unsigned long long remainder_of = 1ULL << 32; // the range of the monitor's amount

} // namespace

agent::machine::machine() : first_usage_(0) {
    KivPerformanceMonitor::StartPerformanceMonitor();
    first_usage_ = KivPerformanceMonitor::GetRamUsage();
}

std::vector<double> agent::machine::processor_loads() const {
    const int count = std::min(GetProcessorsCount(), most_processors);
    std::vector<double> loads;
    loads.reserve(static_cast<std::size_t>(count));
    for (int processor = 0; processor < count; ++processor) {
        loads.push_back(KivPerformanceMonitor::GetCpuUsage(processor));
    }
    return loads;
}

std::optional<agent::memory_use> agent::machine::memory() {
    const unsigned long long usage = KivPerformanceMonitor::GetRamUsage();
    const unsigned long long amount = KivPerformanceMonitor::GetRamAmount();
    // The usage is what the previous sample counted less what is free now, so the first one lacks
    // its minuend. Nothing in the figure tells; that it changes does.
    first_usage_is_over_ = first_usage_is_over_ || usage != first_usage_;
    const auto page = static_cast<unsigned long long>(::sysconf(_SC_PAGESIZE));
    const unsigned long long installed =
        static_cast<unsigned long long>(::sysconf(_SC_PHYS_PAGES)) * page;
    // When the system does not tell, the monitor says 100 bytes, which are no whole pages.
    if (!first_usage_is_over_ || amount % page != 0 || amount > installed) {
        return std::nullopt;
    }
    const unsigned long long lost = (installed - amount) / remainder_of * remainder_of;
    const memory_use result = {usage + lost, amount + lost}; // a usage below 0 wraps back here
    // Between two samples, around a multiple of 4 GiB, the two figures may not belong together.
    if (result.used > result.amount) {
        return std::nullopt;
    }
    return result;
}
