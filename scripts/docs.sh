#!/usr/bin/env bash
# Makes the HTML reference of headers and handbook under build/docs/; a broken reference fails it.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh doxygen
mkdir -p build/docs
doxygen docs/Doxyfile
