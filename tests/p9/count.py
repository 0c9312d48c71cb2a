#!/usr/bin/env python3
"""One of two guests that count in the same files: count.py MOUNT NAME.

200 times under a lock, and 200 times with the lock's answer ignored."""
import fcntl
import os
import sys
import time

mount, name = sys.argv[1:3]


def meet(stage):
    """Both guests are there before either goes on."""
    open("%s/%s-%s" % (mount, stage, name), "w").close()
    deadline = time.time() + 60
    while not all(os.path.exists("%s/%s-%s" % (mount, stage, other)) for other in ("one", "two")):
        if time.time() > deadline:
            sys.exit("the other guest does not come")
        time.sleep(0.01)


def count(file, honest):
    fd = os.open("%s/%s" % (mount, file), os.O_RDWR | os.O_CREAT, 0o644)
    meet(file)
    for _ in range(200):
        while True:
            try:
                fcntl.lockf(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)
            except BlockingIOError:
                if honest:
                    time.sleep(0.0005)
                    continue
            break
        number = int(os.pread(fd, 20, 0) or b"0") + 1
        os.pwrite(fd, b"%08d" % number, 0)
        fcntl.lockf(fd, fcntl.LOCK_UN)
    os.close(fd)


began = time.time()
count("locked", True)
count("unlocked", False)
print("p9 guest: %s has counted, %.1f s" % (name, time.time() - began), flush=True)
