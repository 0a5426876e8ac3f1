#!/usr/bin/env bash
# Builds the project as for use and runs the image preparation benchmark (kesdb create --from,
# export, migrate and import --merge against SQLite, a few seconds), the comparison benchmark
# (about a minute) and the watching benchmark (a few seconds); arguments go to the comparison
# benchmark (for example --benchmark_filter=vs/). The exit status is that of the comparison
# or the watching benchmark when one fails, else 3 when an image preparation target is not
# met.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh libbenchmark-dev liblmdb-dev libsqlite3-dev sqlite3
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
image=0
build/bin/kesdb_image || image=$?
build/bin/kesdb_compare "$@"
build/bin/kesdb_watch
exit "$image"
