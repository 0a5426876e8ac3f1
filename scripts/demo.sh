#!/usr/bin/env bash
# Builds the project and runs the demonstration; its database lives in build/demo/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs" >/dev/null
rm -rf build/demo
./build/bin/kesdb_demo build/demo
