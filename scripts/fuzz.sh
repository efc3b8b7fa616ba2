#!/usr/bin/env bash
# Builds the fuzz targets and runs each for a bounded time, starting from its corpus.
#
# usage: fuzz.sh [SECONDS_PER_TARGET]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-60}
scripts/install-dependencies.sh clang-14 libclang-rt-14-dev
cmake --preset fuzz
cmake --build --preset fuzz
for target in fuzz/*_fuzzer.cpp; do
    name=$(basename "$target" _fuzzer.cpp)
    echo "fuzzing $name for $seconds s"
    # New inputs go to a scratch corpus; the checked-in one only grows on purpose.
    scratch=$(mktemp -d)
    "build/fuzz/fuzz/${name}_fuzzer" -max_total_time="$seconds" -timeout=25 -print_final_stats=1 \
        -artifact_prefix="build/fuzz/${name}-" "$scratch" "fuzz/corpus/$name" 2>&1 | tail -n 12
    rm -r "$scratch"
done
