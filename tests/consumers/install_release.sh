#!/usr/bin/env bash
# Builds the library and its programs for release, without a warning, and installs them below a staging
# directory.
#
# usage: install_release.sh SOURCE_DIR BUILD_DIR STAGE [CMAKE_OPTION...]
set -euo pipefail

source=$1
build=$2
stage=$3
shift 3

cmake -S "$source" -B "$build" "$@" -DCMAKE_BUILD_TYPE=Release -DKIV_WARNINGS_AS_ERRORS=ON \
    -DCMAKE_INSTALL_PREFIX=/opt/kiv -DCMAKE_INSTALL_LIBDIR=lib
cmake --build "$build" --target KivFramework kiv-agent kiv-console
# What an earlier run installed must not stand in for a file that is missing now.
rm -rf "$stage"
DESTDIR=$stage cmake --install "$build"
