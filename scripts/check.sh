#!/usr/bin/env bash
# Everything that must hold before a change lands, in less than an hour on two processors. Each step is
# a script of its own that anybody can run alone.
#
# usage: check.sh [--long | --tested]
#
# --tested leaves scripts/test.sh out, for a caller that has just run it.
# --long adds the tests for other systems, ten million inputs for each fuzz target, and an hour of soak.
set -euo pipefail
cd "$(dirname "$0")/.."

step() {
    printf '\n== %s (%s s)\n' "$*" "$SECONDS"
    "$@"
}

[[ ${1-} == --tested ]] || step scripts/test.sh
step scripts/check-format.sh
step scripts/check-headers.sh
step scripts/check-cppcheck.sh
step scripts/check-abi.sh
step scripts/demo.sh
step scripts/check-preset.sh asan
step scripts/check-preset.sh tsan
step scripts/check-preset.sh clang --label-exclude 'soak|torture'
step scripts/check-helgrind.sh
step scripts/check-environments.sh
step scripts/coverage.sh
step scripts/benchmark.sh --build-only
step scripts/docs.sh
step scripts/check-reproducible.sh
step scripts/check-packages.sh
step scripts/check-soak.sh
step scripts/fuzz.sh 60
step scripts/check-tidy.sh
if [[ ${1-} == --long ]]; then
    step scripts/check-portability.sh
    step scripts/fuzz.sh -runs=10000000 -max_len=256
    step scripts/check-soak.sh --minutes 60
fi
printf '\n== done (%s s)\n' "$SECONDS"
