#!/bin/sh
# Installs the SDK's library components from a build tree into a scratch prefix, then builds the
# consumer programs against that prefix twice (find_package and pkg-config) with the warnings a
# careful host turns on, and runs the find_package ones. Then a parent project builds the SDK as a
# shared subproject and installs an export set that depends on it. The C API must be exported
# (what dlopen/dlsym, as a Python ctypes host uses, finds) from that shared library and from a
# host's shared library that links the static one.
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
strict="-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror"
generator=
if command -v ninja >/dev/null 2>&1; then generator="-GNinja"; fi

fail() {
  echo "FAIL: $*" >&2
  exit 1
}
# The C API is in the dynamic symbol table of this shared library.
exports_c_api() {
  nm -D --defined-only "$1" | grep -q " T zelvanor_set$" || fail "$1 does not export the C API"
}

# Only the library is needed for the install; this is a no-op when it is up to date.
"$cmake" --build "$build_dir" --target zelvanor
for component in Zelvanor_Runtime Zelvanor_Development; do
  "$cmake" --install "$build_dir" --prefix "$prefix" --component "$component"
done
# The tools are a component of their own; the library's components leave them out.
[ ! -e "$prefix/bin" ] || fail "library components installed $(ls "$prefix/bin")"
grep -q "Apache License" "$prefix/share/doc/Zelvanor/LICENSE" || fail "no Apache-2.0 LICENSE"
config=$(find "$prefix" -name ZelvanorConfig.cmake)
pc_file=$(find "$prefix" -name zelvanor.pc)
[ -n "$config" ] && [ -n "$pc_file" ] || fail "ZelvanorConfig.cmake or zelvanor.pc not installed"
# The installed package must stand alone: no path back into the source or build tree.
if grep -rl -e "$source_dir" "$(dirname "$config")" "$pc_file"; then
  fail "installed package files refer to $source_dir"
fi

# Runs a consumer in a data directory whose cookie jar already holds the identity triple, and
# checks its printed next event and the records it tracked into the pending file.
check_run() {
  dir=$work/data-$1
  mkdir -m 700 "$dir"
  for name in cid did sid; do
    printf '127.0.0.1\tFALSE\t/\tTRUE\t4102444800\tfa_%s\t%s-%s\n' "$name" "$name" "$1"
  done >"$dir/cookies.txt"
  output=$("$2" "$dir") || fail "$1 exited with $?"
  for part in "\"$3\"" "\"cid-$1\""; do
    echo "$output" | grep -q "$part" || fail "$1 printed no record with $part: $output"
  done
  for page in $4; do
    grep -aq "\"$page\"" "$dir/ZLogs.tmp" || fail "$1: no record for $page in the pending file"
  done
  echo "ok: $1"
}

# 1. find_package(Zelvanor) with CMAKE_PREFIX_PATH.
"$cmake" -S "$here" -B "$work/cmake-build" $generator -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx"
found=$(sed -n 's/^Zelvanor_DIR:PATH=//p' "$work/cmake-build/CMakeCache.txt")
[ "$found" = "$(dirname "$config")" ] || fail "find_package used $found, not the scratch prefix"
"$cmake" --build "$work/cmake-build"
check_run cmake "$work/cmake-build/consumer" consumer-next "consumer-page consumer-own-event"
check_run cmake-c "$work/cmake-build/consumer_c" consumer-c-page ""

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
case "$flags" in
  *ZELVANOR_STATIC*)
    # shellcheck disable=SC2086
    "$cc" -std=c99 $strict -shared -fPIC -o "$work/libplugin.so" "$here/plugin.c" $flags
    exports_c_api "$work/libplugin.so"
    ;;
esac

# 3. A parent project with the SDK as a shared subproject and an installed export set of its
# own. Only the SDK's library is built besides the parent's two targets, without optimisation.
parent_build=$work/parent-build
"$cmake" -S "$here/parent" -B "$parent_build" $generator -DCMAKE_BUILD_TYPE= \
  -DZELVANOR_SOURCE_DIR="$source_dir" -DBUILD_SHARED_LIBS=ON -DCMAKE_EXPORT_COMPILE_COMMANDS=ON \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
# Warnings are the parent's business: no -Werror on the SDK's sources there.
grep -q "src/api/tracker.cpp" "$parent_build/compile_commands.json" || fail "no SDK compile command"
if grep "src/" "$parent_build/compile_commands.json" | grep -q -- "-Werror"; then
  fail "the SDK's sources build with -Werror under a parent project"
fi
"$cmake" --build "$parent_build"
library=$(find "$parent_build" -name 'libzelvanor.so.*.*.*' | head -n 1)
soname=$(readelf -d "$library" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = "libzelvanor.so.0.9" ] || fail "soname is '$soname', not libzelvanor.so.0.9"
exports_c_api "$library"
check_run parent "$parent_build/parent_app" consumer-next "consumer-page consumer-own-event"
"$cmake" --install "$parent_build" --prefix "$work/parent-prefix" >/dev/null
grep -q "zelvanor::zelvanor" "$(find "$work/parent-prefix" -name ParentTargets.cmake)" ||
  fail "the parent's export set was not installed or does not name zelvanor::zelvanor"
for file in ZelvanorTargets.cmake libzelvanor.so.0.9; do
  [ -n "$(find "$work/parent-prefix" -name "$file")" ] || fail "$file not installed with the parent"
done
echo "consumer: all checks passed"
