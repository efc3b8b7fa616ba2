#!/usr/bin/env bash
# Makes the reference of headers and handbook under build/docs/, as HTML and as manual pages; a broken
# reference fails it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh doxygen
rm -rf build/docs
mkdir -p build/docs
doxygen docs/Doxyfile
scripts/finish-man-pages.sh build/docs/man/man3
