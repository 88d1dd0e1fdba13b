#!/bin/sh
# check_port.sh CXX: builds the example of a device's platform, the library and its tool against that,
# and the first program against both, as docs/porting.md says.
set -eu
cxx=$1
tree=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
flags='-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wformat=2 -Werror'

build() { # SOURCE OPTION...
  echo "-- $1"
  source=$tree/$1 folder=$work/build/$1
  shift
  cmake -G Ninja -S "$source" -B "$folder" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_INSTALL_PREFIX="$work/prefix" "$@" >"$work/log" &&
    cmake --build "$folder" >>"$work/log" || { cat "$work/log"; exit 1; }
}

build examples/porting
cmake --install "$work/build/examples/porting" >"$work/log"
build . -DVEXO_PLATFORM=external
cmake --install "$work/build/." >"$work/log"
build tests/package
"$work/build/tests/package/first_program"
"$work/prefix/bin/vexo" --help >"$work/log"
