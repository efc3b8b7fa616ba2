#!/usr/bin/env bash
# Builds the Debian packages from the sources as they lie here, and lets lintian look at them.
#
# usage: package-debian.sh [DIRECTORY_OF_THE_PACKAGES]
set -euo pipefail
cd "$(dirname "$0")/.."

output=${1:-build/packages}
scripts/install-dependencies.sh build-essential debhelper doxygen dpkg-dev git lintian python3

version=$(dpkg-parsechangelog --file packaging/debian/changelog --show-field Version)
stated=$(sed -nE 's/^#define KIV_VERSION_(MAJOR|MINOR|PATCH) ([0-9]+)$/\2/p' KivFramework/KivVersion.h | paste -sd .)
if [[ $version != "$stated" ]]; then
    echo "packaging/debian/changelog is about version $version, KivVersion.h about $stated" >&2
    exit 1
fi

# A copy, so that nothing of a build gets into the packages and nothing of theirs into the tree.
scratch=$(mktemp -d)
trap 'rm -r "$scratch"' EXIT
tree=$scratch/kivframework-$version
umask 022
mkdir -p "$tree" "$output"
git ls-files -z --cached --others --exclude-standard -- . ':!packaging/debian' |
    tar --create --null --files-from - | tar --extract --directory "$tree"
cp -r packaging/debian "$tree/debian"

(cd "$tree" && dpkg-buildpackage --unsigned-source --unsigned-changes --build=binary --jobs="$(nproc)")
rm -f "$output"/*.deb "$output"/*.changes "$output"/*.buildinfo
cp "$scratch"/*.deb "$scratch"/*.changes "$scratch"/*.buildinfo "$output"

lintian --allow-root --pedantic --display-info --fail-on error,warning,pedantic "$output"/*.changes
