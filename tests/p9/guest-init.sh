#!/bin/sh
# First and only process of the guest. The kernel hands the paths over in the environment, from its
# command line.
p9d=${p9d:?} arenactl=${arenactl:?} work=${work:?}

finish() {
    echo "p9 guest: $*"
    echo o >/proc/sysrq-trigger
    sleep 60 # the kernel is on its way down; init must not return before
}

export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/run
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t tmpfs tmpfs /run # the one place to write to
modules=/lib/modules/$(uname -r)
[ -d "$modules" ] || modules=/usr/lib/uml/modules/$(uname -r)
echo "p9 guest: Linux $(uname -r)"
for module in fs/netfs/netfs fs/fscache/fscache net/9p/9pnet net/9p/9pnet_fd fs/9p/9p; do
    insmod "$modules/kernel/$module.ko" || finish "cannot load $module"
done

mkdir /run/export /run/m1 /run/m2
"$p9d" -w 2 -u /run/socket -a /run/arena -A "$arenactl" -P /run/pid /run/export 2>/run/log &
until [ -s /run/pid ]; do sleep 0.1; done
for mount in /run/m1 /run/m2; do
    mount -t 9p -o trans=unix,version=9p2000.L,access=user,msize=65536,cache=none /run/socket $mount ||
        finish "cannot mount: $(cat /run/log)"
done
/usr/bin/python3 "$work" /run/m1 /run/m2 /run/export /run/log
status=$?
[ $status -eq 0 ] || cat /run/log
dmesg | grep -iE '9p.*(bug|error)|BUG:|WARNING:' && status=1
umount /run/m1
umount /run/m2
if [ $status -eq 0 ]; then finish passed; fi
finish "not passed, exit status $status"
