#!/bin/sh
# demo.sh DAEMON FOLDER [--check | --interactive]: the daemon and the person who edits its files.
# Runs in a private world (tests/support/in_private_world). FOLDER is shown there as /etc/camera.
set -eu
daemon=$1 folder=$2 mode=${3:-}
conf=/etc/camera
mkdir -p "$folder" "$conf"
mount --bind "$folder" "$conf"

# Waits until the daemon's status has the line $1; ends it when that does not come within 20 s.
await() {
  tries=0
  until grep -qx "$1" /run/camera_daemon.status 2>/dev/null; do
    tries=$((tries + 1))
    if [ $tries -gt 1000 ]; then
      echo "demo.sh: the daemon did not get to $1" >&2
      kill -TERM "$(cat /run/camera_daemon.pid)"
      exit 1
    fi
    sleep 0.02
  done
}

# A person takes a moment between two edits; a test does not.
pause() { [ "$mode" = --check ] || sleep 0.5; }

edit() {
  until [ -f /run/camera_daemon.pid ]; do sleep 0.02; done
  pause
  echo 'text = Front door' >"$conf/osd.conf" # written in place
  await changes=1
  pause
  echo 'size = 24' >>"$conf/osd.conf" # appended to
  await changes=2
  pause
  echo 'text = Back yard' >"$conf/.osd.conf.swp" # written beside and renamed over, as editors do
  mv "$conf/.osd.conf.swp" "$conf/osd.conf"
  await changes=3
  pause
  rm "$conf/osd.conf"
  await changes=4
  await scenes=done
  kill -TERM "$(cat /run/camera_daemon.pid)"
}

if [ "$mode" = --interactive ]; then
  exec "$daemon"
fi
(edit &) # an orphan, so that the daemon has no child that it did not start
exec "$daemon" $mode
