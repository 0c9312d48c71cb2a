#!/bin/sh
# Mounts p9d with the Linux kernel's own client, in user-mode Linux.
#
#   run.sh <build directory> [test | long | bench | demo]
#
# The kernel is an ordinary process that needs no rights. The host's root directory is its root file
# system, read-only. But for the two guests of the test, the server runs in the guest too: it serves an
# ext4 from a scratch file over a Unix socket, and the guest mounts it twice, so that two clients meet
# in its lock table. Exit status 3: this machine cannot run such a kernel.
set -eu
PATH=$PATH:/usr/sbin:/sbin # not everyone's

die() {
    echo "p9: $*" >&2
    exit 1
}

build=$(realpath "${1:?which build directory?}")
what=${2:-test}
here=$(realpath "$(dirname "$0")")
p9d=$build/examples/p9d/p9d
arenactl=$build/tools/arenactl/arenactl
for program in linux.uml insmod mkfs.ext4 python3 "$p9d" "$arenactl"; do
    command -v "$program" >/dev/null || die "$program is missing: ./run p9-test installs and builds it"
done

scratch=$(mktemp -d "${TMPDIR:-/tmp}/iosched-p9.XXXXXX")
pids=
stop() {
    # shellcheck disable=SC2086  # a list of process ids
    [ -z "$pids" ] || kill $pids 2>/dev/null || :
    for guest in "$scratch"/*.pid; do
        # timeout(1), which ends its guest
        [ ! -s "$guest" ] || kill "$(cat "$guest")" 2>/dev/null || :
    done
    wait
    rm -rf "$scratch"
}
trap stop EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# boot NAME SECONDS [kernel arguments]: a guest that ends by itself; what it says stands in $scratch/NAME.
boot() {
    name=$1
    limit=$2
    shift 2
    mkdir "$scratch/$name.state"
    HOME=$scratch/$name.state timeout -k 5 "$limit" linux.uml con=null con0=null,fd:1 quiet \
        uml_dir="$scratch/$name.state" root=/dev/root rootfstype=hostfs rootflags=/ ro \
        "init=$here/guest-init.sh" "here=$here" "p9d=$p9d" "arenactl=$arenactl" "$@" \
        >"$scratch/$name" 2>&1 </dev/null &
    echo $! >"$scratch/$name.pid"
    wait $! || :
    rm "$scratch/$name.pid"
}

# verdict NAME: shows what the guest said, and fails unless it passed.
verdict() {
    # The user-mode kernel keeps room for the registers of processors that it knows.
    if grep -q 'ptrace set fp regs failed' "$scratch/$1"; then
        echo 'p9: skipped: user-mode Linux does not run on this processor; try another machine' >&2
        exit 3
    fi
    grep -q '^p9 guest: passed' "$scratch/$1" || {
        cat "$scratch/$1" >&2
        die 'the guest did not pass'
    }
    sed -n 's/^p9 guest: //p' "$scratch/$1"
}

# Server and both mounts in one guest. single MEGABYTES SECONDS MEMORY
single() {
    truncate -s "$1M" "$scratch/disk"
    mkfs.ext4 -q -F "$scratch/disk"
    boot guest "$2" "mem=$3" "ubd0=$scratch/disk" "what=$what"
    verdict guest
}

# Two guests and one server on the host: two kernels that know of each other only through it.
pair() {
    mkdir "$scratch/export"
    "$p9d" -w 2 -l 0 -a "$scratch/arena" -A "$arenactl" -P "$scratch/ready" "$scratch/export" \
        >"$scratch/log" 2>&1 &
    server=$!
    pids=$server
    until [ -s "$scratch/ready" ]; do
        kill -0 $server 2>/dev/null || die "the server does not start: $(cat "$scratch/log")"
        sleep 0.1
    done
    port=$(cut -d' ' -f2 "$scratch/ready")
    for name in one two; do
        boot $name 90 mem=128M eth0=slirp,,/usr/bin/slirp-fullbolt what=pair "port=$port" "name=$name" &
        pids="$pids $!"
    done
    # shellcheck disable=SC2086  # the two guests
    wait ${pids#* }
    pids=$server
    verdict one
    verdict two
    kill $server
    wait $server || die "the server ended with $?: $(cat "$scratch/log")"
    pids=
    locked=$(cat "$scratch/export/locked")
    unlocked=$(cat "$scratch/export/unlocked")
    echo "400 increments of two guests: $locked under the lock, $unlocked with its answer ignored"
    [ "$locked" = 00000400 ] || die 'an increment under the lock was lost'
    # The same work without the lock loses some: so the sum above tells something.
    [ "$unlocked" != 00000400 ] || die 'nothing is lost without the lock either'
}

case $what in
test)
    single 256 150 512M
    pair
    ;;
long) single 2048 1500 1024M ;;
bench) single 512 400 768M ;;
demo) single 64 90 256M ;;
*) die "no '$what' here: test, long, bench or demo" ;;
esac
