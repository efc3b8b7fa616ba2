#!/usr/bin/env bash
# Builds and runs a host with nothing but what pkg-config says.
#
# usage: check_pkg_config.sh COMPILER LIBRARY_DIR VERSION
set -euo pipefail
cd "$(dirname "$0")"

compiler=$1
libdir=$2
version=$3
scratch=$(mktemp -d)
trap 'rm -r "$scratch"' EXIT

export PKG_CONFIG_PATH=$libdir/pkgconfig
[[ $(pkg-config --modversion kivframework) == "$version" ]]
pkg-config --atleast-version=1 kivframework
[[ $(realpath "$(pkg-config --variable=libdir kivframework)") == "$(realpath "$libdir")" ]]

read -ra flags <<<"$(pkg-config --cflags --libs kivframework)"
if [[ -e $libdir/libKivFramework.so && " ${flags[*]} " == *' -lz '* ]]; then
    echo "hosts of the shared library would link zlib"
    exit 1
fi
"$compiler" -std=c++11 -DKIV_EXPECTED_VERSION="\"$version\"" -o "$scratch/host" host.cpp "${flags[@]}"
LD_LIBRARY_PATH=$libdir "$scratch/host"
