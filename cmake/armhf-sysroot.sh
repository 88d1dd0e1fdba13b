#!/bin/sh
# armhf-sysroot.sh FOLDER: unpacks Debian's own armhf packages of what the library and its tests
# link into FOLDER, without adding an architecture to the machine. Does nothing when they are there.
# The compiler's package brings the C and C++ libraries.
set -eu
packages='libudev1 libudev-dev libcap2 libssl3 libssl-dev libcrypt1 libcrypt-dev libidn2-0 libidn2-dev
  libunistring2 libgtest-dev libgmock-dev googletest nlohmann-json3-dev'

mkdir -p "$1"
folder=$(cd "$1" && pwd)
stamp=$folder/unpacked
[ "$(cat "$stamp" 2>/dev/null)" != "$packages" ] || exit 0
rm -rf "$folder"
mkdir -p "$folder/lists/partial" "$folder/cache/archives/partial" "$folder/debs" "$folder/sources"
: >"$folder/status"

# The machine's own sources, of which the main suite only: it has all of them in one state.
suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
for list in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
  [ -f "$list" ] || continue
  grep -E "^deb +(\[[^]]*\] +)?[^ ]+ +$suite +" "$list" >>"$folder/sources/machine.list" || true
done
for list in /etc/apt/sources.list.d/*.sources; do
  [ -f "$list" ] || continue
  awk -v suite="$suite" 'BEGIN { RS = ""; ORS = "\n\n" } $0 ~ "Suites:[^\n]*" suite "( |\n|$)"' "$list" |
    sed "s/^Suites:.*/Suites: $suite/; /^Architectures:/d" >"$folder/sources/${list##*/}"
done

apt() {
  apt-get -qq -o APT::Architecture=armhf -o APT::Architectures=armhf -o APT::Sandbox::User= \
    -o Dir::Etc::SourceList=/dev/null -o Dir::Etc::SourceParts="$folder/sources" \
    -o Dir::State::Lists="$folder/lists" -o Dir::State::Status="$folder/status" \
    -o Dir::Cache="$folder/cache" -o Acquire::Languages=none "$@"
}
apt update
cd "$folder/debs"
apt download $packages
for package in *.deb; do dpkg-deb -x "$package" "$folder"; done
# One folder with every library that is loaded, for the run path.
mkdir "$folder/run"
cp -a "$folder"/usr/lib/arm-linux-gnueabihf/lib*.so.* "$folder"/lib/arm-linux-gnueabihf/lib*.so.* \
  "$folder/run" 2>/dev/null || true
rm -rf "$folder/debs" "$folder/cache" "$folder/lists"
printf '%s' "$packages" >"$stamp"
