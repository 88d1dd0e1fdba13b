#!/bin/sh
# demo.sh BUILD FOLDER BOARD [--check | --interactive]: the daemon, and the world around it: the
# person who edits its files, the simulated camera, the collector of crash dumps.
# Runs in a private world (tests/support/in_private_world). FOLDER is shown there as /etc/camera.
set -eu
build=$1 folder=$2 board=$3 mode=${4:-}
here=$(dirname "$0")
daemon=$build/examples/camera_daemon
host=$build/platform/host
conf=/etc/camera
mkdir -p "$folder" "$conf"
mount --bind "$folder" "$conf"

export VEXO_CAMERA_INFO="$host/boards/$board.json"
export SYSTEMD_DEVICE_VERIFY_SYSFS=0 # libudev takes the simulated sensors' plain files for devices
if [ ! -f "$VEXO_CAMERA_INFO" ]; then
  echo "demo.sh: no board $board; there are:" "$host"/boards/*.json >&2
  exit 2
fi
"$host/fake_camera" make

# What a camera's firmware does with a dump: it keeps a copy, since the next start makes room.
mkdir -p /var/crash
cat >/usr/bin/crash-collect <<COLLECTOR
#!/bin/sh
cp -r "\$3" "/var/crash/\$2"
"$here/../../tools/read-crash-dump" -d "$build" "/var/crash/\$2/stack" >"/var/crash/\$2/trace"
COLLECTOR
chmod +x /usr/bin/crash-collect

# Accounts of its own, to which the daemon adds one.
cp /etc/passwd /etc/passwd.own
mv /etc/passwd.own /etc/passwd

# The programs that the library and the daemon call, and the system log.
ln -s "$host/access_daemon" /usr/bin/access_daemon
ln -s "$host/vexo_ipc_cli" /usr/bin/vexo_ipc_cli
busybox syslogd -C16
until busybox logger -t camera "start"; do sleep 0.02; done
until busybox logread 2>/dev/null | grep -q start; do sleep 0.02; done

# Waits until the daemon's status has the line $1; ends it when that does not come within 20 s.
await() {
  tries=0
  until grep -qx "$1" /run/camera_daemon.status 2>/dev/null; do
    tries=$((tries + 1))
    if [ $tries -gt 1000 ]; then
      echo "demo.sh: the daemon did not get to $1" >&2
      kill -TERM "$(cat /run/camera_daemon.pid)" || true
      exit 1
    fi
    sleep 0.02
  done
}

# A person takes a moment between two edits; a test does not.
pause() { [ "$mode" = --check ] || sleep 0.5; }

# The positions that the camera is turned to, and how many attitudes have been told by then. One
# opposite to the last has no shortest way.
case $board in
  3B1B) turns='desk=1 wall0=1 ceiling=2 wall0=2 desk=3' ;;
  3B26 | 3B30 | 3C01 | 7D40) turns='wall0=1 wall3=1 wall6=2 wall3=2 wall0=3' ;;
  *) turns='desk=1 wall0=2 ceiling=3' ;;
esac
turn() {
  for each in $turns; do
    "$host/fake_camera" turn "${each%=*}" 8 25 15
    await attitudes="${each#*=}"
  done
}

# More than the ring of the system log holds, but not before the daemon has read what it would lose.
log() {
  i=0
  while [ $i -lt 300 ]; do
    i=$((i + 1))
    busybox logger -t camera "frame $i, of which the log keeps a line"
    [ $((i % 50)) != 0 ] || await "logged=$i"
  done
}

# A person changes settings; then the time service has synchronised the clock.
configure() {
  network=$conf/network/settings.conf
  pause
  echo 'address = 300.1.2.3' >"$network"
  await settings=1
  echo 'passphrase = correct horse' >"$network"
  await settings=2
  echo 'zone = /usr/share/zoneinfo/Europe/Berlin' >"$network"
  await settings=3
  awk '{ printf "%d\n", $1 * 1000 }' /proc/uptime >/etc/last_timesync_monotonic_ts
}

edit() {
  until [ -f /run/camera_daemon.pid ]; do sleep 0.02; done
  log &
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
  configure
  turn
  await scenes=done
  kill -TERM "$(cat /run/camera_daemon.pid)"
}

if [ "$mode" = --interactive ]; then
  exec "$daemon"
fi
(edit &) # an orphan, so that the daemon has no child that it did not start
exec "$daemon" $mode
