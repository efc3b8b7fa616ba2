#!/usr/bin/env bash
# Runs clang-tidy over every source of a configured build directory (build/dev by default).
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh clang-tidy-14
build=${1:-build/dev}
git ls-files -z 'KivFramework/*.cpp' 'tests/*.cpp' 'examples/*.cpp' |
    xargs -0 --max-args=1 --max-procs="$(nproc)" clang-tidy-14 -p "$build" --quiet
