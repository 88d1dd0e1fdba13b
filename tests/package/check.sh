#!/bin/sh
# check.sh BUILD-FOLDER CXX CXXFLAGS [EMULATOR]: installs the library and builds and runs the first
# program against the installation, once by find_package and once by pkg-config.
set -eu
build=$1 cxx=$2 flags=$3 emulator=${4:-}
here=$(dirname "$0")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >"$work/log" || { cat "$work/log"; exit 1; }

echo "-- find_package"
cmake -G Ninja -S "$here" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" >"$work/log" &&
  cmake --build "$work/consumer" >>"$work/log" || { cat "$work/log"; exit 1; }
$emulator "$work/consumer/first_program"

echo "-- pkg-config"
PKG_CONFIG_PATH=$(dirname "$(find "$work/prefix" -name vexo_utils.pc)")
export PKG_CONFIG_PATH
libdir=$(pkg-config --variable=libdir vexo_utils)
# shellcheck disable=SC2046,SC2086  # lists of words
"$cxx" -std=c++17 $flags "$here/../../examples/first_program/main.cpp" -o "$work/program" \
  $(pkg-config --cflags --libs vexo_utils) "-Wl,-rpath,$libdir"
$emulator "$work/program"

echo "-- every header is complete by itself"
for header in "$work"/prefix/include/vexo_utils/*.h; do
  printf '#include <vexo_utils/%s>\nstatic_assert(_FILE_OFFSET_BITS == 64);\n' "$(basename "$header")" |
    "$cxx" -std=c++17 -Wall -Wextra -Werror -x c++ -fsyntax-only $(pkg-config --cflags vexo_utils) -
done
