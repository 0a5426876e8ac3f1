#!/usr/bin/env bash
# Builds the library and its operating-system wrapper for size (MinSizeRel; no tests, tool or
# benchmarks), strips copies of them and prints their sizes. Fails when the two together are
# larger than the bound, when either needs a library other than the C library, the dynamic
# loader and the wrapper, or when either carries C++ runtime code (demangler, unwinder,
# exception personality). The drivers shipped with them (the named-file and the mapped one)
# are held to the same needs and printed, outside the bound.
#
#   bash scripts/size.sh                       # x86-64 (this machine), build dir build-size
#   bash scripts/size.sh --target ppc          # the 32-bit PowerPC target, build-size-ppc
#   bash scripts/size.sh --type RelWithDebInfo # another build type (sizes only, no bound)
#
# The bound, 88,048 bytes, applies to the native MinSizeRel build: a whole transactional
# B+tree library takes that much, stripped, on the same host. KESDB_SIZE_LIMIT changes it.
set -euo pipefail
cd "$(dirname "$0")/.."

target=native
type=MinSizeRel
while [ $# -gt 0 ]; do
  case "$1" in
    --target) target="$2"; shift ;;
    --type) type="$2"; shift ;;
    -h|--help) sed -n '2,13p' "$0"; exit 0 ;;
    *) echo "size.sh: unknown argument $1 (allowed: --target native|ppc, --type BUILD_TYPE)" >&2; exit 2 ;;
  esac
  shift
done

limit=${KESDB_SIZE_LIMIT:-88048}
case "$target" in
  native) toolchain=(); build=build-size ;;
  ppc) toolchain=(-DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-powerpc-linux-gnu.cmake); build=build-size-ppc
       bash scripts/deps.sh g++-powerpc-linux-gnu qemu-user ;;
  *) echo "size.sh: unknown target $target (allowed: native, ppc)" >&2; exit 2 ;;
esac
[ "$type" = MinSizeRel ] || build="$build-$type"

cmake --no-warn-unused-cli -S . -B "$build" "${toolchain[@]}" -DCMAKE_BUILD_TYPE="$type" -DKESDB_WERROR=ON \
  -DKESDB_TESTS=OFF -DKESDB_TOOLS=OFF -DKESDB_BENCH=OFF >/dev/null
cmake --build "$build" --target kesdbm kesosw kesdrv_file kesdrv_mmap -j"$(nproc 2>/dev/null || echo 2)" >/dev/null

# The binary tools of the build's own toolchain (the target's strip for a cross build).
tool() { sed -n "s/^CMAKE_$1:FILEPATH=//p" "$build/CMakeCache.txt"; }
strip=$(tool STRIP) nm=$(tool NM) readelf=$(tool READELF)
: "${strip:=strip}" "${nm:=nm}" "${readelf:=readelf}"

status=0
total=0
stripped=$(mktemp -d)
trap 'rm -rf "$stripped"' EXIT
for lib in libkesdbm.so.1 libkesosw.so.1 libkesdrv_file.so libkesdrv_mmap.so; do
  file="$build/lib/$lib"
  "$strip" -o "$stripped/$lib" "$file"
  bytes=$(stat -c %s "$stripped/$lib")
  case $lib in
    libkesdrv_*) printf '%-18s %8d bytes stripped (a driver, outside the bound)\n' "$lib" "$bytes" ;;
    *) total=$((total + bytes)); printf '%-18s %8d bytes stripped\n' "$lib" "$bytes" ;;
  esac
  needed=$("$readelf" -d "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
  for n in $needed; do
    case $n in libc.so.*|ld-linux*|ld.so.*|ld64.so.*|libkesosw.so.*) ;;
      *) echo "size.sh: $lib needs $n (allowed: the C library, the dynamic loader, libkesosw)" >&2; status=1 ;;
    esac
  done
  runtime=$("$nm" "$file" | grep -E -o '(d_print_comp|cplus_demangle|__cxa_demangle|_Unwind_[A-Za-z_]+|__gxx_personality_v0|__cxa_throw)\b' | sort -u | tr '\n' ' ' || true)
  if [ -n "$runtime" ]; then
    echo "size.sh: $lib carries C++ runtime code: $runtime" >&2
    status=1
  fi
done
printf '%-18s %8d bytes (%s, %s)\n' together "$total" "$target" "$type"
if [ "$target" = native ] && [ "$type" = MinSizeRel ]; then
  if [ "$total" -gt "$limit" ]; then
    echo "size.sh: the two libraries take $total bytes, more than the bound of $limit" >&2
    status=1
  else
    echo "within the bound of $limit bytes"
  fi
fi
exit "$status"
