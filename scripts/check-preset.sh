#!/usr/bin/env bash
# Builds a preset and runs the whole test suite in it: asan, tsan, clang or coverage.
#
# usage: check-preset.sh PRESET [CTEST_ARGUMENT...]
set -euo pipefail
cd "$(dirname "$0")/.."

preset=${1:?usage: check-preset.sh PRESET}
shift
scripts/install-dependencies.sh clang-14 dbus iproute2 libclang-rt-14-dev libgmock-dev libgtest-dev libsystemd-dev \
    pkg-config python3
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset" --parallel "$(nproc)" "$@"
