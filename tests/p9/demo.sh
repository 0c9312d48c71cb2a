#!/bin/sh
# What one sees of a mounted p9d: demo.sh ARENACTL. Runs in the guest, at two mounts of one server.
set -eu
PATH=$(dirname "$1"):$PATH
# show COMMAND: as typed at a shell.
show() {
    echo "p9 guest: \$ $*"
    status=0
    sh -c "$*" >/run/said 2>&1 || status=$?
    sed 's/^/p9 guest: /' /run/said
    [ $status -eq 0 ] || echo "p9 guest: (exit status $status)"
}
cd /run
show "grep ' 9p ' /proc/mounts | cut -c1-100"
show "echo 'hello from the first mount' >m1/letter"
show "cat m2/letter; ls -l m2/letter"
show "mkdir m1/dir && ln -s ../letter m1/dir/link && cat m2/dir/link"
show "df -h m1 | tail -n 1"
flock --no-fork m1/letter sleep 1000 &
holder=$!
sleep 0.5
show "flock -n m2/letter echo mine || echo 'the first mount has the lock'"
show "arenactl locks arena"
worker=$(sed -n 's/^.* p9d\[\([0-9]*\)\] serves a connection$/\1/p' log | head -n 1)
show "kill -9 $worker   # the worker that serves the first mount"
show "flock m2/letter echo 'the lock of its client is free'"
kill $holder
show "tail -n 3 log"
