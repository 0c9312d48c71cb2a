#!/bin/sh
# Runs the test that needs a kernel with quotas, under user-mode Linux: run.sh <build directory>.
#
# Distributions' kernels have the quota format; those of small virtual machines and containers often
# do not. A user-mode kernel is an ordinary process and needs no rights. The host's root directory is
# its root file system, read-only; what the test writes goes to a tmpfs of the guest.
set -eu
PATH=$PATH:/usr/sbin:/sbin # not everyone's

die() {
    echo "quota test: $*" >&2
    exit 1
}

tests=$(realpath "${1:?which build directory?}")/tests/util/iosched_util_tests
init=$(realpath "$(dirname "$0")")/guest-init.sh
[ -x "$tests" ] || die "$tests is not built"
command -v linux.uml >/dev/null || die 'the package user-mode-linux is missing'
command -v insmod >/dev/null || die 'the package kmod is missing'
command -v mkfs.ext4 >/dev/null || die 'the package e2fsprogs is missing'

# The console is the one way out: the guest's init ends with a line that tells the test's status.
console=$(mktemp)
trap 'rm -f "$console"' EXIT
timeout -k 5 120 linux.uml mem=256M con=null con0=null,fd:1 quiet \
    root=/dev/root rootfstype=hostfs rootflags=/ ro "init=$init" "iosched_tests=$tests" \
    >"$console" 2>&1 </dev/null || true
# The user-mode kernel keeps room for the registers of processors that it knows.
if grep -q 'ptrace set fp regs failed' "$console"; then
    die 'user-mode Linux does not run on this processor; try another machine'
fi
grep -q '^quota guest: passed' "$console" || {
    cat "$console" >&2
    die 'the test did not pass'
}
sed -n '/^quota guest: Linux/,/^quota guest: passed/p' "$console"
