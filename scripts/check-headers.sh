#!/usr/bin/env bash
# Compiles every public header alone, without warnings, in each standard that hosts may use, with
# g++ and clang, also beside the system headers that are most likely to clash with it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh clang-14
compilers=(g++ clang++-14)
warnings=(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
neighbours='#include <sys/epoll.h>
#include <signal.h>
#include <thread>
'
checked=0
for compiler in "${compilers[@]}"; do
    for standard in 11 14 17 20; do
        for header in KivFramework/*.h; do
            for before in '' "$neighbours"; do
                printf '%s#include "%s"\n' "$before" "$header" |
                    "$compiler" -std=c++$standard "${warnings[@]}" -I . -fsyntax-only -x c++ -
                checked=$((checked + 1))
            done
        done
    done
done
echo "headers compile alone: $checked compilations with ${compilers[*]}"
