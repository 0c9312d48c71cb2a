#!/bin/sh
# Mounts p9d with the Linux kernel's own client, in user-mode Linux: run.sh <build directory>.
#
# The kernel is an ordinary process that needs no rights. The host's root directory is its root file
# system, read-only; the server runs in the guest, serves a tmpfs there over a Unix socket, and the guest
# mounts it twice, so that two clients meet in its lock table.
set -eu
PATH=$PATH:/usr/sbin:/sbin # not everyone's

die() {
    echo "p9 test: $*" >&2
    exit 1
}

build=$(realpath "${1:?which build directory?}")
here=$(realpath "$(dirname "$0")")
for program in linux.uml insmod python3; do
    command -v $program >/dev/null || die "$program is missing: ./run p9-test installs it"
done

console=$(mktemp)
state=$(mktemp -d)
trap 'rm -rf "$console" "$state"' EXIT
HOME=$state timeout -k 5 180 linux.uml mem=512M con=null con0=null,fd:1 quiet uml_dir="$state" \
    root=/dev/root rootfstype=hostfs rootflags=/ ro "init=$here/guest-init.sh" \
    "p9d=$build/examples/p9d/p9d" "arenactl=$build/tools/arenactl/arenactl" "work=$here/work.py" \
    >"$console" 2>&1 </dev/null || true
# The user-mode kernel keeps room for the registers of processors that it knows.
if grep -q 'ptrace set fp regs failed' "$console"; then
    die 'user-mode Linux does not run on this processor; try another machine'
fi
grep -q '^p9 guest: passed' "$console" || {
    cat "$console" >&2
    die 'the test did not pass'
}
sed -n '/^p9 guest: Linux/,/^p9 guest: passed/p' "$console"
