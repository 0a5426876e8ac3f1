#!/usr/bin/env bash
# Builds the project as for use and runs the comparison benchmark (about a minute); arguments
# go to the benchmark (for example --benchmark_filter=vs/).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh libbenchmark-dev liblmdb-dev libsqlite3-dev
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
exec build/bin/kesdb_compare "$@"
