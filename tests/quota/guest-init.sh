#!/bin/sh
# First and only process of the quota test's guest. The kernel hands the test program's path over in
# the environment, from its command line.
iosched_tests=${iosched_tests:?}

finish() {
    echo "quota guest: $*"
    echo o >/proc/sysrq-trigger
    sleep 60 # the kernel is on its way down; init must not return before
}

export PATH=/usr/sbin:/usr/bin:/sbin:/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t tmpfs tmpfs /run # the one place to write to; /tmp may hold the build tree
modules=/lib/modules/$(uname -r)
[ -d "$modules" ] || modules=/usr/lib/uml/modules/$(uname -r)
echo "quota guest: Linux $(uname -r)"
for module in drivers/block/loop fs/quota/quota_tree fs/quota/quota_v2; do
    insmod "$modules/kernel/$module.ko" || finish "cannot load $module"
done

log=/run/log
TEST_TMPDIR=/run/ "$iosched_tests" --gtest_filter='RealQuota.*' >$log 2>&1
status=$?
cat $log
# A test that was skipped, or is not there any more, shows nothing.
if [ $status -eq 0 ] && grep -q '^\[  PASSED  \] [1-9]' $log; then finish passed; fi
finish "not passed, exit status $status"
