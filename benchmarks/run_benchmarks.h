#pragma once

#include <cstdlib>

#include <benchmark/benchmark.h>

/// Runs what a program has registered, as the options of its command line say; returns its status.
inline int run_benchmarks(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return EXIT_FAILURE;
    }
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
