#!/usr/bin/env bash
# Reads the ELF headers of the installed library and programs, and the commands they were compiled
# with, for what a release is hardened with.
#
# usage: check_hardening.sh RELEASE_BUILD_DIR PREFIX
set -euo pipefail

build=$1
prefix=$2
failures=0

fail() {
    echo "$*"
    failures=$((failures + 1))
}

for file in "$prefix"/lib/libKivFramework.so.1 "$prefix"/bin/kiv-agent "$prefix"/bin/kiv-console; do
    name=$(basename "$file")
    segments=$(readelf --wide --program-headers "$file")
    dynamic=$(readelf --wide --dynamic "$file")
    imports=$(readelf --wide --dyn-syms "$file" | grep ' UND ')

    grep -q '^Elf file type is DYN ' <<<"$segments" || fail "$name: not position-independent"
    grep -q ' GNU_RELRO ' <<<"$segments" || fail "$name: no RELRO"
    grep -q '(FLAGS).* BIND_NOW' <<<"$dynamic" || fail "$name: RELRO is not full, it binds lazily"
    grep ' GNU_STACK ' <<<"$segments" | grep -q ' RW  ' || fail "$name: executable stack"
    ! grep -qE ' LOAD .* (RWE|WE) ' <<<"$segments" || fail "$name: memory that is writable and executable"
    ! grep -q '(TEXTREL)' <<<"$dynamic" || fail "$name: text relocations"
    ! grep -E '\((RPATH|RUNPATH)\)' <<<"$dynamic" | grep -vF '[$ORIGIN/../lib]' || fail "$name: foreign run path"
    grep -q ' __stack_chk_fail@' <<<"$imports" || fail "$name: no stack protector"
    grep -qE ' __[a-z_]+_chk@' <<<"$imports" || fail "$name: no fortified call"
done

# What leaves no trace of its own in the headers.
commands=$build/compile_commands.json
compiled=$(grep -c '"command":' "$commands")
for flag in '-D_FORTIFY_SOURCE=3' -fstack-protector-strong -fstack-clash-protection; do
    with=$(grep '"command":' "$commands" | grep -c -- " $flag ")
    ((with == compiled)) || fail "$((compiled - with)) of $compiled sources are compiled without $flag"
done

((failures == 0)) || exit 1
echo "library and programs are hardened, $compiled sources compiled so"
