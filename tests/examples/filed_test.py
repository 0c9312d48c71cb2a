#!/usr/bin/env python3
"""filed as its clients and its administrator see it: filed_test.py FILED FILED-LOAD ARENACTL [unittest's arguments].

Everything waits for events, with a deadline: a reply, the end of a connection, the end of a process.
"""
import contextlib
import ctypes
import fcntl
import fnmatch
import json
import mmap
import os
import pwd
import re
import resource
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

filed, filed_load, arenactl = sys.argv[1:4]
DEADLINE = 60
isRoot = os.geteuid() == 0


def give_away(path):
    """To the user that a server started by root becomes."""
    if isRoot:
        nobody = pwd.getpwnam("nobody")
        os.chown(path, nobody.pw_uid, nobody.pw_gid)


def until(true, what):
    end = time.monotonic() + DEADLINE
    while not true():
        if time.monotonic() > end:
            raise AssertionError("in vain: " + what)
        time.sleep(0.002)


def read(path):
    with open(path) as file:
        return file.read()


def gone(pid):
    """A zombie has ended, too: its parent may be somebody who does not look."""
    try:
        return read("/proc/%d/stat" % pid).rsplit(")", 1)[1].split()[0] == "Z"
    except (FileNotFoundError, ProcessLookupError):
        return True


def without_openat2():
    """As on a kernel that is older than openat2(): a filter has it fail with ENOSYS."""
    steps = [(0x20, 0, 0, 0), (0x15, 0, 1, 437), (0x06, 0, 0, 0x00050000 | 38), (0x06, 0, 0, 0x7fff0000)]
    code = ctypes.create_string_buffer(b"".join(struct.pack("HBBI", *step) for step in steps))
    program = struct.pack("H6xP", len(steps), ctypes.addressof(code))
    libc = ctypes.CDLL(None)
    if libc.prctl(38, 1, 0, 0, 0) != 0 or libc.prctl(22, 2, program) != 0:
        os._exit(126)


def die_with_the_test():
    ctypes.CDLL(None).prctl(1, signal.SIGTERM)


def said_by(*words):
    """What a program says on either output, and its exit status."""
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                          timeout=DEADLINE)
    return done.stdout.decode(), done.returncode


class Server:
    def __init__(self, *options, prepare=None, environment=None, descriptors=()):
        self.dir = tempfile.mkdtemp(prefix="iosched-filed.")
        self.root, self.arena, self.log, self.pidFile = (os.path.join(self.dir, name)
                                                         for name in ("root", "arena", "log", "pid"))
        os.mkdir(self.root, 0o700)
        words = [filed, "-p", "0", "-r", self.root, "-a", self.arena, "-l", self.log, "-P", self.pidFile,
                 "-A", arenactl] + (["-u", "nobody"] if isRoot else []) + list(options)
        give_away(self.dir)
        give_away(self.root)

        def prepared():
            die_with_the_test()
            if prepare:
                prepare()

        self.process = subprocess.Popen(words, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL,
                                        preexec_fn=prepared, pass_fds=descriptors,
                                        env={**os.environ, **(environment or {})})
        said = self.process.stdout.readline().decode()
        assert "127.0.0.1:" in said, said + self.logged()
        self.port = int(said.rsplit(":", 1)[1])
        self.said = said

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        if self.process.returncode is None:
            self.process.kill()
            self.process.wait()
            if os.path.exists(self.pidFile):
                os.unlink(self.pidFile)
        self.process.stdout.close()
        if os.path.exists(self.pidFile):  # one in the background, whose test has failed
            with contextlib.suppress(ProcessLookupError):
                os.kill(int(read(self.pidFile).split()[0]), signal.SIGTERM)
        if kind:
            print(self.logged(), file=sys.stderr)
        shutil.rmtree(self.dir, ignore_errors=True)

    def stop(self, sig=signal.SIGTERM):
        self.process.send_signal(sig)
        return self.process.wait(DEADLINE)

    def path(self, name):
        return os.path.join(self.root, name)

    def write(self, name, data):
        with open(self.path(name), "wb") as file:
            file.write(data)
        give_away(self.path(name))

    def logged(self):
        try:
            return read(self.log)
        except FileNotFoundError:
            return ""

    def wait_for_log(self, text):
        until(lambda: text in self.logged(), text)

    def workers(self):
        with Client(self) as client:
            client.send("STATS\n")
            pids = set()
            while (line := client.line()).startswith("- worker "):
                pids.add(int(line.split()[2]))
            return pids


