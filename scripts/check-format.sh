#!/usr/bin/env bash
# Checks that every source follows .clang-format; with --fix, rewrites those that do not.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh clang-format-14
mode=(--dry-run --Werror)
if [[ ${1-} == --fix ]]; then
    mode=(-i)
fi
git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format-14 "${mode[@]}"
