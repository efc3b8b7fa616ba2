#!/usr/bin/env bash
# Makes the reference of headers and handbook under build/docs/, as HTML and as manual pages; a broken
# reference fails it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh doxygen python3
rm -rf build/docs
mkdir -p build/docs
doxygen docs/Doxyfile
scripts/finish-man-pages.py build/docs/man/man3
if grep -n '`' build/docs/html/*.html; then
    echo "doxygen took these marks for text"
    exit 1
fi
