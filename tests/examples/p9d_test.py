#!/usr/bin/env python3
"""p9d as its clients see it: p9d_test.py P9D ARENACTL.

A client of the protocol's own words, on two connections that two workers serve, and the clients diodls
and diodcat where they are installed.
"""
import errno
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

p9d, arenactl = sys.argv[1:3]
scratch = tempfile.mkdtemp(prefix="iosched-p9d.")
export, path, log = (os.path.join(scratch, name) for name in ("export", "socket", "log"))
READ, WRITE, UNLOCK = 0, 1, 2
GRANTED, BLOCKED = 0, 1


def string(text):
    raw = text.encode()
    return struct.pack("<H", len(raw)) + raw


class Client:
    def __init__(self, uid=0):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(30)
        self.socket.connect(path)
        self.ask(100, struct.pack("<I", 65536) + string("9P2000.L"))
        self.ask(104, struct.pack("<II", 1, 0xffffffff) + string("") + string("") + struct.pack("<I", uid))

    def send(self, kind, body):
        self.socket.sendall(struct.pack("<IBH", 7 + len(body), kind, 1) + body)

    def ask(self, kind, body):
        """The answer's fields; an errno instead of them for Rlerror."""
        self.send(kind, body)
        size, answer, _ = struct.unpack("<IBH", self.exactly(7))
        rest = self.exactly(size - 7)
        if answer == 7:
            return struct.unpack("<I", rest)[0]
        assert answer == kind + 1, (kind, answer)
        return rest

    def exactly(self, count):
        got = b""
        while len(got) < count:
            piece = self.socket.recv(count - len(got))
            if not piece:
                raise EOFError
            got += piece
        return got

    def walk(self, to, *names, fid=1):
        return self.ask(110, struct.pack("<IIH", fid, to, len(names)) + b"".join(map(string, names)))

    def open(self, fid, flags=os.O_RDWR):
        return self.ask(12, struct.pack("<II", fid, flags))

    def create(self, fid, name, flags=os.O_RDWR, mode=0o644):
        self.walk(fid)
        return self.ask(14, struct.pack("<I", fid) + string(name) + struct.pack("<III", flags, mode, 0))

    def read(self, fid, offset=0, count=4096):
        answer = self.ask(116, struct.pack("<IQI", fid, offset, count))
        return answer if isinstance(answer, int) else answer[4:]

    def write(self, fid, data, offset=0):
        return self.ask(118, struct.pack("<IQI", fid, offset, len(data)) + data)

    def clunk(self, fid):
        return self.ask(120, struct.pack("<I", fid))

    def lock(self, fid, kind, start, length, process=7):
        body = struct.pack("<IBIQQI", fid, kind, 0, start, length, process) + string("host")
        answer = self.ask(52, body)
        return answer[0] if isinstance(answer, bytes) else answer

    def getlock(self, fid, kind, start, length, process=7):
        answer = self.ask(54, struct.pack("<IBQQI", fid, kind, start, length, process) + string("host"))
        return struct.unpack("<BQQI", answer[:21])


def expect(wanted, got, what):
    if wanted != got:
        sys.exit("p9d_test.py: %s: %r, not %r\n%s" % (what, got, wanted, open(log).read()))


def names_stay_inside():
    a = Client()
    for name in ("..", ".", "", "sub/inner", "/etc", "x" * 300):
        wanted = errno.ENAMETOOLONG if len(name) > 255 else errno.EINVAL
        expect(wanted, a.walk(2, name), "walking to %r" % name[:20])
    expect(errno.EINVAL, a.create(3, "../out"), "creating outside")
    a.clunk(3)
    os.symlink("/etc", os.path.join(export, "out"))
    expect(13, len(a.walk(4, "out")) - 2, "a link is a file of its own")
    expect(errno.ELOOP, a.open(4, os.O_RDONLY), "opening it")
    expect(13, len(a.walk(5, "out", "passwd")) - 2, "a walk through it gets as far as the link")
    expect(errno.EBADF, a.clunk(5), "and makes no fid")
    os.mkfifo(os.path.join(export, "pipe"))
    a.walk(6, "pipe")
    expect(errno.EOPNOTSUPP, a.open(6, os.O_RDONLY), "opening a pipe")


