#!/usr/bin/env bash
# Installs what is missing, builds the debug preset and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/configure-dev.sh
cmake --build --preset dev
ctest --preset dev --parallel "$(nproc)"
