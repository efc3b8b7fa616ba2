#!/usr/bin/env bash
# Installs what the debug preset and its tests need, and configures it in build/dev.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh dbus iproute2 libgmock-dev libgtest-dev libsystemd-dev pkg-config python3
cmake --preset dev
