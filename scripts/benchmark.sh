#!/usr/bin/env bash
# Builds the benchmarks in the release preset and runs them: several repetitions, interleaved, so that
# each figure stands beside its peers' of the same run.
#
# usage: benchmark.sh [--build-only | PROGRAM_NAME_PATTERN]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh libbenchmark-dev pkg-config libaprutil1-dev libasio-dev libb64-dev libboost-dev \
    libboost-filesystem-dev libglib2.0-dev libnng-dev libproc2-dev libspdlog-dev libssl-dev libuv1-dev libzmq3-dev
cmake --preset release
cmake --build --preset release
if [[ ${1-} == --build-only ]]; then
    exit 0
fi
for program in build/release/benchmarks/*_benchmark; do
    [[ $(basename "$program") == *${1-}* ]] || continue
    "$program" --benchmark_repetitions="${KIV_REPETITIONS:-7}" --benchmark_enable_random_interleaving=true \
        --benchmark_report_aggregates_only=true
done
