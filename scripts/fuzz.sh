#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/, with clang, in build-fuzz/) and runs each of them in
# turn: fuzz_media (corrupted media contents), fuzz_config (media and hook configuration
# files), fuzz_search (path search), fuzz_tables (damaged shared table files at start-up),
# fuzz_describe (the tool's description, import and export).
#
#   scripts/fuzz.sh                 short run: 20 seconds per target (the test suite's run)
#   scripts/fuzz.sh --time 300      300 seconds per target
#   scripts/fuzz.sh --long          long run: 10 million executions per target
#   scripts/fuzz.sh --runs 500000   that many executions per target
#   scripts/fuzz.sh ... fuzz_media  only the named targets
#
# Seeds are generated at every run by build-fuzz/bin/fuzz_seeds (a database built through the
# library, configuration files, paths) into build-fuzz/seeds/; what the fuzzer adds is kept in
# build-fuzz/corpus/<target>/ for later runs. A crash, a sanitizer report, a leak or an input
# slower than the timeout stops the target, leaves the input in build-fuzz/artifacts/<target>/
# and makes the script fail; replay it with build-fuzz/bin/<target> <input>. Logs are in
# build-fuzz/logs/.
set -euo pipefail
cd "$(dirname "$0")/.."

time_per_target=20
runs=""
timeout_s=25
targets=()
while [ $# -gt 0 ]; do
  case "$1" in
    --long) runs=10000000; timeout_s=10 ;;
    --runs) runs="$2"; shift ;;
    --time) time_per_target="$2"; shift ;;
    --timeout) timeout_s="$2"; shift ;;
    fuzz_media|fuzz_config|fuzz_search|fuzz_tables|fuzz_describe) targets+=("$1") ;;
    -h|--help) sed -n '2,18p' "$0"; exit 0 ;;
    *) echo "fuzz.sh: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done
[ ${#targets[@]} -gt 0 ] || targets=(fuzz_media fuzz_config fuzz_search fuzz_tables fuzz_describe)

# clang, and the package of its version that holds the libFuzzer runtime (Debian 12:
# libclang-rt-14-dev; older releases ship it in libclang-common-N-dev, a dependency of clang).
bash scripts/deps.sh clang
major=$(clang --version | sed -n 's/.*clang version \([0-9]*\).*/\1/p' | head -n 1)
if apt-cache show "libclang-rt-$major-dev" >/dev/null 2>&1; then
  bash scripts/deps.sh "libclang-rt-$major-dev"
fi
jobs=$(nproc 2>/dev/null || echo 2)
out=build-fuzz
cmake -S fuzz -B "$out" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESDB_WERROR=ON >/dev/null
cmake --build "$out" -j"$jobs" >/dev/null

# The targets start a database under TMPDIR and remove it at exit.
export TMPDIR="$PWD/$out/tmp"
rm -rf "$out/seeds" "$TMPDIR"
mkdir -p "$TMPDIR" "$out/logs"
"$out/bin/fuzz_seeds" "$out/seeds"

# Descriptions: the samples and examples of the project; tables: none (from empty input).
mkdir -p "$out/seeds/describe" "$out/seeds/tables"
cp examples/*.json "$out/seeds/describe/"
declare -A seed_dir=([fuzz_media]=media [fuzz_config]=config [fuzz_search]=search [fuzz_tables]=tables
                     [fuzz_describe]=describe)
status=0
for t in "${targets[@]}"; do
  corpus="$out/corpus/$t"
  artifacts="$out/artifacts/$t/"
  log="$out/logs/$t.log"
  mkdir -p "$corpus" "$artifacts"
  limit=(-max_total_time="$time_per_target")
  [ -n "$runs" ] && limit=(-runs="$runs")
  start=$(date +%s)
  set +e
  "$out/bin/$t" "$corpus" "$out/seeds/${seed_dir[$t]}" "${limit[@]}" -timeout="$timeout_s" \
    -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$artifacts" >"$log" 2>&1
  rc=$?
  set -e
  seconds=$(( $(date +%s) - start ))
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  if [ "$rc" -eq 0 ]; then
    echo "$t: ok, ${execs:-?} executions in ${seconds}s (${rate:-?}/s), $(ls "$corpus" | wc -l) files in $corpus"
  else
    status=1
    echo "$t: FAILED (exit $rc) after ${execs:-?} executions in ${seconds}s; log $log" >&2
    grep -E "^==[0-9]+==ERROR|^SUMMARY|Test unit written|kesdb fuzz harness" "$log" >&2 || tail -20 "$log" >&2
  fi
done
rm -rf "$TMPDIR"
exit "$status"
