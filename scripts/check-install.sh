#!/usr/bin/env bash
# Installs the bare library into a scratch prefix and builds and runs a host against it, once through
# find_package and once through pkg-config.
set -euo pipefail
cd "$(dirname "$0")/.."

scratch=$(mktemp -d)
trap 'rm -r "$scratch"' EXIT

cmake -S . -B "$scratch/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DKIV_BUILD_TESTS=OFF -DKIV_BUILD_BENCHMARKS=OFF -DKIV_BUILD_EXAMPLES=OFF \
    -DCMAKE_INSTALL_PREFIX="$scratch/prefix" -DCMAKE_INSTALL_LIBDIR=lib
cmake --build "$scratch/build"
cmake --install "$scratch/build"

library=$scratch/prefix/lib/libKivFramework.so
readelf --dynamic "$library" | grep -q 'SONAME.*\[libKivFramework.so.1\]'
if readelf --dynamic "$library" | grep NEEDED |
    grep -vE '\[(libz|libstdc\+\+|libm|libgcc_s|libc|ld-linux[^]]*)\.so'; then
    echo "the library needs more than it may"
    exit 1
fi

cmake -S examples -B "$scratch/examples" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix"
cmake --build "$scratch/examples"

PKG_CONFIG_PATH=$scratch/prefix/lib/pkgconfig
export PKG_CONFIG_PATH
read -ra flags <<<"$(pkg-config --cflags --libs kivframework)"
g++ -std=c++11 -o "$scratch/host" examples/hello_logger.cpp "${flags[@]}"
(cd "$scratch" && LD_LIBRARY_PATH=$scratch/prefix/lib ./host)
