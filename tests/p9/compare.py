#!/usr/bin/env python3
"""p9d beside diod, in one guest, over Unix sockets, in turn: compare.py MOUNT EXPORT."""
import os
import statistics
import subprocess
import sys
import time

mine, export = sys.argv[1:3]
other = "/run/d1"
ROUNDS, MEGABYTES, REQUESTS = 9, 24, 1500
block = os.urandom(65536)


def write(mount):
    with open(mount + "/data", "wb", buffering=0) as file:
        for _ in range(MEGABYTES * 16):
            file.write(block)


def read(mount):
    with open(mount + "/data", "rb", buffering=0) as file:
        while file.read(65536):
            pass


def stat(mount):
    for _ in range(REQUESTS):
        os.stat(mount + "/data")


def small(mount):
    fd = os.open(mount + "/data", os.O_RDONLY)
    for number in range(REQUESTS):
        os.pread(fd, 512, number * 512)
    os.close(fd)


def make(mount):
    for number in range(REQUESTS // 5):
        os.close(os.open("%s/new%d" % (mount, number), os.O_CREAT | os.O_WRONLY, 0o644))
    for number in range(REQUESTS // 5):
        os.unlink("%s/new%d" % (mount, number))


WORK = [  # what, function, what one unit is, how many
    ("write, 64 KiB each", write, "MiB/s", MEGABYTES),
    ("read, 64 KiB each", read, "MiB/s", MEGABYTES),
    ("read, 512 bytes each", small, "calls/s", REQUESTS),
    ("stat", stat, "calls/s", REQUESTS),
    ("create, close, unlink", make, "files/s", REQUESTS // 5),
]

subprocess.Popen(["diod", "-f", "-n", "-l", "/run/d.sock", "-e", export, "-L", "stderr"],
                 stderr=open("/run/diod.log", "w"))
while not os.path.exists("/run/d.sock"):
    time.sleep(0.1)
os.mkdir(other)
subprocess.run(["mount", "-t", "9p", "-o", "trans=unix,version=9p2000.L,aname=%s,access=user,uname=root,"
                "dfltuid=0,msize=65536,cache=none" % export, "/run/d.sock", other], check=True)
taken = {}
for _ in range(ROUNDS):
    for what, function, _, _ in WORK:
        for mount in (mine, other):
            began = time.monotonic()
            function(mount)
            taken.setdefault((what, mount), []).append(time.monotonic() - began)
print("p9 guest: | %-22s | %12s | %12s | ratio |" % ("work", "p9d", "diod"))
for what, _, unit, count in WORK:
    rates = [count / statistics.median(taken[what, mount]) for mount in (mine, other)]
    print("p9 guest: | %-22s | %7.0f %s | %7.0f %s | %.2f |" %
          (what, rates[0], unit, rates[1], unit, rates[0] / rates[1]))
sys.stdout.flush()
subprocess.run(["umount", other], check=True)
