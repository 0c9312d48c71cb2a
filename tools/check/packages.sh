#!/bin/sh
# Builds the packages from their source in bare roots of Debian releases, installs them there with apt,
# builds programs on them in each way that users have, and purges them: nothing may be left.
#
#   tools/check/packages.sh DIRECTORY [SUITE...]
#
# DIRECTORY has the source package (./run package); the suites are bookworm and trixie unless told
# otherwise. Needs root and the machine's own Debian mirror.
set -eu
out=$(cd "$1" && pwd)
shift
[ $# -gt 0 ] || set -- bookworm trixie
here=$(cd "$(dirname "$0")/../.." && pwd)
scratch=$(mktemp -d "${TMPDIR:-/tmp}/iosched-packages.XXXXXX")
trap 'rm -rf "$scratch"' EXIT

for suite in "$@"; do
    root=$scratch/$suite
    mmdebstrap --quiet --variant=apt \
        --include=build-essential,dpkg-dev,pkgconf,cmake,ninja-build,meson,man-db,debhelper,python3 \
        "$suite" "$root" 2>"$scratch/log" || {
        tail "$scratch/log" >&2
        exit 1
    }
    mkdir "$root/try"
    cp "$out"/iosched_*.dsc "$out"/iosched_*.tar.xz "$root/try/"
    cp "$here"/tests/install/consumer/* "$root/try/"
    sed 's/^@.*//; s/#.*//; /^$/d' "$here/src/exports.list" >"$root/try/names"
    # What is documented: all but the stubs that nobody is meant to call, and the option parser's data.
    grep '^[A-Za-z]' "$here/src/exports.list" |
        grep -vxE 'pause|sleep|usleep|popen|pclose|ZORopt.*|iosched_version' >"$root/try/names"
    cat >"$root/try/meson.build" <<'MESON'
project('consumer', 'c')
executable('on_meson', 'consumer.c', dependencies: dependency('iosched', version: '>=7.1'))
MESON
    cat >"$root/try/try.sh" <<'TRY'
set -eu
cd /try
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
dpkg-source -x iosched_*.dsc source >/dev/null 2>&1
(cd source && dpkg-buildpackage -us -uc -b >../build.log 2>&1) || { tail -n 30 build.log >&2; exit 1; }
rm -rf source
rm -f ./*dbgsym*
find / -xdev -not -path '/try*' -not -path '/proc*' -not -path '/var/*' -not -path '/tmp*' | sort >before
apt-get install -y -qq ./*.deb >install.log 2>&1 || { tail install.log >&2; exit 1; }
[ -z "$(pkg-config --cflags iosched)" ]
[ "$(pkg-config --libs iosched | xargs)" = -liosched ]
cc -o on_cc consumer.c $(pkg-config --cflags --libs iosched)
cc -static -o on_static consumer.c $(pkg-config --static --cflags --libs iosched)
cmake -B cmake . >/dev/null && cmake --build cmake >/dev/null && (cd cmake && ctest >/dev/null)
meson setup meson >/dev/null && ninja -C meson >/dev/null
for program in ./on_cc ./on_static ./cmake/on_iosched ./meson/on_meson; do $program >/dev/null; done
arenactl --help >/dev/null
xargs man -w <names >/dev/null
man -w iosched arenactl iosched-sched iosched-procs iosched-aio iosched-shared iosched-util >/dev/null
apt-get purge -y -qq libiosched7 libiosched-dev iosched-tools libiosched-doc >purge.log 2>&1
find / -xdev -not -path '/try*' -not -path '/proc*' -not -path '/var/*' -not -path '/tmp*' | sort >after
diff before after
TRY
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root chroot "$root" sh /try/try.sh
    echo "$suite: built, installed, used and purged"
done
