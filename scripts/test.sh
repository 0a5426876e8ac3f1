#!/usr/bin/env bash
# Builds the project and runs every test: once as built for use, once under
# AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
jobs=$(nproc 2>/dev/null || echo 2)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build -j2 --output-on-failure

cmake -S . -B build-san -DCMAKE_BUILD_TYPE=Debug -DKESDB_SANITIZE=ON
cmake --build build-san -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-san -j2 --output-on-failure
