#!/bin/sh
# check.sh LIBRARY PLATFORM-LIBRARY [--accept]: compares what the library exports, what it needs
# loaded, and what it asks of the platform, with the committed list for its processor; and for ARM,
# where abidiff is installed, the layouts of its types with the committed record. --accept renews them.
set -eu
library=$1 platform=$2 accept=${3:-}
here=$(dirname "$0")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

case $(readelf -h "$library") in
  *X86-64*) processor=x86-64 ;;
  *ARM*) processor=arm ;;
  *) echo "check.sh: no list for this processor" && exit 77 ;;
esac

names() { # OPTION LIBRARY: as in C++, without versions
  nm -D -C "$1" "$2" | sed 's/^[0-9a-f]* *//; s/@.*//' | cut -c3- | sort
}
{
  readelf -dW "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/needs     \1/p' | sort
  names --defined-only "$platform" >"$work/given"
  names --undefined-only "$library" | comm -12 - "$work/given" | sed 's/^/asks      /'
  names --defined-only "$library" | sed 's/^/exports   /'
} >"$work/$processor.txt"

record() { abidw --no-show-locs --no-corpus-path --no-comp-dir-path --no-parameter-names "$library"; }

if [ "$accept" = --accept ]; then
  cp "$work/$processor.txt" "$here/"
  [ $processor = arm ] || exit 0
  record >"$work/arm.abi" # not in a pipe, which would hide that it failed
  xz -9e <"$work/arm.abi" >"$here/arm.abi.xz"
  exit
fi

differ=0
diff -u "$here/$processor.txt" "$work/$processor.txt" || differ=1
if [ $processor = arm ] && command -v abidiff >/dev/null; then
  xz -dc "$here/arm.abi.xz" >"$work/arm.abi"
  abidiff --no-show-locs "$work/arm.abi" "$library" || differ=1
fi
[ $differ = 0 ] || echo "If that is meant: ./dev abi --accept, and a line in CHANGELOG.md"
exit $differ
