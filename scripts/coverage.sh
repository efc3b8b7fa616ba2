#!/usr/bin/env bash
# Builds with coverage instrumentation, runs the tests and prints line coverage of the library.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh dbus gcovr iproute2 libgmock-dev libgtest-dev libsystemd-dev pkg-config python3
cmake --preset coverage
cmake --build --preset coverage
ctest --preset coverage --parallel "$(nproc)"
gcovr --root . --filter KivFramework/ --exclude-throw-branches --print-summary build/coverage
