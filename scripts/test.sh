#!/usr/bin/env bash
# Builds the project and runs every test: the API reference (fails on a Doxygen warning),
# the suite as built for use, the size bound of the two libraries, the suite under
# AddressSanitizer and UndefinedBehaviorSanitizer, the suite under valgrind memcheck.
# A short run of each fuzz target (clang, libFuzzer). Then the whole suite again, built for the
# 32-bit big-endian target (PowerPC) and run under its emulator. The benchmarks are built
# (their libraries are installed) but not run.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh libbenchmark-dev liblmdb-dev libsqlite3-dev doxygen pkg-config cloc
# The tests stay a third of the code: fails when tests/ and fuzz/ pass 35 % of the code lines.
bash scripts/test_ratio.sh
bash scripts/docs.sh
jobs=$(nproc 2>/dev/null || echo 2)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESDB_WERROR=ON
cmake --build build -j"$jobs"
ctest --test-dir build -j2 --output-on-failure

# The library and its wrapper built for size (MinSizeRel, build-size): fails above the bound.
bash scripts/size.sh

cmake -S . -B build-san -DCMAKE_BUILD_TYPE=Debug -DKESDB_SANITIZE=ON -DKESDB_WERROR=ON
cmake --build build-san -j"$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  ctest --test-dir build-san -j2 --output-on-failure

# The whole suite once more under valgrind memcheck (build-vg); a memcheck error fails it.
bash scripts/valgrind.sh

# Each fuzz target for 20 seconds; a crash, leak or hang fails the run.
bash scripts/fuzz.sh

# The same suite built for the 32-bit big-endian target and run under its emulator.
bash scripts/cross_test.sh