class Client:
    def __init__(self, server, not_of=None):
        while True:
            self.socket = socket.create_connection(("127.0.0.1", server.port), DEADLINE)
            self.buffer = b""
            self.greeting = self.line()
            pids = re.match(r"OK filed ready, worker=(\d+) master=(\d+)", self.greeting)
            self.worker, self.master = (int(pid) for pid in pids.groups()) if pids else (0, 0)
            if not_of is None or self.worker != not_of:
                return
            self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def send(self, text):
        self.socket.sendall(text if isinstance(text, bytes) else text.encode())

    def fill(self):
        """False at the end of the connection."""
        try:
            got = self.socket.recv(65536)
        except ConnectionResetError:
            got = b""
        self.buffer += got
        return got != b""

    def line(self):
        while b"\n" not in self.buffer:
            if not self.fill():
                return "<no reply>"
        line, self.buffer = self.buffer.split(b"\n", 1)
        return line.decode()

    def data(self):
        """Of one DATA block."""
        count = int(self.line()[5:])
        while len(self.buffer) < count + 1:
            if not self.fill():
                return b"<no data>"
        got, self.buffer = self.buffer[:count], self.buffer[count + 1:]
        return got

    def ask(self, request):
        """The last line of the reply."""
        self.send(request if isinstance(request, bytes) else request + "\n")
        while (line := self.line()).startswith("- "):
            pass
        return line

    def quiet(self):
        return not self.buffer and not select.select([self.socket], [], [], 0)[0]

    def reset(self):
        """As a crashed client's system does."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


class Transcript:
    """Plays a script on connections that are numbered and made when they first appear:

      2! 1         2 is to be served by another worker than 1
      1> request => reply    is sent, and what comes next is the reply; * stands for anything, %1 for the
                   process id of 1's worker, and lines of information ("- ...") are skipped unless one
                   is asked for. Each of the two also alone: "1> request", "1< reply"
      1? request => reply    the same again and again until it is the reply
      1~           nothing has come;   1$  the connection is broken off;   1.  the server has ended it
    """

    def __init__(self, server):
        self.server = server
        self.clients = {}

    def __getitem__(self, name):
        return self.clients.get(name) or self.clients.setdefault(name, Client(self.server))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for client in self.clients.values():
            client.socket.close()

    def play(self, script):
        for line in filter(None, (line.strip(" ") for line in script.split("\n"))):
            name, what, text = line[0], line[1], line[3:]
            if what == "!":
                self.clients[name] = Client(self.server, not_of=self[text].worker)
                continue
            text = re.sub("%(.)", lambda match: str(self[match[1]].worker), text)
            request, _, reply = text.partition(" => ")
            self.step(self[name], what, request, reply, line)

    def step(self, client, what, request, reply, line):
        if what == ">":
            client.send(request + "\n")
            if reply:
                self.expect(client, reply, line)
        elif what == "<":
            self.expect(client, request, line)
        elif what == "?":
            def answered():
                client.send(request + "\n")
                return self.matches(client, reply)[0]
            until(answered, line)
        elif what == "~":
            assert client.quiet(), line
        elif what == "$":
            client.reset()
        else:
            assert what == "." and not client.buffer and not client.fill(), line

    @staticmethod
    def matches(client, pattern):
        while True:
            reply = client.line()
            good = fnmatch.fnmatchcase(reply, pattern.replace("[", "[[]"))
            if good or not reply.startswith("- "):
                return good, reply

    def expect(self, client, pattern, line):
        good, reply = self.matches(client, pattern)
        assert good, "%s: %s" % (line, reply)


def play(server, script):
    with Transcript(server) as talk:
        talk.play(script)


class TableMutex:
    """The mutex of the lock table in the arena's file, by its bytes: word, count, thread, users; the
    holder's process id 40 bytes on. Nobody else may be in it when it is taken like this."""

    def __init__(self, server):
        said, _ = said_by(arenactl, "--json", "info", server.arena)
        self.at = next(mutex["offset"] for mutex in json.loads(said)["mutexes"] if "table" in mutex["place"])
        with open(server.arena, "r+b") as file:
            self.bytes = mmap.mmap(file.fileno(), 0)

    def word(self, offset, value=None):
        place = slice(self.at + offset, self.at + offset + 4)
        if value is not None:
            self.bytes[place] = struct.pack("<I", value)
        return struct.unpack("<I", self.bytes[place])[0]

    def lock(self, owner, holder):
        until(lambda: self.word(0) == 0, "a free mutex")
        self.word(8, owner)
        self.word(40, holder)
        self.word(12, 1)
        self.word(0, 1)

    def unlock(self):
        self.word(40, 0)
        self.word(8, 0)
        self.word(12, 0)
        self.word(0, 0)  # waiters look again by themselves


