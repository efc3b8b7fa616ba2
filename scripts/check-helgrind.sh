#!/usr/bin/env bash
# Runs the tests of what threads share under valgrind's helgrind, without suppressions of our own. It
# knows the locks; tests/support/helgrind.cpp tells it about the atomics.
#
# usage: check-helgrind.sh [CTEST_ARGUMENT...]
set -euo pipefail
cd "$(dirname "$0")/.."

left_out=(
    # They do what helgrind reports, on purpose: lock a lock that they hold, wait until a time that is
    # none.
    LockMutex.AndUnlockPassTheErrorNumberOfThePlatformThrough
    WaitTimedConditional.CarriesMicrosecondsIntoSecondsOnlyAboveOneMillion
    # A cancelled wait takes its lock again, which helgrind does not see.
    LockReadRWLocker.AThreadCancelledInItsWaitIsNoLongerCounted
    LockWriteRWLocker.AThreadCancelledInItsWaitLetsTheReadersGoThatItHeldBack
    LockWriteRWLocker.AThreadCancelledAsItIsWokenPassesTheWakeUpOn
    # Its child has a lock of the thread that it was forked without.
    PerformanceMonitor.IsReadAndStoppedInAChildForkedWhileTheSamplerHeldItsLock
    # It counts allocations, which valgrind makes itself.
    Kqueue.StateOfClosedQueuesIsFreedThoughTheirNumbersDoNotComeBack
    # Helgrind takes minutes for thousands of threads.
    SpawnThread.ThousandsOfThreadsLeaveNothingBehind
)

scripts/install-dependencies.sh clang-14 libgmock-dev libgtest-dev valgrind
cmake --preset helgrind
cmake --build --preset helgrind
ctest --preset helgrind --parallel "$(nproc)" --exclude-regex "^($(IFS='|' && echo "${left_out[*]}"))\$" "$@"
