#!/usr/bin/env bash
# Builds the debug preset and runs its tests in the states that a program may find itself in: closed
# or many descriptors, masks, zones, locales, another account, a directory that is gone, a thousand
# signals a second, transfers of one byte. tests/endurance/run_suite.py says which tests are left out
# where, and why.
#
# usage: check-environments.sh [STATE...]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh locales
scripts/configure-dev.sh
cmake --build --preset dev
exec python3 -B tests/endurance/run_suite.py build/dev "$@"
