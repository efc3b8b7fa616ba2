#!/usr/bin/env bash
# Runs cppcheck over the library and the examples of a configured build directory; without one named, that is
# build/dev, which is configured if it has to be.
#
# usage: check-cppcheck.sh [BUILD_DIRECTORY]
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build/dev}
scripts/install-dependencies.sh cppcheck
[[ -f $build/compile_commands.json ]] || scripts/configure-dev.sh
# passedByValue: the public signatures take strings by value. readdirCalled: readdir is safe on a
# directory stream of one's own, and readdir_r is deprecated. unknownMacro: KIV_API in the headers.
# The tests misuse calls on purpose (bad descriptors, foreign buffers), so they are left out, and the fuzz
# targets with them, as they share their models.
cppcheck --project="$build/compile_commands.json" -itests -ifuzz \
    --enable=warning,performance,portability --library=posix --inline-suppr --quiet --error-exitcode=1 \
    --suppress=missingIncludeSystem --suppress=passedByValue --suppress=readdirCalled --suppress=unknownMacro \
    -j "$(nproc)"