def dead_process():
    child = subprocess.Popen(["true"])
    child.wait()
    return child.pid


class Filed(unittest.TestCase):
    """What one client sees: files and their locks, lines, limits, waits, back-pressure, programs."""

    def test_oplocks_and_share_modes_hold_across_workers(self):
        with Server("-w", "2") as server:
            server.write("f", b"content")
            play(server, """
                2! 1
                1> OPEN read,oplock-batch f => OK 1 read,oplock-batch
                2> OPEN read f => ERR OPLOCK held by pid %1 (in use: read,oplock-batch)
                2> HOLDERS f => OK pid %1
                1> MODE 1 deny-write => OK
                2> HOLDERS f => OK nobody
                1> MODE 1 oplock-shared => ERR OPLOCK *
                2> OPEN write f => ERR DENIED in use: read,deny-write
                2> OPEN read f => OK 1 read,deny-write
                2> INFO f => - size 7
                2< OK opens 2, read,deny-write
                1$
                2? INFO f => OK opens 1, read""")

    def test_reads_and_writes_respect_the_ranges_of_others(self):
        with Server("-w", "2") as server:
            server.write("f", b"a" * 1000)
            play(server, r"""
                2! 1
                1> OPEN read,write f => OK 1 read,write
                2> OPEN read,write f => OK 1 read,write
                1> LOCK 1 exclusive 10 50 => OK
                2> LOCK 1 shared 59 1 => ERR LOCKED *
                1> LOCK 1 exclusive 0 -1 => ERR SELFLOCKED *
                2> TEST 1 read 0 1000 => OK 10 bytes free, what follows is locked
                2> READ 1 0 -1 => DATA 10
                2< aaaaaaaaaa
                2< OK 10 bytes, what follows is locked
                2> READ 1 12 10 => ERR LOCKED byte 12 is locked
                2> WRITE 1 8 xyz => ERR LOCKED byte 10 is locked
                1> WRITE 1 10 b\nb => OK 3 bytes
                1> UNLOCK 1 10 49 => ERR NOTLOCKED *
                1> UNLOCK 1 10 50 => OK
                2> READ 1 9 5 => DATA 5
                2< ab
                2< ba
                2< OK 5 bytes
                2> READ 1 9223372036854775807 -1 => OK 0 bytes
                2> LOCK 1 shared 0 0 => ERR RANGE *
                2> LOCK 1 shared -5 10 => ERR RANGE *
                2> LOCK 1 shared 9223372036854775807 2 => ERR RANGE *""")

    def test_access_opens_and_connections_are_limited(self):
        with Server("-w", "1", "-c", "2") as server, Transcript(server) as talk:
            server.write("f", b"content")
            talk.play("""
                1> OPEN read,max=1 f => OK 1 *
                1> OPEN read f => ERR DENIED *
                1> WRITE 1 0 x => ERR ACCESS *
                1> CLOSE 1 => OK
                2> RUN id => ERR OFF *
                3.
                2> QUIT => OK bye
                2.""")
            self.assertTrue(talk["3"].greeting.startswith("ERR LIMIT"))
            for _ in range(16):
                self.assertTrue(talk["1"].ask("OPEN write,create g").startswith("OK"))
            talk.play("""
                1> OPEN read f => ERR LIMIT *
                1> READ 5 0 1 => ERR ACCESS *""")

    def test_nothing_outside_the_root_is_served(self):
        """On a kernel without openat2() a walk stands in, which follows no link at all."""
        for walks in (False, True):
            prepare = without_openat2 if walks else None
            with self.subTest(walks=walks), Server("-w", "1", prepare=prepare) as server, Client(server) as client:
                self.assertGreater(client.worker, 0)  # so the arena is there
                os.mkdir(server.path("sub"), 0o700)
                give_away(server.path("sub"))
                server.write("inside", b"x")
                for target, name in (("/etc", "etc"), ("../../arena", "sub/out"), ("../inside", "sub/in")):
                    os.symlink(target, server.path(name))
                os.link(server.arena, server.path("arena"))
                os.mkfifo(server.path("fifo"))
                os.chmod(server.path("fifo"), 0o666)
                table = "/proc/%d/fd" % client.worker
                before = len(os.listdir(table))
                for path in ("/etc/passwd", "..", "../arena", "sub/../../arena", "etc/passwd", "sub/out", "arena",
                             "fifo", "sub", ".", "missing/x", "inside/x"):
                    self.assertTrue(client.ask("OPEN read " + path).startswith("ERR FILE"), path)
                self.assertTrue(client.ask("OPEN write,create ../new").startswith("ERR FILE"))
                self.assertFalse(os.path.exists(os.path.join(server.dir, "new")))
                self.assertEqual(len(os.listdir(table)), before)
                for path in ("sub/in", "sub/../inside"):
                    self.assertEqual(client.ask("OPEN read " + path).startswith("OK"), not walks, path)
                self.assertTrue(client.ask("OPEN write,create sub//new").startswith("OK"))
                self.assertEqual(os.path.getsize(server.path("sub/new")), 0)

    def test_bad_lines_are_answered_and_the_connection_goes_on(self):
        with Server("-w", "1") as server, Transcript(server) as talk:
            self.assertTrue(talk["1"].ask(b"ST\0ATS\n").startswith("ERR LINE"))
            self.assertTrue(talk["1"].ask("x" * 4097).startswith("ERR LINE longer"))
            talk["1"].send("x" * (1 << 20))
            talk.play("""
                1< ERR LINE longer*
                2> STATS => OK *
                1> the end of it
                1> NONSENSE 1 2 => ERR VERB *
                1>
                1< ERR VERB *
                1> READ 1 0 10 => ERR HANDLE *
                1> OPEN read => ERR SYNTAX *""")
            self.assertTrue(talk["1"].ask("stats\r").startswith("OK workers 1"))

    def test_a_half_closed_connection_gets_all_its_replies(self):
        with Server("-w", "1", "-R") as server, Transcript(server) as talk:
            talk["1"].send("SLEEP 20\nRUN echo one\nSTATS\nno end")
            talk["1"].socket.shutdown(socket.SHUT_WR)
            talk.play("""
                1< OK slept 20 ms
                1< DATA 4
                1< one
                1<
                1< OK exit 0
                1< OK workers*
                1< ERR LINE *
                1.""")

    def test_what_comes_after_quit_costs_no_reply(self):
        requests = 500  # with replies beyond what our side's buffer takes at once
        with Server("-w", "1") as server, Transcript(server) as talk:
            talk["1"].send("HELP\n" * requests + "QUIT\n" + "\n" * 100000)  # unread, it would be a reset
            talk.play("1< OK words*\n" * requests + "1< OK bye\n1.")

    def test_every_sleep_is_answered_when_it_is_due(self):
        with Server("-w", "1") as server:
            play(server, """
                1> SLEEP 10000
                2> SLEEP 100
                3> NAP 9000
                4> SLEEP 150
                2< OK slept 100 ms
                4< OK slept 150 ms
                4> NAP 10 => OK napped 10 ms
                1~
                3~
                3$
                4? STATS => - worker * connections 3 *""")  # the nap still has 3's record on the stack
            self.assertEqual(server.stop(), 0)

    def test_a_command_is_awaited_while_others_are_served(self):
        with Server("-w", "1", "-R") as server, Transcript(server) as talk:
            gate = server.path("gate")
            os.mkfifo(gate)
            os.chmod(gate, 0o666)
            talk["1"].send("SYSTEM read -r line <'" + gate + "' && exit 3\n")
            with open(gate, "w") as opened:  # returns once the command reads
                talk.play("""
                    2> SYSTEM kill -9 $$ => OK signal 9
                    2> SYSTEM echo unheard => OK exit 0
                    1~""")
                opened.write("go\n")
            talk.play("1< OK exit 3")

    def test_a_program_is_streamed_and_ends_with_its_client(self):
        with Server("-w", "1", "-R") as server, Transcript(server) as talk:
            os.mkfifo(server.path("fifo"))
            os.chmod(server.path("fifo"), 0o666)
            talk.play("""
                1> RUN echo first; read line <fifo; echo $line >&2; exit 7 => DATA 6
                1< first
                1<
                2> STATS => OK *
                1~""")
            with open(server.path("fifo"), "w") as fifo:
                fifo.write("second\n")
            talk.play("""
                1< DATA 7
                1< second
                1<
                1< OK exit 7
                1> RUN kill -TERM $$ => OK signal 15
                2> RUN yes | head -c 1000000
                1> RUN echo $$; while :; do sleep 1000; done""")
            total = 0
            while total < 1000000:
                total += len(talk["2"].data())
            talk.play("2< OK exit 0")
            program = int(talk["1"].data())
            talk["1"].reset()
            until(lambda: gone(program), "the program's end")

    def test_a_silent_connection_is_closed_and_one_with_a_command_is_not(self):
        with Server("-w", "1", "-i", "1") as server:
            play(server, """
                1> SLEEP 2500
                2< ERR IDLE *
                2.
                1< OK slept 2500 ms""")

    def test_a_client_that_does_not_read_costs_no_memory_and_loses_nothing(self):
        content = (b"abcdefghijklmnopqrstuvw" * (1 << 19))[:8 << 20]
        with Server("-w", "1") as server, Client(server) as client, Client(server) as other:
            server.write("big", content)
            self.assertEqual(client.ask("OPEN read big"), "OK 1 read")

            def resident():
                return int(read("/proc/%d/statm" % client.worker).split()[1]) * resource.getpagesize()

            before = resident()
            client.send("READ 1 0 -1\n" * 16)
            for _ in range(200):  # far more passes than it takes to fill the socket
                self.assertTrue(other.ask("STATS").startswith("OK"))
            self.assertLess(resident(), before + len(content))
            for _ in range(16):
                got = []
                while sum(map(len, got)) < len(content):
                    got.append(client.data())
                self.assertTrue(b"".join(got) == content)
                self.assertTrue(client.line().startswith("OK 8388608"))


