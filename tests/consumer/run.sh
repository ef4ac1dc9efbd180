#!/bin/sh
# Installs the SDK from a build tree into a scratch prefix, then builds and runs the consumer
# programs against that prefix twice: through find_package and through pkg-config.
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

# Only the library is needed for the install; this is a no-op when it is up to date.
"$cmake" --build "$build_dir" --target zelvanor
"$cmake" --install "$build_dir" --prefix "$prefix"

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
  dir=$(make_data_dir "$label")
  output=$("$program" "$dir") || fail "$label exited with $?"
  echo "$output" | grep -q "\"$next_page\"" || fail "$label printed no record for $next_page: $output"
  echo "$output" | grep -q "\"cid-$label\"" || fail "$label record lacks the identity triple"
  if [ -n "$tracked_page" ]; then
    grep -aq "\"$tracked_page\"" "$dir/ZLogs.tmp" 2>/dev/null ||
      fail "$label: tracked record for $tracked_page not in the pending file"
  fi
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
check_run cmake "$work/cmake-build/consumer" consumer-page consumer-next
check_run cmake-c "$work/cmake-build/consumer_c" "" consumer-c-page

# 2. pkg-config with PKG_CONFIG_PATH; the library is static, hence --static.
PKG_CONFIG_PATH=$(dirname "$pc_file")
export PKG_CONFIG_PATH
flags=$(pkg-config --cflags --static --libs zelvanor) || fail "pkg-config cannot resolve zelvanor"
[ "$(pkg-config --modversion zelvanor)" = "0.9.0" ] || fail "pkg-config version"
# shellcheck disable=SC2086 # the flags are a word list
"$cxx" -std=c++20 -o "$work/pc-consumer" "$here/main.cpp" $flags
# shellcheck disable=SC2086
"$cc" -std=c99 -o "$work/pc-consumer-c" "$here/main.c" $flags
# A shared build has no run path in these binaries.
LD_LIBRARY_PATH=$(pkg-config --variable=libdir zelvanor)${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}
export LD_LIBRARY_PATH
check_run pkgconfig "$work/pc-consumer" consumer-page consumer-next
check_run pkgconfig-c "$work/pc-consumer-c" "" consumer-c-page
