#!/usr/bin/env python3
"""What mounts of one server must agree on: work.py MOUNT1 MOUNT2 CACHED EXPORT LOG."""
import errno
import fcntl
import filecmp
import mmap
import os
import random
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import time

first, second, cached, export, log = sys.argv[1:6]
READ, WRITE, UNLOCK = fcntl.F_RDLCK, fcntl.F_WRLCK, fcntl.F_UNLCK
began = time.time()


def said(what):
    print("p9 guest: %s, %.1f s" % (what, time.time() - began), flush=True)


def lock(fd, kind, start, length):
    """0, or the errno: fcntl's way of asking without waiting."""
    try:
        fcntl.lockf(fd, {READ: fcntl.LOCK_SH, WRITE: fcntl.LOCK_EX, UNLOCK: fcntl.LOCK_UN}[kind] |
                    (0 if kind == UNLOCK else fcntl.LOCK_NB), length, start)
        return 0
    except OSError as failure:
        return failure.errno


def expect(wanted, got, what):
    if wanted != got:
        sys.exit("%s: %r, not %r" % (what, got, wanted))


def opened(mount, name="locked"):
    return os.open(os.path.join(mount, name), os.O_RDWR | os.O_CREAT, 0o644)


def byte_ranges():
    a, b = opened(first), opened(second)
    steps = [  # who, kind, start, length, what comes of it
        (a, WRITE, 0, 100, 0), (b, WRITE, 50, 10, errno.EAGAIN), (b, READ, 99, 1, errno.EAGAIN),
        (b, WRITE, 100, 100, 0), (a, READ, 0, 0, errno.EAGAIN),
        (a, UNLOCK, 40, 20, 0), (b, WRITE, 40, 20, 0), (b, WRITE, 39, 1, errno.EAGAIN),
        (b, WRITE, 60, 1, errno.EAGAIN), (a, READ, 45, 1, errno.EAGAIN), (b, UNLOCK, 40, 20, 0),
        (a, READ, 20, 10, 0), (b, READ, 20, 10, 0), (b, READ, 19, 1, errno.EAGAIN),
        (b, READ, 30, 1, errno.EAGAIN), (a, WRITE, 20, 10, errno.EAGAIN), (b, UNLOCK, 20, 10, 0),
        (a, WRITE, 20, 10, 0), (b, READ, 25, 1, errno.EAGAIN),
    ]
    for number, (fd, kind, start, length, wanted) in enumerate(steps):
        expect(wanted, lock(fd, kind, start, length), "step %d" % number)
    # Who is in the way, and where: struct flock is type, whence, start, length, pid.
    import struct
    asked = struct.pack("hhqqi4x", READ, 0, 0, 10, 0)
    kind, _, start, length, _ = struct.unpack("hhqqi4x", fcntl.fcntl(b, fcntl.F_GETLK, asked))
    expect((WRITE, 0, 20), (kind, start, length), "F_GETLK")
    os.close(a)  # releases all of the process's locks on the file
    expect(0, lock(b, WRITE, 0, 0), "after the close")
    expect(0, lock(b, UNLOCK, 0, 0), "unlocking")
    child = os.fork()
    if child == 0:
        fd = opened(first)
        lock(fd, WRITE, 0, 0)
        os.kill(os.getpid(), signal.SIGKILL)
    os.waitpid(child, 0)
    expect(0, lock(b, WRITE, 0, 0), "after the holder's death")
    os.close(b)
    said("byte ranges over two mounts")


def random_locks():
    a, b, model = opened(first), opened(second), [UNLOCK] * 64
    choice = random.Random(5)
    for step in range(200):
        start = choice.randrange(64)
        length = 1 + choice.randrange(64 - start)
        kind = choice.choice([READ, WRITE, UNLOCK])
        expect(0, lock(a, kind, start, length), "own lock %d" % step)
        model[start:start + length] = [kind] * length
        at = choice.randrange(64)
        expect(model[at] != WRITE, lock(b, READ, at, 1) == 0, "reading at %d in step %d" % (at, step))
        expect(model[at] == UNLOCK, lock(b, WRITE, at, 1) == 0, "writing at %d in step %d" % (at, step))
        lock(b, UNLOCK, 0, 0)
    os.close(a)
    os.close(b)
    said("200 random locks against a model")


def counters():
    with open(os.path.join(first, "counter"), "w") as file:
        file.write("0")
    children = []
    for mount in (first, second, first, second):
        child = os.fork()
        if child == 0:
            fd = opened(mount, "counter")
            for _ in range(40):
                while lock(fd, WRITE, 0, 0) != 0:
                    time.sleep(0.0005)
                value = int(os.pread(fd, 20, 0)) + 1
                os.pwrite(fd, b"%d" % value, 0)
                lock(fd, UNLOCK, 0, 0)
            os._exit(0)
        children.append(child)
    for child in children:
        expect(0, os.waitpid(child, 0)[1], "a counting process")
    expect(160, int(open(os.path.join(second, "counter")).read()), "the counter")
    said("a counter by four processes")


