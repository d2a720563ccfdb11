#!/bin/sh
# Runs one test program in private network, mount and process namespaces, so that the agent's fixed
# places (TCP port 31334, /tmp/RAVEL_tmp, the data root under /usr/local, the process list it
# reads) are the test's own: loopback is up, /tmp is a fresh tmpfs, /usr is overlaid by a layer in
# that tmpfs (no file or mode under /usr changes on the machine), and only the test's processes
# are listed. /dev/shm is a fresh tmpfs too: libfaketime names its shared clock by process id, and
# process ids restart at 1 in every namespace, so runs would otherwise meet each other's clocks
# (and leave them behind on the machine). An agent live on the machine and other tests are not seen. Every process the test
# leaves is killed when it ends or is killed.
# Usage: isolated.sh FOLDER... -- PROGRAM [ARG...]
#   FOLDERs (the source and build trees) stay reachable at their paths even under /tmp.
# Exits with the program's status; fails without running it when a namespace cannot be made.
# Sets RAVEL_TEST_ISOLATED=1 for the program.
exec unshare --net --mount --pid --kill-child --mount-proc --propagation private sh -c '
  set -e
  ip link set lo up
  tops=""
  while [ "$1" != "--" ]; do # the first level under /tmp of each folder to keep
    case $(realpath "$1") in /tmp/?*) tops="$tops $(realpath "$1" | cut -d/ -f3)" ;; esac
    shift
  done
  shift
  here=$PWD
  cd /tmp # the machine'"'"'s /tmp stays reachable as "." once covered
  mount -t tmpfs -o mode=1777 ravel-test-tmp /tmp
  mount -t tmpfs -o mode=1777 ravel-test-shm /dev/shm
  for top in $tops; do
    if ! mountpoint -q "/tmp/$top"; then
      mkdir "/tmp/$top"
      mount --no-canonicalize --bind "./$top" "/tmp/$top"
    fi
  done
  mkdir /tmp/.usr-upper /tmp/.usr-work
  mount -t overlay ravel-test-usr \
    -o lowerdir=/usr,upperdir=/tmp/.usr-upper,workdir=/tmp/.usr-work /usr
  cd "$here"
  RAVEL_TEST_ISOLATED=1 exec "$@"' isolated "$@"
