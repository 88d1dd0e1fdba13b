#!/bin/sh
# try-in-root.sh ROOT: does in a clean root what users of the packages do.
set -eu
root=$1
cd "$(dirname "$0")/.."
mkdir "$root/root/tree"
cp -r --parents README.md examples/first_program tests/package "$root/root/tree"

# Not with the builder's environment, which a user's machine does not have.
chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root sh -eu <<'TEXT'
cd /root/tree
fail() { echo "try-in-root.sh: $*" >&2; exit 1; }
ticks() { [ "$("$@" | grep -c '^tick [123] after')" = 3 ] || fail "$* does not tick"; }

awk '/^```/ { if (program) exit; program = /^```cpp/; next } program' README.md >first.cpp
c++ -std=c++17 first.cpp -o first $(pkg-config --cflags --libs vexo_utils)
ticks ./first
echo "try: README's first program, by pkg-config"

cmake -S tests/package -B consumer >/dev/null
cmake --build consumer >/dev/null
ticks consumer/first_program
echo "try: the same, by find_package"

library=$(ls /usr/lib/*/libvexo_utils.so.1)
depends=$(dpkg-query -W -f '${Depends}' libvexo-utils1)
for soname in $(grep -aoE 'lib[a-z0-9]+\.so\.[0-9]+' "$library" | sort -u); do
  package=$(dpkg -S "*/$soname" | sed 's/:.*//' | sort -u)
  case ", $depends," in
    *", $package "* | *", $package,"*) ;;
    *) fail "libvexo-utils1 does not depend on $package, which has $soname" ;;
  esac
done
echo "try: every library that is loaded is in Depends"

vexo --help >/dev/null
echo "try: vexo --help"
TEXT