class FiledProcesses(unittest.TestCase):
    """Master and workers: starts, ends in order, restarts."""

    def test_terminating_leaves_no_process_and_no_lock(self):
        with Server("-w", "3", "-R", "-k") as server, Transcript(server) as talk:
            workers = server.workers()
            self.assertEqual(len(workers), 3)
            talk.play("1> SLEEP 9000\n2> RUN echo $$; while :; do sleep 1000; done")
            program = int(talk["2"].data())
            self.assertEqual(server.stop(), 0)
            talk.play("1< ERR RESTART *\n1.")
            for pid in workers:
                with self.assertRaises(ProcessLookupError):
                    os.kill(pid, 0)
            until(lambda: gone(program), "the program's end")
            with open(server.arena) as arena:
                fcntl.flock(arena, fcntl.LOCK_EX | fcntl.LOCK_NB)  # nobody's lock is left on it
            self.assertNotIn("with status", server.logged())

    def test_a_hangup_replaces_every_worker_and_refuses_nobody(self):
        with Server("-w", "3", "-g", "1") as server, Client(server) as holder:
            before = server.workers()
            self.assertTrue(holder.ask("OPEN read,create,deny-read f").startswith("OK"))
            server.process.send_signal(signal.SIGHUP)

            def all_new():
                with Client(server) as client:
                    self.assertTrue(client.greeting.startswith("OK filed ready"), client.greeting)
                return not before & server.workers()

            until(all_new, "new workers")
            self.assertTrue(holder.line().startswith("ERR RESTART"))  # it had its second of grace
            with Client(server) as client:
                self.assertTrue(client.ask("OPEN read f").startswith("OK"))
            self.assertEqual(server.stop(), 0)
            self.assertNotIn("with status", server.logged())

    def test_what_cannot_serve_says_why_and_never_that_it_serves(self):
        directory = tempfile.mkdtemp(prefix="iosched-filed.")
        self.addCleanup(shutil.rmtree, directory)
        none, text, arena = (os.path.join(directory, name) for name in ("none", "text", "arena"))
        with open(text, "w") as file:
            file.write("not an arena")
        give_away(directory)
        give_away(text)
        for options, says in (
                (["-p", "70000"], "-p 70000: give a number from 0 to 65535"),
                (["-w", "four"], "-w four: give a number from 1 to 32"),
                (["--nonsense"], "no such option: --nonsense"),
                (["-r", none], "cannot open the directory"),
                (["-u", "no-such-user"], "there is no user no-such-user"),
                (["-D", "-l", none + "/log"], "cannot open the log"),
                (["-D", "-a", none + "/arena"], "cannot open the arena"),
                (["-a", text], "no arena and is left alone"),
                (["-P", none + "/pid"], "cannot start: "),
                (["-R"], "-R as root needs -u USER")):
            with self.subTest(options):
                if options == ["-R"] and not isRoot:
                    continue
                said, status = said_by(filed, "-p", "0", "-r", directory, "-a", arena, *options)
                self.assertEqual(status, 1)
                self.assertIn(says, said)
                self.assertNotIn("serving", said)
                self.assertFalse(os.path.exists(arena))
        self.assertEqual(os.path.getsize(text), 12)
        self.assertIn("no server at 127.0.0.1:1", said_by(filed_load, "-p", "1")[0])
        for program in (filed, filed_load):
            self.assertEqual(said_by(program, "--version")[1], 0)
            self.assertTrue(said_by(program, "--help")[0].startswith("usage: "))

    @unittest.skipUnless(isRoot, "for root")
    def test_root_serves_as_somebody_else(self):
        with Server("-w", "1", "-R") as server:  # which adds -u nobody
            play(server, """
                1> RUN echo $(id -un; id -G | wc -w) => DATA 9
                1< nobody 1
                1<
                1< OK exit 0""")

    def test_a_second_server_on_the_arena_ends_and_leaves_the_first_its_files(self):
        with Server("-w", "1") as server:
            said, status = said_by(filed, "-p", "0", "-r", server.root, "-a", server.arena, "-P", server.pidFile)
            self.assertEqual(status, 1)
            self.assertIn("is another server's", said)
            self.assertTrue(os.path.exists(server.pidFile))
            play(server, "1> OPEN read,create f => OK *")
            self.assertEqual(server.stop(), 0)

    def test_a_service_manager_passes_the_socket_and_hears_of_start_and_end(self):
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        name = "iosched-filed-%d" % os.getpid()
        manager.bind("\0" + name)
        manager.settimeout(DEADLINE)
        listener = socket.create_server(("127.0.0.1", 0))
        port = listener.getsockname()[1]

        # The process id is known in the child alone, so a shell says it.
        global filed
        plain = filed
        script = os.path.join(tempfile.mkdtemp(prefix="iosched-filed."), "start")
        self.addCleanup(shutil.rmtree, os.path.dirname(script))
        with open(script, "w") as file:
            file.write("#!/bin/sh\nLISTEN_PID=$$ exec '%s' \"$@\"\n" % plain)
        os.chmod(script, 0o755)
        filed = script
        try:
            server = Server("-w", "1", "-R", prepare=lambda: os.dup2(listener.fileno(), 3),
                            environment={"LISTEN_FDS": "1", "LISTEN_FDNAMES": "filed", "NOTIFY_SOCKET": "@" + name},
                            descriptors=(3, listener.fileno()))
        finally:
            filed = plain
        with server:
            self.assertEqual(server.port, port)
            self.assertEqual(manager.recv(100), b"READY=1")
            play(server, """
                1> RUN env | grep -cE '^(LISTEN|NOTIFY)' => DATA 2
                1< 0
                1<
                1< OK exit 1""")
            self.assertEqual(server.stop(), 0)
            self.assertEqual(manager.recv(100), b"STOPPING=1")
        manager.close()
        listener.close()

    def test_a_log_that_was_moved_is_opened_anew_at_a_hangup(self):
        with Server("-w", "1") as server:
            before = server.workers()
            os.rename(server.log, server.log + ".1")
            server.process.send_signal(signal.SIGHUP)
            until(lambda: not before & server.workers(), "a new worker")
            server.wait_for_log("replacing 1 workers")
            self.assertEqual(server.stop(), 0)
            self.assertIn("ended:", server.logged())
            self.assertNotIn("replacing", read(server.log + ".1"))

    def test_in_the_background_it_serves_and_ends_like_any_other(self):
        with Server("-w", "2", "-D") as server:
            self.assertEqual(server.process.wait(DEADLINE), 0)  # what was started has handed over
            with Client(server) as client:
                self.assertEqual(os.getsid(client.master), os.getsid(client.worker))
                self.assertNotEqual(os.getsid(client.master), os.getsid(0))
                os.kill(client.master, signal.SIGTERM)
                until(lambda: gone(client.master), "the master's end")
            self.assertFalse(os.path.exists(server.pidFile) or os.path.exists(server.arena))


