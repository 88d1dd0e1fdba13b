#!/bin/sh
# check.sh BUILD EXPECTED COMMAND: runs an example by a command of the shell, on a board with a
# simulated sensor. Fails when the command does, or when no line of what it prints matches EXPECTED.
build=$1 expected=$2 command=$3
export PATH="$build/examples:$build/platform/host:$PATH"
export VEXO_CAMERA_INFO="$build/platform/host/boards/3B24.json"
export SYSTEMD_DEVICE_VERIFY_SYSFS=0 # libudev takes the sensor's plain files for a device

cd /tmp || exit 1
sh -c "$command" >out
status=$?
cat out
[ $status = 0 ] && grep -Eq -- "$expected" out
