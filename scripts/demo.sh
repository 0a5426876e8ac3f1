#!/usr/bin/env bash
# Builds the project and runs the demonstration: first a short session with the kesdb tool on
# a database made from examples/device.json, then a program that prepares a database through
# the library's own calls. Everything lives in build/demo/ (tables included, never in the
# system-wide /tmp table path).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$jobs" --target kesdb kesdb_demo kesdrv_file keshook_sample >/dev/null
rm -rf build/demo
mkdir -p build/demo

kesdb=./build/bin/kesdb
db=build/demo/device
run() {
  echo "\$ kesdb $*"
  "$kesdb" "$@" || echo "(exit status $?)"
}

echo "== the kesdb tool"
run create "$db" --hook "libkeshook_sample.so policy_preSet log_postSet NULL NULL" --from examples/device.json
run -d "$db" get /net/port
run -d "$db" set /net/port 443
run -d "$db" get /net/port
run -d "$db" set /net/port 0        # exit status 4: refused by the range
run -d "$db" set /net/mode 7
run -d "$db" set /time/interval 5000
run -d "$db" set /time/zone Asia/Tokyo
run -d "$db" show /time
run -d "$db" diff /net
run -d "$db" describe /net/mode
run -d "$db" reset /net
run -d "$db" get /net/port
run -d "$db" export

echo
echo "== the library, called directly"
./build/bin/kesdb_demo build/demo/direct
