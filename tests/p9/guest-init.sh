#!/bin/sh
# First and only process of the guest. The kernel hands the arguments over in the environment, from its
# command line.
here=${here:?} p9d=${p9d:?} arenactl=${arenactl:?} what=${what:?} port=${port:-} name=${name:-}

finish() {
    echo "p9 guest: $*"
    # At once, whatever still waits for whatever: a guest must not outlive its test.
    echo o >/proc/sysrq-trigger
    sleep 60 # the kernel is on its way down; init must not return before
}

export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/run LC_ALL=C.UTF-8
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t tmpfs tmpfs /run # the one place to write to
cd /run || exit
ip link set lo up
modules=/lib/modules/$(uname -r)
[ -d "$modules" ] || modules=/usr/lib/uml/modules/$(uname -r)
echo "p9 guest: Linux $(uname -r)"
for module in fs/netfs/netfs fs/fscache/fscache net/9p/9pnet net/9p/9pnet_fd fs/9p/9p; do
    insmod "$modules/kernel/$module.ko" || finish "cannot load $module"
done

options=version=9p2000.L,access=user,msize=65536
# join MOUNT FROM OPTION: FROM is a socket or an address.
join() {
    mkdir -p "$1"
    mount -t 9p -o "$options,$3" "$2" "$1" || finish "cannot mount $2: $(cat /run/log)"
}

if [ "$what" = pair ]; then
    ip address add 10.0.2.15/24 dev eth0 # slirp's own network; the host's loopback is 10.0.2.2
    ip link set eth0 up
    join /run/m1 10.0.2.2 "trans=tcp,port=$port,cache=none"
    /usr/bin/python3 "$here/count.py" /run/m1 "$name"
    status=$?
else
    mkdir /run/export
    mount -t ext4 /dev/ubda /run/export || finish 'cannot mount the disk'
    "$p9d" -w 2 -u /run/socket -a /run/arena -A "$arenactl" -P /run/pid /run/export >/run/log 2>&1 &
    until [ -s /run/pid ]; do sleep 0.1; done
    for number in 1 2; do join /run/m$number /run/socket trans=unix,cache=none; done
    case $what in
    test)
        join /run/m3 /run/socket trans=unix,cache=mmap
        /usr/bin/python3 "$here/work.py" /run/m1 /run/m2 /run/m3 /run/export /run/log
        ;;
    long) sh "$here/long.sh" /run/m1 /run/m2 ;;
    bench) /usr/bin/python3 "$here/compare.py" /run/m1 /run/export ;;
    demo) sh "$here/demo.sh" "$arenactl" ;;
    esac
    status=$?
    [ $status -eq 0 ] || cat /run/log
    # One of an arena's own, and so not found by the work: anything wrong with it now?
    "$arenactl" check /run/arena >/run/said || { cat /run/said && status=1; }
fi
dmesg | grep -iE '9p.*(bug|error)|BUG:|WARNING:' && status=1
[ $status -eq 0 ] || finish "not passed, exit status $status"
for mount in /run/m?; do umount "$mount" || finish "cannot unmount $mount"; done
finish passed
