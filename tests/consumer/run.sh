#!/bin/sh
# Installs the SDK's library components from a build tree into a scratch prefix, then builds and
# runs the consumer programs against that prefix twice (find_package and pkg-config), with the
# warnings a careful host turns on. Then a parent project builds the SDK as a shared subproject
# and installs an export set that depends on it, and the C API is looked up with dlopen both in
# that shared library and in a host's shared library that links the static one.
# Usage: run.sh BUILD_DIR [CMAKE] [C_COMPILER] [CXX_COMPILER]
set -eu

build_dir=$1
cmake=${2:-cmake}
cc=${3:-cc}
cxx=${4:-c++}
here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
work=$(mktemp -d "${TMPDIR:-/tmp}/zelvanor-consumer.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

fail() {
  echo "FAIL: $*" >&2
  exit 1
}
started=$(date +%s)
strict="-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror"

# Only the library is needed for the install; this is a no-op when it is up to date.
"$cmake" --build "$build_dir" --target zelvanor
for component in Zelvanor_Runtime Zelvanor_Development; do
  "$cmake" --install "$build_dir" --prefix "$prefix" --component "$component"
done
# The tools are a component of their own; the library's components leave them out.
[ ! -e "$prefix/bin" ] || fail "library components installed $(ls "$prefix/bin")"
[ -f "$prefix/share/doc/Zelvanor/LICENSE" ] || fail "LICENSE not installed"
grep -q "Apache License" "$prefix/share/doc/Zelvanor/LICENSE" || fail "LICENSE is not Apache-2.0"

for header in tracker.hpp zelvanor.h export.hpp json.hpp; do
  [ -f "$prefix/include/zelvanor/$header" ] || fail "header $header not installed"
done
config=$(find "$prefix" -name ZelvanorConfig.cmake)
[ -n "$config" ] || fail "ZelvanorConfig.cmake not installed"
[ -n "$(find "$prefix" -name ZelvanorConfigVersion.cmake)" ] || fail "no version file"
pc_file=$(find "$prefix" -name zelvanor.pc)
[ -n "$pc_file" ] || fail "zelvanor.pc not installed"
# The installed package must stand alone: no path back into the source or build tree.
if grep -rl -e "$source_dir" "$(dirname "$config")" "$pc_file"; then
  fail "installed package files refer to $source_dir"
fi

# A data directory whose cookie jar already holds the identity triple for the loopback servers.
make_data_dir() {
  dir=$work/data-$1
  mkdir -m 700 "$dir"
  {
    printf '# Netscape HTTP Cookie File\n'
    for name in cid did sid; do
      printf '127.0.0.1\tFALSE\t/\tTRUE\t4102444800\tfa_%s\t%s-%s\n' "$name" "$name" "$1"
    done
  } >"$dir/cookies.txt"
  echo "$dir"
}

# Runs a consumer and checks its printed event and the record it tracked into the pending file.
check_run() {
  label=$1
  program=$2
  tracked_page=$3
  next_page=$4
  own_event=${5:-}
  dir=$(make_data_dir "$label")
  output=$("$program" "$dir") || fail "$label exited with $?"
  echo "$output" | grep -q "\"$next_page\"" || fail "$label printed no record for $next_page: $output"
  echo "$output" | grep -q "\"cid-$label\"" || fail "$label record lacks the identity triple"
  # The record tracked through the facade, and the event tracked on its own.
  for page in $tracked_page $own_event; do
    grep -aq "\"$page\"" "$dir/ZLogs.tmp" 2>/dev/null ||
      fail "$label: tracked record for $page not in the pending file"
  done
  echo "ok: $label"
}

# 1. find_package(Zelvanor) with CMAKE_PREFIX_PATH.
generator=
if command -v ninja >/dev/null 2>&1; then generator="-GNinja"; fi
"$cmake" -S "$here" -B "$work/cmake-build" $generator -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx"
found=$(sed -n 's/^Zelvanor_DIR:PATH=//p' "$work/cmake-build/CMakeCache.txt")
[ "$found" = "$(dirname "$config")" ] || fail "find_package used $found, not the scratch prefix"
"$cmake" --build "$work/cmake-build"
check_run cmake "$work/cmake-build/consumer" consumer-page consumer-next consumer-own-event
check_run cmake-c "$work/cmake-build/consumer_c" "" consumer-c-page

# 2. pkg-config with PKG_CONFIG_PATH; the library is static, hence --static.
PKG_CONFIG_PATH=$(dirname "$pc_file")
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags --static --libs zelvanor) || fail "pkg-config cannot resolve zelvanor"
[ "$(pkg-config --modversion zelvanor)" = "0.9.0" ] || fail "pkg-config version"
grep -qx "License: Apache-2.0" "$pc_file" || fail "zelvanor.pc names no license"
# shellcheck disable=SC2086 # the flags are word lists
"$cxx" -std=c++20 $strict -o "$work/pc-consumer" "$here/main.cpp" "$here/headers.cpp" $flags
# shellcheck disable=SC2086
"$cc" -std=c99 $strict -o "$work/pc-consumer-c" "$here/main.c" $flags
# A shared build has no run path in these binaries.
LD_LIBRARY_PATH=$(pkg-config --variable=libdir zelvanor)${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
export LD_LIBRARY_PATH
check_run pkgconfig "$work/pc-consumer" consumer-page consumer-next consumer-own-event
check_run pkgconfig-c "$work/pc-consumer-c" "" consumer-c-page

# 3. A host's shared library that links the static library still offers the C API to dlopen.
# shellcheck disable=SC2086
"$cc" -std=c99 $strict -o "$work/load_c_api" "$here/load_c_api.c" -ldl
case "$flags" in
  *ZELVANOR_STATIC*)
    # shellcheck disable=SC2086
    "$cc" -std=c99 $strict -shared -fPIC -o "$work/libplugin.so" "$here/plugin.c" $flags
    "$work/load_c_api" "$work/libplugin.so" || fail "the static library hides the C API"
    echo "ok: C API from a shared library linking the static one"
    ;;