def files_and_names():
    a, b = Client(), Client()
    a.create(10, "one")
    expect(struct.pack("<I", 5), a.write(10, b"hello"), "writing")
    b.walk(11, "one")
    b.open(11, os.O_RDONLY)
    expect(b"hello", b.read(11), "the other's read")
    expect(errno.EBADF, b.write(11, b"x"), "writing what is open for reading")
    expect(b"", a.ask(20, struct.pack("<II", 10, 1) + string("two")), "Trename")
    expect(["two"], [n for n in os.listdir(export) if n in ("one", "two")], "the new name")
    expect(b"", a.ask(26, struct.pack("<IIIIIQQQQQ", 10, 0x9, 0o600, 0, 0, 3, 0, 0, 0, 0)), "setattr")
    expect((3, 0o100600), (lambda s: (s.st_size, s.st_mode))(os.stat(os.path.join(export, "two"))), "it")
    a.walk(12, "two")
    expect(b"", a.ask(32, struct.pack("<I", 12) + string("user.a") + struct.pack("<QI", 4, 0)), "xattr")
    a.write(12, b"blue")
    expect(b"", a.clunk(12), "its value")
    a.walk(13, "two")
    expect(struct.pack("<Q", 4), a.ask(30, struct.pack("<II", 13, 14) + string("user.a")), "xattrwalk")
    expect(b"blue", a.read(14), "the attribute")
    expect(b"", a.ask(122, struct.pack("<I", 13)), "Tremove")
    expect(False, os.path.exists(os.path.join(export, "two")), "removed")
    expect(b"hel", b.read(11), "what is open goes on")
    expect(errno.EOPNOTSUPP, a.ask(200, b""), "an unknown request")
    expect(0, a.ask(102, struct.pack("<I", 9) + string("") * 2 + struct.pack("<I", 0)), "nobody need prove")
    for number in range(300):
        open(os.path.join(export, "sub", "file%03d" % number), "w").close()
    a.walk(15, "sub")
    a.open(15, os.O_RDONLY | os.O_DIRECTORY)
    seen, offset = [], 0
    while True:
        entries = a.ask(40, struct.pack("<IQI", 15, offset, 2000))[4:]
        if not entries:
            break
        while entries:
            offset, length = struct.unpack("<13xQxH", entries[:24])
            seen.append(entries[24:24 + length].decode())
            entries = entries[24 + length:]
    expect(302, len(set(seen)), "entries of a directory, in pieces")


def users_are_who_they_are():
    if os.geteuid() != 0:
        return
    os.mkdir(os.path.join(export, "private"), 0o700)
    stranger = Client(uid=1000)
    stranger.walk(2, "private")
    expect(errno.EACCES, stranger.open(2, os.O_RDONLY), "a stranger's look")
    expect(errno.EACCES, stranger.create(3, "mine"), "a stranger's file")
    os.chmod(export, 0o1777)
    expect(True, isinstance(stranger.create(4, "mine"), bytes), "where everybody may")
    expect(1000, os.stat(os.path.join(export, "mine")).st_uid, "its owner")


def locks():
    a, b = Client(), Client()
    a.create(1000, "locked")
    b.walk(1000, "locked")
    b.open(1000)
    rows = [  # who, kind, start, length, what comes of it
        (a, WRITE, 0, 100, GRANTED), (b, WRITE, 50, 10, BLOCKED), (b, WRITE, 100, 100, GRANTED),
        (a, READ, 0, 0, BLOCKED), (a, UNLOCK, 40, 20, GRANTED), (b, WRITE, 40, 20, GRANTED),
        (b, WRITE, 39, 1, BLOCKED), (b, WRITE, 60, 1, BLOCKED), (b, UNLOCK, 40, 20, GRANTED),
        (a, READ, 20, 10, GRANTED), (b, READ, 20, 10, GRANTED), (b, READ, 19, 1, BLOCKED),
        (b, READ, 30, 1, BLOCKED), (a, WRITE, 20, 10, BLOCKED), (b, UNLOCK, 20, 10, GRANTED),
        (a, WRITE, 20, 10, GRANTED), (b, READ, 25, 1, BLOCKED),
    ]
    for number, (who, kind, start, length, wanted) in enumerate(rows):
        expect(wanted, who.lock(1000, kind, start, length), "lock %d" % number)
    expect((WRITE, 0, 20, 7), b.getlock(1000, READ, 0, 10), "who is in the way")
    expect(UNLOCK, b.getlock(1000, WRITE, 40, 20)[0], "nobody")
    expect(BLOCKED, a.lock(1000, WRITE, 0, 5, process=8), "another process of the same client")
    a.socket.close()
    until(lambda: b.lock(1000, WRITE, 0, 0) == GRANTED, "the locks of a client that is gone")


