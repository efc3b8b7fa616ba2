#include "KivFramework/internal/processor_load.h"

namespace KivFramework::internal {
namespace {

// Signed overflow is undefined, and the counters wrap.
int ticks_between(int previous, int current) {
    return static_cast<int>(static_cast<unsigned int>(current) -
                            static_cast<unsigned int>(previous));
}

} // namespace
} // namespace KivFramework::internal

float KivFramework::internal::processor_load(const tick_counts& previous,
                                             const tick_counts& current) {
    constexpr double percent = 100.0;

    const double user = ticks_between(previous.user, current.user);
    const double system = ticks_between(previous.system, current.system);
    const double idle = ticks_between(previous.idle, current.idle);
    const double total = user + system + idle;
    const auto load = static_cast<float>(user / total * percent + system / total * percent);
    if (!(load >= 0.0F)) { // not a number where no ticks passed
        return 0.0F;
    }
    return load > percent ? static_cast<float>(percent) : load;
}
