// One performance sample, the ticks of every processor and the page counts, beside libproc2's
// reading of the same figures. Both keep their files open from one sample to the next; most of the
// time is the system's, which makes the whole of both files up for each.

#include "KivFramework/internal/processor_load.h"
#include "KivFramework/platform/memory_pages.h"
#include "KivFramework/platform/processor_ticks.h"
#include "KivFramework/platform/processors.h"

#include <array>
#include <cstddef>
#include <iterator>
#include <vector>

#include <benchmark/benchmark.h>

#ifdef KIV_HAVE_LIBPROC2
#include <libproc2/meminfo.h>
#include <libproc2/stat.h>
#endif

using namespace KivFramework;

namespace {

internal::tick_counts counts_of(const platform::processor_ticks& ticks) {
    return {static_cast<int>(ticks.user), static_cast<int>(ticks.system),
            static_cast<int>(ticks.idle)};
}

void library_sample(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(platform::processors_online().value_or(1));
    platform::processor_ticks_reader processors;
    platform::memory_pages_reader memory;
    std::vector<platform::processor_ticks> previous(count);
    std::vector<platform::processor_ticks> current(count);
    for (auto _ : state) {
        previous = current;
        if (processors.read(current) != count) {
            state.SkipWithError("the ticks cannot be read");
            return;
        }
        for (std::size_t index = 0; index < count; ++index) {
            benchmark::DoNotOptimize(
                internal::processor_load(counts_of(previous[index]), counts_of(current[index])));
        }
        benchmark::DoNotOptimize(memory.read());
    }
}

BENCHMARK(library_sample)->Name("sample/kiv");

#ifdef KIV_HAVE_LIBPROC2
void libproc2(benchmark::State& state) {
    stat_item processor_items[] = {STAT_TIC_ID, STAT_TIC_USER, STAT_TIC_SYSTEM, STAT_TIC_IDLE};
    meminfo_item memory_items[] = {MEMINFO_MEM_FREE, MEMINFO_MEM_ACTIVE, MEMINFO_MEM_INACTIVE};
    stat_info* processors = nullptr;
    meminfo_info* memory = nullptr;
    if (procps_stat_new(&processors) < 0 || procps_meminfo_new(&memory) < 0) {
        state.SkipWithError("libproc2 does not start");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(procps_stat_reap(processors, STAT_REAP_CPUS_ONLY, processor_items,
                                                  std::size(processor_items)));
        benchmark::DoNotOptimize(
            procps_meminfo_select(memory, memory_items, std::size(memory_items)));
    }
    procps_meminfo_unref(&memory);
    procps_stat_unref(&processors);
}

BENCHMARK(libproc2)->Name("sample/libproc2");
#endif

} // namespace

BENCHMARK_MAIN();
