#!/usr/bin/env bash
# Builds the benchmarks in the release preset and runs them beside their peers: several repetitions,
# interleaved, so that each figure is a median and stands beside its peers' of the same run. A run of
# all of them writes docs/benchmarks.md and its picture anew; that of some only prints.
#
# usage: benchmark.sh [--build-only | PROGRAM_NAME_PATTERN]
#
# KIV_REPETITIONS is the number of repetitions (5), KIV_MIN_TIME the seconds that each takes at least (0.1).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh libbenchmark-dev pkg-config python3 libabsl-dev libaprutil1-dev libb64-dev \
    libboost-dev libboost-filesystem-dev libglib2.0-dev libgoogle-glog-dev libinih-dev liblog4cplus-dev \
    libnng-dev libpoco-dev libproc2-dev libsimpleini-dev libspdlog-dev libssl-dev libuv1-dev libzmq3-dev
cmake --preset release
cmake --build --preset release
if [[ ${1-} == --build-only ]]; then
    exit 0
fi

programs=build/release/benchmarks
results=$programs/results
rm -rf "$results"
mkdir "$results"
# A process table of its own has no processes but those that the program counts on.
own_process_table=(unshare --map-root-user --pid --fork --mount-proc)
"${own_process_table[@]}" true 2>/dev/null || own_process_table=()
for program in "$programs"/*_benchmark; do
    name=$(basename "$program" _benchmark)
    [[ ${name}_benchmark == *${1-}* ]] || continue
    within=()
    filters=(.)
    case $name in
        process_table) within=("${own_process_table[@]}") ;;
        # Loads, first saves and later ones of each size in a process of its own: what others leave of the
        # heap is no part of them.
        config) filters=({load,first_save,save_}.*/{1000,10000,100000}'$') ;;
    esac
    for i in "${!filters[@]}"; do
        "${within[@]}" "$program" --benchmark_filter="${filters[i]}" --benchmark_repetitions="${KIV_REPETITIONS:-5}" \
            --benchmark_min_time="${KIV_MIN_TIME:-0.1}" --benchmark_enable_random_interleaving=true \
            --benchmark_report_aggregates_only=true --benchmark_out="$results/$name.$i.json"
    done
done
if [[ -z ${1-} ]]; then
    scripts/benchmark-report.py "$results" docs
fi