esac
echo "consumer: installed package checked in $(($(date +%s) - started)) s"

# 4. A parent project with the SDK as a shared subproject and an installed export set of its
# own. Only the SDK's library is built besides the parent's two targets, without optimisation:
# this is about the build and the package, not about speed.
parent_build=$work/parent-build
"$cmake" -S "$here/parent" -B "$parent_build" $generator -DCMAKE_BUILD_TYPE= \
  -DZELVANOR_SOURCE_DIR="$source_dir" -DBUILD_SHARED_LIBS=ON -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
# Warnings are the parent's business: no -Werror on the SDK's sources there.
grep -q "src/api/tracker.cpp" "$parent_build/compile_commands.json" ||
  fail "no compile command for the SDK in the parent build"
if grep "src/" "$parent_build/compile_commands.json" | grep -q -- "-Werror"; then
  fail "the SDK's sources build with -Werror under a parent project"
fi
"$cmake" --build "$parent_build"
library=$(find "$parent_build" -name 'libzelvanor.so.*.*.*' | head -n 1)
[ -n "$library" ] || fail "the parent build made no shared libzelvanor"
soname=$(readelf -d "$library" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = "libzelvanor.so.0.9" ] || fail "soname is '$soname', not libzelvanor.so.0.9"
echo "ok: soname $soname"
"$work/load_c_api" "$library" || fail "the shared library does not export the C API"
check_run parent "$parent_build/parent_app" consumer-page consumer-next consumer-own-event
"$cmake" --install "$parent_build" --prefix "$work/parent-prefix" >/dev/null
parent_targets=$(find "$work/parent-prefix" -name ParentTargets.cmake)
[ -n "$parent_targets" ] || fail "the parent's export set was not installed"
grep -q "zelvanor::zelvanor" "$parent_targets" ||
  fail "the parent's export set does not name zelvanor::zelvanor"
[ -n "$(find "$work/parent-prefix" -name ZelvanorTargets.cmake)" ] ||
  fail "the SDK's export set was not installed with the parent"
[ -n "$(find "$work/parent-prefix" -name 'libzelvanor.so.0.9')" ] ||
  fail "the shared library was not installed with the parent"
echo "consumer: all checks passed in $(($(date +%s) - started)) s"
