#!/usr/bin/env bash
# Runs every test under valgrind memcheck, in a build of its own (build-vg: Debug, no
# sanitizers, no benchmarks). Each test program runs under valgrind as the tests' launcher, so
# CTest still runs each test in its own process; forked children stay under valgrind, and
# programs the tests execute (the kesdb tool) are traced too. A test fails when memcheck finds
# an error in it or in any of its processes (invalid access, use of uninitialised memory,
# invalid free, a definite or possible leak): valgrind then makes the process exit with 99.
# Leaks do not count for a process that ended on a signal (see below).
# For the origin of an uninitialised value, run again with --track-origins=yes added below.
#
#   bash scripts/valgrind.sh [extra ctest arguments, e.g. -R Value]
#
# Environment: KESDB_VG_BUILD (build directory, default build-vg), KESDB_VG_JOBS (parallel
# tests, default 2), KESDB_SWEEP_SAMPLE (the fault sweep runs every n-th call of each kind
# under valgrind, default 25; the full sweep runs in the other builds). Logs, one per process,
# are kept in $KESDB_VG_BUILD/valgrind-logs; those with errors are printed at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh valgrind

build=${KESDB_VG_BUILD:-build-vg}
jobs=${KESDB_VG_JOBS:-2}
export KESDB_SWEEP_SAMPLE=${KESDB_SWEEP_SAMPLE:-25}
logs="$PWD/$build/valgrind-logs"
suppressions="$PWD/scripts/valgrind.supp"

vg="valgrind;--tool=memcheck;--error-exitcode=99;--leak-check=full"
vg+=";--errors-for-leak-kinds=definite,possible;--show-leak-kinds=definite,possible"
vg+=";--trace-children=yes"
vg+=";--suppressions=$suppressions;--log-file=$logs/%p.log"

# Tests run 20 to 50 times slower under valgrind: their time limits are raised to match.
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DKESDB_SANITIZE=OFF -DKESDB_BENCH=OFF -DKESDB_WERROR=ON \
  -DKESDB_TEST_TIME_SCALE=25 "-DCMAKE_CROSSCOMPILING_EMULATOR=$vg"
cmake --build "$build" -j"$jobs"

rm -rf "$logs"
mkdir -p "$logs"
chmod 1777 "$logs"  # a test that runs the tool as another user logs here too
start=$(date +%s)
status=0
ctest --test-dir "$build" -j"$jobs" --output-on-failure "$@" || status=$?
echo "valgrind run: $(( $(date +%s) - start )) s, $(find "$logs" -name '*.log' | wc -l) processes checked"

# A process killed by a test (a lock holder, a hung child) writes no summary: nothing found.
# A process that ended on a signal (a planted abort) still holds memory it was using when it
# died: its leak records say nothing, only its access and uninitialised-value errors count.
access='Invalid (read|write|free)|uninitialised|Mismatched free|overlap|Syscall param|invalid address'
bad=
for f in $(grep -l "ERROR SUMMARY: [1-9]" "$logs"/*.log 2>/dev/null || true); do
  if grep -q "Process terminating with default action of signal" "$f" &&
     ! grep -Eq "$access" "$f"; then
    echo "ignored: leak records of a process that ended on a signal, $f"
    continue
  fi
  bad+=" $f"
done
if [ -n "$bad" ]; then
  echo "memcheck found errors in:"
  for f in $bad; do
    echo "=== $f"
    cat "$f"
  done
  status=1
fi
exit "$status"
