#!/usr/bin/env bash
# Installs the current build into a staging prefix in a temporary directory, checks the
# installed layout, then builds the example application (examples/app) against the staging
# prefix twice, with find_package(kesdbm) and with pkg-config, and runs both.
#   install_test.sh BUILD_DIR SOURCE_DIR LIBDIR VERSION C_COMPILER "EXTRA_FLAGS" WITH_TOOL
set -euo pipefail
build=$1 source=$2 libdir=$3 version=$4 cc=$5 extra=$6 with_tool=$7
work=$(mktemp -d "${TMPDIR:-/tmp}/kesdb_install.XXXXXX")
trap 'rm -rf "$work"' EXIT
stage=$work/stage
unset KESDB_DBTABLE KESDB_DEFMEDIA KESDB_LIB_DIR SIM_BYTE_ORDER
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
expect_file() { [ -e "$stage/$1" ] || fail "not installed: $1"; }
expect_line() {  # expected, actual, what
  [ "$1" = "$2" ] || fail "$3: expected '$1', got '$2'"
}

echo "== cmake --install $build --prefix $stage"
cmake --install "$build" --prefix "$stage" > "$work/install.log" || { cat "$work/install.log"; exit 1; }

echo "== layout"
major=${version%%.*}
expect_file "$libdir/libkesdbm.so.$version"
expect_line "libkesdbm.so.$major" "$(readlink "$stage/$libdir/libkesdbm.so")" "libkesdbm.so link"
expect_line "libkesdbm.so.$version" "$(readlink "$stage/$libdir/libkesdbm.so.$major")" "libkesdbm.so.$major link"
expect_file "$libdir/libkesosw.so.$major"
for h in "$source"/include/kesdbm/*.h; do expect_file "include/kesdbm/$(basename "$h")"; done
expect_file "$libdir/kesdbm/libkesdrv_file.so"
expect_file "$libdir/kesdbm/libkesdrv_mmap.so"
expect_file "$libdir/kesdbm/libkeshook_sample.so"
[ ! -e "$stage/$libdir/kesdbm/libkesdrv_fault.so" ] || fail "the test-only fault driver is installed"
for f in kesdbmConfig.cmake kesdbmConfigVersion.cmake kesdbmTargets.cmake; do expect_file "$libdir/cmake/kesdbm/$f"; done
expect_file "$libdir/pkgconfig/kesdbm.pc"
expect_file "share/doc/kesdbm/guide.md"
if [ "$with_tool" = 1 ]; then
  expect_file bin/kesdb
  expect_file share/man/man1/kesdb.1
fi
if command -v readelf > /dev/null; then
  soname=$(readelf -d "$stage/$libdir/libkesdbm.so.$version" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
  expect_line "libkesdbm.so.$major" "$soname" "SONAME"
  # At run time the library needs the C library, the dynamic loader and its wrapper, nothing
  # else (a sanitizer build also needs the sanitizer runtimes).
  if [ -z "$extra" ]; then
    for lib in libkesdbm.so.$version libkesosw.so.$major; do
      readelf -d "$stage/$libdir/$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | while read -r needed; do
        case $needed in libc.so.*|ld-linux*|ld.so.*|ld64.so.*|libkesosw.so.$major) ;;
          *) echo "FAIL: $lib needs $needed"; exit 1 ;; esac
      done || fail "run-time dependencies of $lib"
    done
  fi
  # Installed binaries carry no run path into the build tree.
  for f in "$stage/$libdir/libkesdbm.so.$version" "$stage/$libdir/kesdbm/libkesdrv_file.so" \
           $( [ "$with_tool" = 1 ] && echo "$stage/bin/kesdb"); do
    if readelf -d "$f" | grep -E '\((RPATH|RUNPATH)\)' | grep -q -F "$build"; then fail "$f: run path into $build"; fi
  done
fi
# Nothing of the build tree leaks into the installed package files.
if grep -l -r -F "$build" "$stage/$libdir/cmake" "$stage/$libdir/pkgconfig"; then fail "build paths in package files"; fi
if grep -l -r -F "$source" "$stage/$libdir/cmake" "$stage/$libdir/pkgconfig"; then fail "source paths in package files"; fi

export LD_LIBRARY_PATH="$stage/$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"

if [ "$with_tool" = 1 ]; then
  echo "== the installed kesdb finds the installed driver"
  "$stage/bin/kesdb" create "$work/tooldb" --files --size 8192 > "$work/tool.log" 2>&1 || { cat "$work/tool.log"; fail "kesdb create --files"; }
  grep -q "^$stage/$libdir/kesdbm/libkesdrv_file.so " "$work/tooldb/media.conf" 2>/dev/null \
    || fail "media.conf of the installed kesdb does not name $stage/$libdir/kesdbm/libkesdrv_file.so"
fi

run_app() {  # program, directory, expected line
  local out
  out=$("$1" "$2" 2>&1) || { echo "$out"; fail "$1 $2 exited with $?"; return; }
  expect_line "$3" "$out" "$(basename "$1") $2"
}

echo "== find_package(kesdbm) build"
export CFLAGS="$extra" LDFLAGS="$extra"
if cmake -S "$source/examples/app" -B "$work/app-cmake" -DCMAKE_C_COMPILER="$cc" \
      -DCMAKE_PREFIX_PATH="$stage" -DCMAKE_BUILD_TYPE=Release > "$work/app-cmake.log" 2>&1 &&
   cmake --build "$work/app-cmake" >> "$work/app-cmake.log" 2>&1; then
  expect_line "$stage/$libdir/cmake/kesdbm" "$(sed -n 's/^kesdbm_DIR:PATH=//p' "$work/app-cmake/CMakeCache.txt")" \
    "package found"
  run_app "$work/app-cmake/kesdbm_boot_counter" "$work/db1" "new database, boot 1 (previous: never)"
  run_app "$work/app-cmake/kesdbm_boot_counter" "$work/db1" "existing database, boot 2 (previous: run 1)"
else
  cat "$work/app-cmake.log"
  fail "find_package build of examples/app"
fi

echo "== version check of the package"
mkdir -p "$work/newer"
cat > "$work/newer/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.20)
project(newer LANGUAGES NONE)
find_package(kesdbm ${WANT} QUIET)
message(STATUS "kesdbm_FOUND=${kesdbm_FOUND} ${kesdbm_VERSION}")
CMAKE
for want in "$version:1" "$major.0:1" "$((major + 1)).0:0"; do
  cmake -S "$work/newer" -B "$work/newer/b-${want%%:*}" -DWANT="${want%%:*}" -DCMAKE_PREFIX_PATH="$stage" \
    > "$work/newer.log" 2>&1 || { cat "$work/newer.log"; fail "configure asking for ${want%%:*}"; continue; }
  grep -q "kesdbm_FOUND=${want##*:}" "$work/newer.log" || fail "find_package(kesdbm ${want%%:*}) not ${want##*:}"
done

echo "== pkg-config build"
export PKG_CONFIG_PATH="$stage/$libdir/pkgconfig"
expect_line "$version" "$(pkg-config --modversion kesdbm)" "pkg-config --modversion"
moduledir=$(pkg-config --variable=moduledir kesdbm)
expect_line "$stage/$libdir/kesdbm" "$moduledir" "pkg-config moduledir"
# shellcheck disable=SC2046,SC2086
if "$cc" $extra -std=c11 -o "$work/app-pc" "$source/examples/app/boot_counter.c" \
     -DKESDBM_MODULE_DIR="\"$moduledir\"" $(pkg-config --cflags --libs kesdbm) 2> "$work/app-pc.log"; then
  run_app "$work/app-pc" "$work/db2" "new database, boot 1 (previous: never)"
  # The two builds are one application: the pkg-config build goes on with the first database.
  run_app "$work/app-pc" "$work/db1" "existing database, boot 3 (previous: run 2)"
else
  cat "$work/app-pc.log"
  fail "pkg-config build of examples/app"
fi

[ -e /tmp/kesdb_dbTable ] && [ /tmp/kesdb_dbTable -nt "$work" ] && fail "the default table path was used"
if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "installed package: layout, find_package and pkg-config builds all pass"
