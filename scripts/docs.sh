#!/usr/bin/env bash
# Builds the API reference of the public headers (Doxygen) into build/docs/html, or into the
# directory given as argument. Any Doxygen warning (an undocumented call, argument, field or
# constant, a broken reference) fails the script. Installs doxygen and pkg-config when missing.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh doxygen pkg-config
out=${1:-build/docs}
mkdir -p "$out"
version=$(sed -n 's/^project(kesdbm VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
KESDB_DOCS_OUT="$out" KESDB_DOCS_VERSION="$version" doxygen docs/Doxyfile
echo "API reference: $out/html/index.html (no warnings)"
