#!/usr/bin/env bash
# Times "kesdb migrate" of a 10,000-leaf database (1,000 nodes n0001.. of ten Uint32 leaves
# l01..l10) to a description that changes a tenth of it: the leaf l10 of every node is
# dropped for a new l11 (nodes 1-250), becomes a Uint16 (251-500), gets a range that some
# values leave (501-750) or an enumeration (751-1000). Uses the tool of build/ (built when
# missing); a work directory under /tmp is removed at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
[ -x build/bin/kesdb ] || { cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null; cmake --build build --target kesdb -j2 >/dev/null; }
kesdb=$PWD/build/bin/kesdb
work=$(mktemp -d /tmp/kesdb-migrate-bench.XXXXXX)
trap 'rm -rf "$work"' EXIT
export KESDB_DBTABLE=$work/db.tbl

# describe NEW: the old description (NEW=0) or the changed one (NEW=1).
describe() {
    awk -v new="$1" 'BEGIN {
        printf "{\"children\": [\n"
        for (n = 1; n <= 1000; n++) {
            printf "%s{\"name\": \"n%04d\", \"children\": [", (n > 1 ? ",\n" : ""), n
            for (l = 1; l <= 10; l++) {
                v = (n * 10 + l) * 7 % 2000
                leaf = sprintf("{\"name\": \"l%02d\", \"type\": \"Uint32\", \"current\": %d}", l, v)
                if (new && l == 10) {
                    if (n <= 250) leaf = sprintf("{\"name\": \"l11\", \"type\": \"Uint32\", \"current\": %d}", n)
                    else if (n <= 500) leaf = sprintf("{\"name\": \"l10\", \"type\": \"Uint16\", \"current\": 0}")
                    else if (n <= 750) leaf = sprintf("{\"name\": \"l10\", \"type\": \"Uint32\", \"current\": 0, \"range\": {\"min\": 0, \"max\": 1000}}")
                    else leaf = sprintf("{\"name\": \"l10\", \"type\": \"Uint32\", \"current\": 0, \"enum\": [0, 7, 14, 21]}")
                }
                printf "%s%s", (l > 1 ? ", " : ""), leaf
            }
            printf "]}"
        }
        printf "\n]}\n"
    }'
}
describe 0 >"$work/old.json"
describe 1 >"$work/new.json"

seconds() { date +%s.%N; }
t0=$(seconds)
"$kesdb" create "$work/db" --size 8388608 --from "$work/old.json"
t1=$(seconds)
"$kesdb" -d "$work/db" migrate "$work/new.json" >"$work/report"
t2=$(seconds)
echo "create of 10,000 leaves:            $(echo "$t1 - $t0" | bc) s"
echo "migrate changing 1,000 of them:     $(echo "$t2 - $t1" | bc) s ($(wc -l <"$work/report") report lines)"
"$kesdb" -d "$work/db" get /n0300/l10 >/dev/null
