#pragma once

namespace KivFramework::internal {

/// What a processor has counted at one moment. The counts are 32 bits wide and wrap.
struct tick_counts {
    int user = 0;
    int system = 0;
    int idle = 0;
};

/// The share of user and system ticks among those that passed between two readings, in percent.
///
/// \returns 0 to 100, also where a counter ran backwards; 0 when no ticks passed.
float processor_load(const tick_counts& previous, const tick_counts& current);

} // namespace KivFramework::internal
