#!/bin/sh
# arm_figures.sh BUILD: what the library costs a daemon on ARM: its size without debug information,
# the relocations at load, and what is resident of it in a program with one scheduler. The emulator
# maps an ARM program's files as the kernel would, so that its own map tells.
set -eu
library=$1/vexo_utils/libvexo_utils.so
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

arm-linux-gnueabihf-strip -o "$work/stripped" "$library"
arm-linux-gnueabihf-readelf -rW "$library" >"$work/relocations"

# It has a scheduler as soon as it has a timer, and then runs for a second.
"$1/examples/first_program" >"$work/output" &
program=$!
until ls -l "/proc/$program/fd" 2>/dev/null | grep -q timerfd; do
  kill -0 $program || exit 1
  sleep 0.02
done
cp "/proc/$program/smaps" "$work/smaps"
wait $program

row() { printf '%-46s %6d %s\n' "$@"; }
row "the library, stripped" $(($(stat -c %s "$work/stripped") / 1024)) KiB
row "relocations at load" "$(grep -c R_ARM "$work/relocations")" ""
row "  of them by a symbol's name" "$(grep R_ARM "$work/relocations" | grep -vc RELATIVE)" ""
row "libraries that are loaded with it" "$(readelf -dW "$library" | grep -c NEEDED)" ""
resident() { # FIELD of smaps
  awk -v field="$1:" '/^[0-9a-f]+-[0-9a-f]+ / { ours = /libvexo_utils/ } ours && $1 == field { n += $2 } END { print n }' \
    "$work/smaps"
}
row "resident of it in a daemon with one scheduler" "$(resident Rss)" KiB
row "  of that private to the daemon" "$(resident Anonymous)" KiB
