/// \file
/// The background sampler of processor and memory use.
///
/// One thread per process takes a sample every second; readers get the latest values at once and
/// never wait for one. The first reading starts the sampler, so it shows the values of the start:
/// no load yet. `ShutdownLibrary` stops the sampler for good.
///
/// A child that `fork` makes has the values of its parent but no sampler, so a program that becomes
/// a daemon does so before its first reading. It may read and stop the monitor at once, whatever
/// the sampler did at the fork.
///
/// Threads: every function may run in any number of threads at once.
#pragma once

#include "KivFramework/KivExport.h"

#include <string>

namespace KivFramework {
namespace KivPerformanceMonitor {

/// The monitor's figures. The monitor keeps its own; a host makes one to have it filled by
/// `FillPerformanceData`.
struct _perf_mon_data {
    int cpu_count = 0;                  ///< processors at the start of the monitor
    double* cpu_usage = nullptr;        ///< the load of each processor in percent, 0 to 100
    unsigned long long ram_amount = 0;  ///< bytes of memory counted as present
    unsigned long long ram_usage = 0;   ///< bytes of memory counted as used
    unsigned long long swap_amount = 0; ///< a copy of `ram_amount`
    unsigned long long swap_usage = 0;  ///< a copy of `ram_usage`
};

/// Starts the sampler unless it was started before.
///
/// A sampler whose thread cannot be started is tried again by the next start or reading; until
/// then the processor loads read 0.0 and the memory figures are those of the last try.
///
/// Threads: of several that start it at once, one does; the others wait until it has.
KIV_API void StartPerformanceMonitor();

/// Stops the sampler and waits for its end; does nothing when it was never started.
///
/// The last values stay readable. A second stop finds nothing more to wait for.
///
/// Deliberate: the monitor stops for good, neither a start nor a reading starts it again; hosts
/// stop it at their end, and a late reading must not bring a thread back.
KIV_API void StopPerformanceMonitor();

/// The load of a processor over about the last second, in percent, 0 to 100. Starts the sampler
/// if need be.
///
/// User and system time make the load; idle time is the rest, and waiting for input or output and
/// the time of niced programs count as neither.
///
/// \param index  counts the processors online from 0, in ascending order of their numbers.
/// \returns 0.0, too, for an index that no processor has or that is 64 or more.
///
/// Deliberate: processors beyond the 64th are not measured and read 0.0; the tables have 64 places.
KIV_API double GetCpuUsage(int index);

/// The bytes of memory counted as present: free, active and inactive ones, modulo 2^32. Starts the
/// sampler if need be. 100 when the system does not tell.
///
/// Deliberate: the figure wraps above 4 GiB, and memory that the system keeps for itself is not in
/// it; hosts show it as it is. `FillPerformanceData` tells how each figure is made.
KIV_API unsigned long long GetRamAmount();

/// The bytes of memory counted as used; see `FillPerformanceData`. Starts the sampler if need be.
/// 0 when the system does not tell.
KIV_API unsigned long long GetRamUsage();

/// What `GetRamAmount` gives.
///
/// Deliberate: swap space is not measured; hosts show two pairs of figures.
KIV_API unsigned long long GetSwapAmount();

/// What `GetRamUsage` gives, as with `GetSwapAmount`.
KIV_API unsigned long long GetSwapUsage();

/// The loads of all processors online, each with at most three significant digits and followed by
/// a blank: "12.5 3.14 " for two. Starts the sampler if need be.
KIV_API std::string GetFormattedProcUsage();

/// The four memory figures in decimal, separated by blanks: amount and usage, then the copies of
/// both. Starts the sampler if need be.
KIV_API std::string GetFormattedRamUsage();

/// Starts the sampler if need be and does nothing else; there are no mount figures on this system.
///
/// \param paths  accepted and never looked at.
KIV_API void GetMountPaths(char** paths);

/// Does what `GetMountPaths` does.
KIV_API void GetMountPathsUsage(char** paths);

/// Reads the ticks that a processor has counted since the system started.
///
/// \param[out] out   three counts: user, system and idle; left as they are when the counts cannot
///                   be read or there is no such processor.
/// \param processor  counted as for `GetCpuUsage`, without its limit.
KIV_API void get_cpu_states(long* out, int processor);

/// Refreshes the four memory figures of `data` from the system; the sampler's own are refreshed in
/// the same way.
///
/// The amount is the number of free, active and inactive pages times the page size, modulo 2^32.
/// The usage is the amount of `data` before the call less the bytes that are free now. When the
/// system does not tell, amounts become 100 and usages 0.
///
/// \param data  not null; its processor fields are neither read nor changed.
///
/// Deliberate: the usage is made of two readings and of an amount that wraps, so it wraps to a huge
/// number in a fresh record, and wherever more is free than the amount says; hosts have to take
/// memory figures of large machines from elsewhere.
KIV_API void FillPerformanceData(_perf_mon_data* data);

} // namespace KivPerformanceMonitor

using KivPerformanceMonitor::_perf_mon_data;

} // namespace KivFramework
