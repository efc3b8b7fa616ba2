#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, if any is missing.
set -euo pipefail

packages=(cmake g++ iproute2 libgtest-dev ninja-build python3 zlib1g-dev "$@")

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