class FiledHeals(unittest.TestCase):
    """Workers that die or stand still, in the mutex and outside."""

    def test_whoever_dies_the_others_go_on(self):
        for who in ("outside", "worker", "nobody on record", "stranger"):
            with self.subTest(who), Server("-w", "2") as server, Transcript(server) as talk:
                talk.play("""
                    2! 1
                    1> OPEN read,create,deny-read,oplock-batch f => OK *
                    1> LOCK 1 exclusive 0 -1 => OK
                    2> OPEN read f => ERR OPLOCK *""")
                worker, dead = talk["1"].worker, dead_process()
                if who != "outside":
                    owner = {"worker": worker, "nobody on record": 0, "stranger": dead}[who]
                    TableMutex(server).lock(owner, dead)
                talk.play("2> OPEN write,create g")
                before = time.monotonic()
                if who in ("outside", "worker"):
                    os.kill(worker, signal.SIGKILL)
                talk.play("2< OK 1 write")
                self.assertLess(time.monotonic() - before, 30)
                talk.play("2? STATS => OK workers 2 *" +
                          ("cleaned 1 repaired 0" if who == "outside" else "repaired 1"))
                if who in ("outside", "worker"):
                    talk.play("2? OPEN read f => OK *")
                self.assertEqual(server.stop(), 0)

    def test_a_worker_that_stands_still_in_the_mutex_is_named_and_killed_if_told(self):
        for told in (False, True):
            with self.subTest(told), Server("-w", "2", "--stop-stalled" if told else "-k") as server, \
                    Transcript(server) as talk:
                talk.play("2! 1")
                victim = talk["1"].worker
                TableMutex(server).lock(victim, victim)
                os.kill(victim, signal.SIGSTOP)
                talk.play("2> OPEN write,create f")
                server.wait_for_log("worker %d (stopped) has kept the lock table's mutex" % victim)
                if not told:
                    talk.play("2~")
                    os.kill(victim, signal.SIGKILL)
                talk.play("2< OK 1 write")
                self.assertEqual("killing worker" in server.logged(), told)

    def test_a_stranger_that_keeps_the_mutex_is_named_and_left_alone(self):
        with Server("-w", "1", "--stop-stalled") as server, Transcript(server) as talk:
            mutex = TableMutex(server)
            self.assertGreater(talk["1"].worker, 0)
            mutex.lock(threading.get_native_id(), os.getpid())
            talk.play("1> OPEN write,create f")
            server.wait_for_log("process %d (" % os.getpid())
            server.wait_for_log("held by process")  # the repairer's answer
            talk.play("1~")
            mutex.unlock()
            talk.play("1< OK 1 write")
            self.assertEqual(server.stop(), 0)

    def test_where_the_repair_refuses_the_service_ends_with_a_report(self):
        with Server("-w", "2", "-A", "/bin/false") as server, Transcript(server) as talk:
            talk.play("2! 1")
            TableMutex(server).lock(talk["1"].worker, talk["1"].worker)
            talk.play("2> OPEN read,create f")  # waits for the mutex and will hear no SIGTERM
            os.kill(talk["1"].worker, signal.SIGKILL)
            self.assertEqual(server.process.wait(DEADLINE), 3)
            self.assertIn("is not repaired", server.logged())
            until(lambda: gone(talk["2"].worker), "the other worker's end")

    def test_under_load_and_kills_no_two_grants_conflict_and_nothing_is_left_over(self):
        with Server("-w", "3") as server:
            said, status = said_by(filed_load, "-p", str(server.port), "-t", "30", "-f", "3", "-n", "8", "--kill9",
                                   "-a", server.arena)
            self.assertEqual(status, 0, said)
            play(server, "1? STATS => OK workers 3 * killed 8 *")
            # What the last one held is cleaned a moment later.
            until(lambda: ", 0 of " in said_by(arenactl, "locks", server.arena)[0], "no record left")
            self.assertEqual(said_by(arenactl, "check", server.arena)[1], 0)
            self.assertEqual(server.stop(), 0)


if __name__ == "__main__":
    signal.signal(signal.SIGPIPE, signal.SIG_IGN)
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
