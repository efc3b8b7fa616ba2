#!/usr/bin/env bash
# Builds the library with coverage instrumentation, runs the tests, and fails when less is covered than
# must be, or when tests/uncovered_branches.txt does not say why a branch is not.
#
# What counts is the code of KivFramework/ as the library holds it. Left out are the branches that the
# compiler makes for exceptions that a call might throw, which no line of the source shows, and those
# that it finds unreachable itself.
set -euo pipefail
cd "$(dirname "$0")/.."

left_out=(
    # Their agent runs as an account that may not write the counters, and says so on its standard
    # error, where they expect nothing.
    agent.Files.test_unreadable_file_is_refused
    agent.Jobs.test_agent_ends_when_the_system_grants_no_process_and_can_be_started_again
    # Ten thousand times what others do once.
    SpawnProcess.TenThousandTimes
)

scripts/install-dependencies.sh dbus gcovr iproute2 libgmock-dev libgtest-dev libsystemd-dev pkg-config python3
cmake --preset coverage
cmake --build --preset coverage
find build/coverage -name '*.gcda' -delete
ctest --preset coverage --parallel "$(nproc)" --exclude-regex "^($(IFS='|' && echo "${left_out[*]}"))\$"
gcovr --root . --filter KivFramework/ --exclude-throw-branches --exclude-unreachable-branches \
    --json build/coverage/coverage.json build/coverage/KivFramework
python3 -B tests/check_coverage.py build/coverage/coverage.json tests/uncovered_branches.txt .
