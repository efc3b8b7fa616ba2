#!/usr/bin/env bash
# Checks the installed library's file name, SONAME and the libraries it draws into every host.
#
# usage: check_soname.sh PREFIX VERSION
set -euo pipefail

library=$1/lib/libKivFramework.so
version=$2
dynamic=$(readelf --wide --dynamic "$library")

[[ $(readlink -f "$library") == */libKivFramework.so.$version ]]
grep -qF "[libKivFramework.so.${version%%.*}]" <<<"$(grep '(SONAME)' <<<"$dynamic")"
if grep '(NEEDED)' <<<"$dynamic" | grep -vE '\[(libz|libstdc\+\+|libm|libgcc_s|libc|ld-linux[^]]*)\.so'; then
    echo "the library needs more than it may"
    exit 1
fi
