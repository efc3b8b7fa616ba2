#!/usr/bin/env bash
# Installs what is missing, builds the debug preset and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh dbus iproute2 libgmock-dev libgtest-dev libsystemd-dev pkg-config python3

cmake --preset dev
cmake --build --preset dev
ctest --preset dev --parallel "$(nproc)"
