#!/usr/bin/env bash
# Compares the binary interface of the library with the checked-in baseline. What is gone or has
# changed (a function, its arguments, the layout of a record) would break hosts that are already
# built, and fails; what is new passes.
#
# With --update, takes the present interface as the baseline: for every release, after its additions.
#
# usage: check-abi.sh [--update]
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh abigail-tools
baseline=packaging/abi/libKivFramework-$(uname --machine).xml
scratch=$(mktemp -d)
trap 'rm -r "$scratch"' EXIT

# Debug information tells the types. It names the sources as seen from here, wherever this is.
build=build/abi
CXX=g++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_CXX_FLAGS="-ffile-prefix-map=$PWD/=" \
    -DKIV_BUILD_EXAMPLES=OFF
cmake --build "$build"

# A type that no public header defines is private to the library and may change. Where things stand in
# the sources is no part of the interface.
mkdir "$scratch/headers"
cp KivFramework/*.h "$scratch/headers"
abidw --headers-dir "$scratch/headers" --drop-private-types --exported-interfaces-only \
    --no-corpus-path --no-comp-dir-path --type-id-style hash "$build/KivFramework/libKivFramework.so" |
    sed -E "s/ (filepath|line|column)='[^']*'//g" >"$scratch/interface.xml"

if [[ ${1-} == --update ]]; then
    cp "$scratch/interface.xml" "$baseline"
    exit 0
fi
if ! abidiff --no-added-syms "$baseline" "$scratch/interface.xml"; then
    echo "the binary interface differs from $baseline"
    exit 1
fi
added=$(abidiff "$baseline" "$scratch/interface.xml" | grep -c '^  \[A\]' || true)
echo "the binary interface has kept all of its baseline; $added functions are new"
