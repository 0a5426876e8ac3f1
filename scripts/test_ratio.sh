#!/usr/bin/env bash
# Prints the code lines of the tests (tests/ and fuzz/), of everything tracked, and their
# ratio, as cloc counts them over the tracked files; fails when the tests exceed 35 %.
set -euo pipefail
cd "$(dirname "$0")/.."
command -v cloc >/dev/null || bash scripts/deps.sh cloc
langs="C++,C,C/C++ Header,CMake,Bourne Shell,Bourne Again Shell,Python"
git ls-files -z | xargs -0 cloc --quiet --csv --by-file --include-lang="$langs" |
  awk -F, -v limit="${KESDB_TEST_RATIO_LIMIT:-35}" '
    NR > 1 && $2 != "" && $1 != "SUM" { total += $5; if ($2 ~ /^(\.\/)?(tests|fuzz)\//) tests += $5 }
    END {
      ratio = total ? 100 * tests / total : 0
      printf "test code lines: %d of %d (%.1f %%, at most %d %%)\n", tests, total, ratio, limit
      exit ratio > limit
    }'
