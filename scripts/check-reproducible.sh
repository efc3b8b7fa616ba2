#!/usr/bin/env bash
# Builds the Debian packages twice, in directories, time zones, languages and with file modes of their
# own, and compares them byte by byte: the same sources give the same packages. Those of the first
# build stay in build/packages.
set -euo pipefail
cd "$(dirname "$0")/.."

scratch=$(mktemp -d)
trap 'rm -r "$scratch"' EXIT
mkdir "$scratch/one" "$scratch/a-directory-with-a-longer-name"

env TMPDIR="$scratch/one" TZ=UTC LC_ALL=C.UTF-8 scripts/package-debian.sh
(umask 077 &&
    env TMPDIR="$scratch/a-directory-with-a-longer-name" TZ=Asia/Tokyo LC_ALL=POSIX \
        scripts/package-debian.sh "$scratch/second")

different=0
for package in build/packages/*.deb; do
    name=$(basename "$package")
    if ! cmp "$package" "$scratch/second/$name"; then
        different=$((different + 1))
        # Which of its files it is.
        for build in build/packages "$scratch/second"; do
            dpkg-deb --fsys-tarfile "$build/$name" | tar --extract --to-command 'echo "$(sha256sum) $TAR_FILENAME"'
        done | sort | uniq --unique
    fi
done
((different == 0)) || exit 1
echo "$(ls build/packages/*.deb | wc -l) packages, the same twice"
