#!/bin/sh
# package.sh FOLDER: builds the Debian packages of this tree, without what git ignores, into FOLDER,
# and tries them in a clean root (try-in-root.sh), which is gone afterwards.
set -eu
cd "$(dirname "$0")/.."
fail() { echo "package.sh: $*" >&2; exit 1; }

version=$(sed -n 's/^ *VERSION \([0-9.]*\)$/\1/p' CMakeLists.txt)
[ -n "$version" ] || fail "no version in CMakeLists.txt"
rm -rf "$1"
mkdir -p "$1/tree"
folder=$(cd "$1" && pwd)

git ls-files -z --cached --others --exclude-standard |
  xargs -0 ls -d 2>/dev/null | tr '\n' '\0' | # what was removed and not committed is listed, too
  xargs -0 cp --parents -t "$folder/tree"
cp -r packaging/debian "$folder/tree"
cat >"$folder/tree/debian/changelog" <<TEXT
vexo-utils ($version) unstable; urgency=medium

  * See CHANGELOG.md.

 -- $(sed -n 's/^Maintainer: //p' packaging/debian/control)  $(git log -1 --format=%cD)
TEXT

echo "-- building"
# Not as someone's compiler or build settings have it.
(cd "$folder/tree" && env -u CXX -u CXXFLAGS -u LDFLAGS DEB_BUILD_OPTIONS="parallel=$(nproc)" \
  dpkg-buildpackage -b -uc -us) >"$folder/build.log" 2>&1 || {
  tail -n 40 "$folder/build.log" >&2
  fail "the build failed: $folder/build.log"
}
rm -rf "$folder/tree"
lintian --allow-root --fail-on error "$folder"/*.changes
(cd "$folder" && ls ./*.deb)

echo "-- in a clean root"
# Debian's part of the machine's own package sources, as apt sees them.
codename=$(. /etc/os-release && echo "$VERSION_CODENAME")
apt-get indextargets --format 'deb $(REPO_URI) $(CODENAME) $(COMPONENT)' \
  'Created-By: Packages' 'Origin: Debian' | sort -u >"$folder/sources.list"
[ -s "$folder/sources.list" ] || fail "apt knows no sources of Debian here: run apt-get update"
for package in "$folder"/*.deb; do
  set -- "$@" --include="$package"
done
shift
TMPDIR=$folder mmdebstrap --variant=apt --format=null --include=cmake,g++,make,pkg-config "$@" \
  --hook-dir=/usr/share/mmdebstrap/hooks/file-mirror-automount \
  --customize-hook=packaging/try-in-root.sh "$codename" - - \
  <"$folder/sources.list" >"$folder/root.log" 2>&1 || {
  tail -n 40 "$folder/root.log" >&2
  fail "no clean root could be made, or the packages fail in it: $folder/root.log"
}
sed -n 's/^try: //p' "$folder/root.log"
