#!/bin/sh
# Programs that nobody here wrote, on a mount: long.sh MOUNT1 MOUNT2. Runs in the guest.
set -eu
first=$1
second=$2
source=$(realpath "$(dirname "$0")/../..")
failed=

# part NAME FUNCTION [ARGUMENT]: goes on whatever comes of it. What is asked for its status is not ended
# by a failing command, whatever -e says: so the functions chain theirs.
part() {
    name=$1
    shift
    began=$(date +%s)
    if "$@" >/run/said 2>&1; then
        echo "p9 guest: $name: ok, $(($(date +%s) - began)) s"
    else
        echo "p9 guest: $name: exit status $?"
        tail -n 8 /run/said
        failed="$failed $name"
    fi
}

export GIT_CONFIG_GLOBAL=/run/gitconfig GIT_CONFIG_NOSYSTEM=1
git config --global user.email guest@example.net
git config --global user.name guest
git config --global --add safe.directory '*'

clone() { git clone -q --no-local "file://$source" "$first/clone"; }
commit() {
    cd "$first/clone" &&
        echo more >>README.md &&
        git commit -qam more &&
        git gc -q &&
        git fsck --full &&
        test -z "$(git status --porcelain)" &&
        cd "$second/clone" &&
        git log -1 --format=%s | grep -qx more
}
compile() {
    mkdir "$first/objects" && cd "$first/objects" || return
    for file in "$source"/src/util/*.cpp; do
        g++ -std=c++20 -O1 -I"$source/include" -I"$source/src" -c "$file" || return
    done
    printf '#include <iosched/util.h>\nint main(void) { char a[4]; return (int)strlcpy(a, "ab", 4) - 2; }\n' >a.c &&
        ar rc libutil.a ./*.o &&
        gcc -I"$source/include" a.c libutil.a -lstdc++ -o a.out &&
        "$second/objects/a.out"
}
stress() {
    mkdir -p "$first/stress" &&
        stress-ng --temp-path "$first/stress" --verify --timeout 8 --oomable --"$1" 2 &&
        ! grep -q 'fail:' /run/said
}

part 'git clone' clone
part 'git commit, gc, fsck' commit
part 'a build with g++ and gcc' compile
for stressor in hdd dir dirdeep dentry filename file-ioctl fstat getdent lockf flock rename link \
    symlink xattr chmod utime readahead seek sync-file; do
    part "stress-ng $stressor" stress $stressor
done
[ -z "$failed" ] || { echo "failed:$failed" && exit 1; }