def trees():
    source = os.path.join(os.path.dirname(os.path.realpath(__file__)), "../../src")
    tree = os.path.join(first, "tree")
    shutil.copytree(source, tree, symlinks=True)
    different = filecmp.dircmp(source, os.path.join(second, "tree"))
    todo = [different]
    while todo:
        part = todo.pop()
        expect(([], [], []), (part.left_only, part.right_only, part.diff_files), "the copied tree")
        todo += part.subdirs.values()
    os.rename(tree, tree + "2")
    os.symlink("tree2", tree)
    expect("tree2", os.readlink(os.path.join(second, "tree")), "a link")
    os.setxattr(os.path.join(first, "counter"), "user.colour", b"blue")
    expect(b"blue", os.getxattr(os.path.join(second, "counter"), "user.colour"), "an attribute")
    expect(["user.colour"], os.listxattr(os.path.join(second, "counter")), "the attributes")
    os.removexattr(os.path.join(first, "counter"), "user.colour")
    expect([], os.listxattr(os.path.join(second, "counter")), "the attributes left")
    shutil.rmtree(tree + "2")
    os.unlink(tree)
    said("a tree copied, compared, renamed and removed")


def databases():
    children = []
    for mount in (first, second):
        child = os.fork()
        if child == 0:
            base = sqlite3.connect(os.path.join(mount, "base"), timeout=60, isolation_level=None)
            base.execute("create table if not exists t(x)")
            for number in range(1, 11):
                base.execute("insert into t values(?)", (number,))
            os._exit(0)
        children.append(child)
    for child in children:
        expect(0, os.waitpid(child, 0)[1], "a writer of the database")
    base = sqlite3.connect(os.path.join(first, "base"))
    expect([(20, 110)], list(base.execute("select count(*), sum(x) from t")), "the rows")
    expect([("ok",)], list(base.execute("pragma integrity_check")), "integrity")
    said("a database with two writers")


def programs():
    """Programs that nobody here wrote."""
    for command in (
        ["fs_mark", "-d", first + "/marks", "-n", "40", "-s", "1000", "-t", "2", "-l", "/run/marks.log"],
        ["fio", "--name=blocks", "--directory=" + first, "--size=2M", "--bs=4k", "--rw=randwrite", "--thread",
         "--ioengine=psync", "--verify=crc32c", "--verify_fatal=1", "--verify_state_save=0"],
    ):
        answer = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, cwd="/run")
        if answer.returncode != 0:
            sys.exit("%s: %s" % (command[0], answer.stdout.decode()))
    # What fio wrote by one mount stands there for the other.
    expect(open(first + "/blocks.0.0", "rb").read(), open(second + "/blocks.0.0", "rb").read(), "fio's file")
    said("fs_mark, and fio's random writes verified")


def other_things():
    path = os.path.join(cached, "mapped")  # without a cache there are no shared mappings
    with open(path, "wb") as file:
        file.write(os.urandom(100000))
    with open(path, "r+b") as file:
        view = mmap.mmap(file.fileno(), 0)
        view[0:4] = b"mmap"
        view.flush()
        view.close()
    expect(b"mmap", open(os.path.join(second, "mapped"), "rb").read(4), "a shared mapping")
    expect(os.statvfs(export).f_blocks, os.statvfs(first).f_blocks, "blocks")
    # As another user, whose permissions the server has the kernel check.
    os.mkdir(os.path.join(first, "private"), 0o700)
    child = os.fork()
    if child == 0:
        os.setgid(1000)
        os.setuid(1000)
        try:
            os.listdir(os.path.join(first, "private"))
            os._exit(1)
        except PermissionError:
            os._exit(0)
    expect(0, os.waitpid(child, 0)[1], "another user's look")
    said("mappings, figures and users")


def a_killed_worker():
    """The other mount gets the lock of a client whose worker dies, within a second."""
    a, b = opened(first), opened(second)
    expect(0, lock(a, WRITE, 0, 0), "the first lock")
    expect(errno.EAGAIN, lock(b, WRITE, 0, 0), "the second, while it is held")
    workers = re.findall(r"p9d\[(\d+)\] serves a connection", open(log).read())
    expect(2, len(set(workers)), "workers that serve")
    os.kill(int(workers[0]), signal.SIGKILL)  # of the first mount
    killed = time.time()
    while lock(b, WRITE, 0, 0) != 0:
        if time.time() - killed > 5:
            sys.exit("the lock of a dead worker's client is still held")
        time.sleep(0.002)
    said("a killed worker's lock taken over in %d ms" % ((time.time() - killed) * 1000))
    expect(b"1", os.pread(opened(second, "counter"), 1, 0), "the other mount goes on")


for part in (byte_ranges, random_locks, counters, trees, databases, programs, other_things,
             a_killed_worker):
    part()
