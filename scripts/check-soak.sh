#!/usr/bin/env bash
# Builds the debug preset and runs the agent under 50 consoles, jobs and configuration changes; for
# 30 seconds, or as long as it is told.
#
# usage: check-soak.sh [--minutes N] [--consoles N] [--rate QUESTIONS_PER_SECOND]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/configure-dev.sh
cmake --build --preset dev --target kiv-agent kiv-console
export KIV_AGENT=$PWD/build/dev/examples/agent/kiv-agent
export KIV_CONSOLE=$PWD/build/dev/examples/agent/kiv-console
exec python3 -B tests/integration/soak.py "$@"
