#!/usr/bin/env bash
# Runs the guide's example in a fresh directory and compares its output with the one the
# guide shows (examples/guide/guide_example.out).
#   run_guide_example.sh PROGRAM MODULEDIR EXPECTED
set -euo pipefail
program=$1 moduledir=$2 expected=$3
work=$(mktemp -d "${TMPDIR:-/tmp}/kesdb_guide.XXXXXX")
trap 'rm -rf "$work"' EXIT
# The example sets KESDB_DBTABLE itself; the byte-order rule is left to it as well.
unset SIM_BYTE_ORDER KESDB_DEFMEDIA
"$program" "$work/db" "$moduledir" > "$work/out"
diff -u "$expected" "$work/out"
echo "guide example output matches $(wc -l < "$expected") lines"
