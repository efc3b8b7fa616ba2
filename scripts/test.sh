#!/usr/bin/env bash
# Installs what is missing, builds the debug preset and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh

cmake --preset dev
cmake --build --preset dev
ctest --preset dev --parallel "$(nproc)"
