#!/usr/bin/env bash
# Builds the project as for use and runs the image preparation benchmark (kesdb create --from
# and export against SQLite, a few seconds), then the comparison benchmark (about a minute);
# arguments go to the comparison benchmark (for example --benchmark_filter=vs/). The exit
# status is that of the comparison, or 3 when an image preparation target is not met.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh libbenchmark-dev liblmdb-dev libsqlite3-dev sqlite3
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
image=0
build/bin/kesdb_image || image=$?
build/bin/kesdb_compare "$@"
exit "$image"