def until(condition, what):
    deadline = time.time() + 20
    while not condition():
        if time.time() > deadline:
            expect("it happens", "it does not", what)
        time.sleep(0.01)


def a_worker_dies():
    first = len(served())
    clients = [Client() for _ in range(4)]
    for client in clients:
        client.walk(1000, "locked")
        client.open(1000)
    expect(GRANTED, clients[0].lock(1000, WRITE, 0, 0), "the first lock")
    expect([BLOCKED] * 3, [client.lock(1000, WRITE, 0, 0) for client in clients[1:]], "the others")
    pids = served()[first:]
    expect(True, len(set(pids)) > 1, "several workers serve")
    os.kill(pids[0], signal.SIGKILL)
    others = [client for client, pid in zip(clients, pids) if pid != pids[0]]
    until(lambda: others[0].lock(1000, WRITE, 0, 0) == GRANTED, "a dead worker's locks")
    Client()


def served():
    return [int(pid) for pid in re.findall(r"p9d\[(\d+)\] serves a connection", open(log).read())]


def what_is_no_request():
    for frame in (b"\x03\0\0\0", struct.pack("<IBH", 1 << 30, 116, 1), struct.pack("<IBH", 9, 120, 1) + b"xx",
                  struct.pack("<IBHIIH", 17, 110, 1, 1, 2, 9)):
        client = Client()
        client.socket.sendall(frame + bytes(64))
        try:
            while client.exactly(1):
                pass
        except (EOFError, ConnectionResetError):
            pass
    Client().walk(2)  # everybody else goes on
    slow = Client()
    slow.create(20, "large")
    for block in range(64):
        slow.write(20, bytes(60000), block * 60000)
    for block in range(64):  # asks, and does not read the answers
        slow.send(116, struct.pack("<IQI", 20, block * 60000, 60000))
    expect(b"", Client().clunk(1), "beside a client that does not read")
    for _ in range(64):
        size = struct.unpack("<I", slow.exactly(4))[0]
        slow.exactly(size - 4)


def other_clients():
    if not shutil.which("diodls"):
        return
    with subprocess.Popen([p9d, "-l", "0", "-A", arenactl, "-a", scratch + "/arena2", "-P", scratch + "/pid2", export],
                          stderr=subprocess.DEVNULL, stdout=subprocess.DEVNULL) as server:
        until(lambda: os.path.exists(scratch + "/pid2"), "the second server")
        port = open(scratch + "/pid2").read().split()[1]
        ask = ["-s", "127.0.0.1:" + port, "-a", "/"]
        listed = subprocess.run(["diodls"] + ask + ["/"], capture_output=True, text=True, check=True)
        expect(True, "large" in listed.stdout, "diodls")
        read = subprocess.run(["diodcat"] + ask + ["large"], capture_output=True, check=True)
        expect(64 * 60000, len(read.stdout), "diodcat")
        server.terminate()


os.makedirs(os.path.join(export, "sub"))
os.chmod(scratch, 0o755)
server = subprocess.Popen([p9d, "-w", "2", "-u", path, "-a", scratch + "/arena", "-A", arenactl,
                           "-P", scratch + "/pid", export], stderr=open(log, "w"), stdout=subprocess.DEVNULL)
try:
    until(lambda: os.path.exists(scratch + "/pid"), "the server serves")
    for part in (names_stay_inside, files_and_names, users_are_who_they_are, locks, a_worker_dies,
                 what_is_no_request, other_clients):
        part()
    server.terminate()
    expect(0, server.wait(20), "the server's end")
    expect(False, os.path.exists(scratch + "/arena"), "its arena is left")
finally:
    server.kill()
    shutil.rmtree(scratch)
