#!/usr/bin/env bash
# Installs the Debian packages that building the library needs, and those named, if any is missing.
#
# usage: install-dependencies.sh [PACKAGE...]
set -euo pipefail

packages=(cmake g++ ninja-build zlib1g-dev "$@")

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query --show --showformat '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed; then
        missing+=("$package")
    fi
done
if ((${#missing[@]} == 0)); then
    exit 0
fi

as_root=()
if (($(id --user) != 0)); then
    as_root=(sudo)
fi
"${as_root[@]}" apt-get update
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install --yes --no-install-recommends "${missing[@]}"
