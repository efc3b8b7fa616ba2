#!/usr/bin/env bash
# Runs clang-tidy over the sources, the benchmarks aside. They are compiled as a configured build directory
# says; without one named, that is build/dev, which is configured if it has to be.
#
# usage: check-tidy.sh [BUILD_DIRECTORY]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh clang-tidy-14
build=${1:-build/dev}
[[ -f $build/compile_commands.json ]] || scripts/configure-dev.sh
git ls-files -z '*.cpp' ':!benchmarks/' |
    xargs -0 --max-args=1 --max-procs="$(nproc)" clang-tidy-14 -p "$build" --quiet
