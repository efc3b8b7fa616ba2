#!/usr/bin/env bash
# Checks that installing a project which only uses the library installs nothing of the library.
#
# usage: check_no_install.sh BUILD_DIR
set -euo pipefail

scratch=$(mktemp -d)
trap 'rm -r "$scratch"' EXIT

DESTDIR=$scratch cmake --install "$1"
[[ -z $(ls -A "$scratch") ]]
