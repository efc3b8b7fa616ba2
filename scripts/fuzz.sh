#!/usr/bin/env bash
# Builds the fuzz targets and runs each for a bounded time, one per processor, starting from its
# corpus. What a failing target found is left in build/fuzz/.
#
# usage: fuzz.sh [SECONDS_PER_TARGET | LIBFUZZER_OPTION...]
#
# Options take the place of the time: `fuzz.sh -runs=10000000 -max_len=256`.
set -euo pipefail
cd "$(dirname "$0")/.."

options="$*"
if [[ $options != -* ]]; then
    options=-max_total_time=${1:-60}
fi
export options
scripts/install-dependencies.sh clang-14 libclang-rt-14-dev
cmake --preset fuzz
cmake --build --preset fuzz

fuzz_one() {
    set -euo pipefail
    name=$(basename "$1" _fuzzer.cpp)
    # New inputs go to a scratch corpus; the checked-in one only grows on purpose.
    scratch=$(mktemp -d)
    log=build/fuzz/$name.log
    result=0
    # shellcheck disable=SC2086 # one word for each option
    "build/fuzz/fuzz/${name}_fuzzer" $options -timeout=25 -print_final_stats=1 -artifact_prefix="build/fuzz/$name-" \
        "$scratch" "fuzz/corpus/$name" >"$log" 2>&1 || result=$?
    rm -r "$scratch"
    if ((result != 0)); then
        tail -n 60 "$log"
        echo "$name: FAILED"
        exit 255
    fi
    echo "$name: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") inputs, no finding"
}
export -f fuzz_one
printf '%s\0' fuzz/*_fuzzer.cpp | xargs -0 --max-args=1 --max-procs="$(nproc)" bash -c 'fuzz_one "$1"' _
