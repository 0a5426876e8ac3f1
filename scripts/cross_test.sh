#!/usr/bin/env bash
# Builds the project for its target, 32-bit big-endian PowerPC Linux (Debian's
# powerpc-linux-gnu cross compiler), and runs the whole test suite there under the user-mode
# emulator qemu-ppc: the library, the wrapper, the drivers, the sample hooks, the tool and every
# test program are target binaries. Fails when a test fails, when the build is not 32-bit
# big-endian, or when the check of the exported tables' entry layout did not run and pass.
#
#   bash scripts/cross_test.sh          # build dir: build-ppc (KESDB_CROSS_BUILD_DIR to change)
set -euo pipefail
cd "$(dirname "$0")/.."
started=$(date +%s)

bash scripts/deps.sh g++-powerpc-linux-gnu qemu-user googletest
jobs=$(nproc 2>/dev/null || echo 2)
build=${KESDB_CROSS_BUILD_DIR:-build-ppc}

# Time limits of the tests are multiplied by 5 under the emulator (the native ones stay as they are).
cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-powerpc-linux-gnu.cmake \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESDB_BENCH=OFF -DKESDB_WERROR=ON -DKESDB_TEST_TIME_SCALE=5 >/dev/null
cmake --build "$build" -j"$jobs"
built=$(date +%s)

# ELF class 1 (32-bit) and data 2 (big-endian), bytes 4 and 5 of the header.
for f in "$build/lib/libkesdbm.so.1" "$build/lib/libkesosw.so.1" "$build/bin/exports_test"; do
  ident=$(od -An -tx1 -j4 -N2 "$f" | tr -d ' \n')
  if [ "$ident" != "0102" ]; then
    echo "cross_test: $f is not a 32-bit big-endian binary (ELF ident $ident)" >&2
    exit 1
  fi
done

log="$build/cross-ctest.log"
set +e
ctest --test-dir "$build" -j2 --output-on-failure 2>&1 | tee "$log"
status=${PIPESTATUS[0]}
set -e
finished=$(date +%s)

# The layout check of the exported tables must have run and passed on the target, not been
# skipped or left out.
if ! grep -Eq 'Test +#[0-9]+: Exports\.MediaTableSpans128Entries \.+ +Passed' "$log"; then
  echo "cross_test: Exports.MediaTableSpans128Entries (the exported tables' layout, whose entry size the test program asserts at compile time) did not run and pass on the target" >&2
  status=1
fi
echo "cross_test: build $((built - started)) s, tests $((finished - built)) s, total $((finished - started)) s"
exit "$status"
