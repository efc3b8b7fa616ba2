#!/usr/bin/env bash
# Everything that must hold before a change lands, in under an hour on two processors.
# Each step is a script of its own that anybody can run alone.
#
# usage: check.sh
set -euo pipefail
cd "$(dirname "$0")/.."

step() {
    printf '\n== %s (%s s)\n' "$*" "$SECONDS"
    "$@"
}

step scripts/test.sh
step scripts/check-format.sh
step scripts/check-headers.sh
step scripts/check-cppcheck.sh
step scripts/check-preset.sh asan
step scripts/check-preset.sh tsan
step scripts/check-preset.sh clang --label-exclude soak
step scripts/demo.sh
step scripts/check-abi.sh
step scripts/check-reproducible.sh
step scripts/check-packages.sh
step scripts/benchmark.sh --build-only
step scripts/fuzz.sh 20
step scripts/check-tidy.sh
printf '\n== done (%s s)\n' "$SECONDS"
