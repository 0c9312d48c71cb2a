#!/usr/bin/env python3
"""arenactl as its users meet it: arenactl_test.py ARENACTL LIBRARY SOURCE [TEST...].

The arenas are written byte by byte from what docs/formats.md says, so the tool is held to the document
and not to the library. The library itself works on one of them, in a hurry.
"""
import contextlib
import json
import mmap
import os
import random
import re
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

ARENACTL, LIBRARY, SOURCE = sys.argv[1:4]
ME = os.getpid()
READ, WRITE, DENY_DELETE, BATCH = 1, 2, 0x40, 0x400
SHARED, EXCLUSIVE = 1, 2
OPEN = (0, -1)
TO_END = 2**63 - 1
MUTEX_WORD, MUTEX_OWNER, MUTEX_HOLDER = 0, 8, 0x28
READY = 3


def source(path):
    with open(os.path.join(SOURCE, path), encoding="utf-8") as file:
        return file.read()


# ---- arenas ----

def mutex():
    return struct.pack("<16xI28x", 0x80)


def circles(image, heads, lists):
    """Links the elements of each list into a circle with its head."""
    for head, elements in zip(heads, lists):
        ring = [head] + elements
        for i, at in enumerate(ring):
            struct.pack_into("<QQ", image, at, ring[(i + 1) % len(ring)], ring[i - 1])


class Table:
    """A lock table: files are (key words, limit, name, records), records (pid, owner, handle, range, mode)."""

    def __init__(self, name, entries, records, files=(), state=READY):
        self.name, self.entries, self.records, self.files, self.state = name, entries, records, files, state
        self.buckets = 1 << max(4, (entries - 1).bit_length() - 1)
        self.size = 96 + 16 * self.buckets + 96 * entries + 56 * records

    def write(self, image, base):
        self.base = base
        image[base:base + 48] = mutex()
        struct.pack_into("<I", image, base + 0x30, self.state)
        struct.pack_into("<i", image, base + 0x58, self.buckets)
        buckets = [base + 0x60 + 16 * i for i in range(self.buckets)]
        self.first_file = base + 0x60 + 16 * self.buckets
        self.first_record = self.first_file + 96 * self.entries
        entries = [self.first_file + 96 * i for i in range(self.entries)]
        records = [self.first_record + 56 * i for i in range(self.records)]
        chains = [[] for _ in buckets]
        for words, limit, name, held in self.files:
            at, mine = entries.pop(0), [records.pop(0) for _ in held]
            opens = [mode for _, _, _, span, mode in held if span == OPEN]
            combined = 0
            for mode in opens:
                combined |= mode
            struct.pack_into("<QQIII32s", image, at + 0x10, *words, combined, limit, len(opens), name[-32:])
            chains[((words[0] & 0xffffffff) ^ words[1]) % self.buckets].append(at)
            circles(image, [at + 0x50], [mine])
            for record, (pid, owner, handle, span, mode) in zip(mine, held):
                struct.pack_into("<III4xqqI", image, record + 0x10, pid, owner, handle, *span, mode)
        circles(image, buckets + [base + 0x38, base + 0x48], chains + [entries, records])


class Arena:
    """A file with these blocks: a number for free bytes, (name, bytes) for a chunk, or a Table."""

    def __init__(self, directory, *blocks, pages=4, name="arena"):
        self.path = os.path.join(directory, name)
        image = bytearray(4096 * pages)
        image[:48] = mutex()
        at, free, used = 0x48, [], []
        self.blocks = []  # name, offset, size, offset of the name
        for block in [*blocks, None]:
            if block is None or isinstance(block, int):
                size = block or len(image) - at
                free.append(at)
                self.blocks.append((b"last" if block is None else b"free", at, size, 0))
            else:
                called, data = (block.name, block.size) if isinstance(block, Table) else block
                size = (40 + data + (len(called) + 1 if called else 0) + 7) // 8 * 8
                used.insert(0, at)
                place = at + 40 + data if called else 0
                self.blocks.append((called or b"", at, size, place))
                struct.pack_into("<QQI", image, at + 8, place, size, data)
                struct.pack_into("<I", image, at + 0x20, 1)
                image[place:place + len(called or b"")] = called or b""
                if isinstance(block, Table):
                    block.write(image, at + 40)
            struct.pack_into("<Q", image, at + 0x10, size)
            at += size
        for blocks in free, used:
            for here, following in zip(blocks, blocks[1:]):
                struct.pack_into("<Q", image, here, following)
        struct.pack_into("<IIQQ", image, 0x30, 0x51317093, 1, free[0], used[0] if used else 0)
        with open(self.path, "wb") as file:
            file.write(image)

    def bytes(self):
        with open(self.path, "rb") as file:
            return file.read()

    def poke(self, at, form, *values):
        with open(self.path, "r+b") as file:
            file.seek(at)
            file.write(struct.pack("<" + form, *values))

    def write(self, image, changes=()):
        """The whole file anew, with these changes: (offset, bytes)."""
        image = bytearray(image)
        for at, value in changes:
            image[at:at + len(value)] = value
        with open(self.path, "wb") as file:
            file.write(image)

    def hold(self, base, owner, holder):
        """Leaves the mutex as that thread does which holds it."""
        self.poke(base + MUTEX_HOLDER, "I", holder)
        self.poke(base + MUTEX_WORD, "III", 1, 0, owner)
        self.poke(base + 0x0c, "I", 1)


def sample(directory, extra=(), **more):
    table = Table(b"locks", 4, 10, [
        ((0x801, 0x1267), 5, b'report "1".txt', [
            (ME, 7, 1, OPEN, READ | DENY_DELETE), (ME, 7, 2, OPEN, READ | WRITE),
            (ME, 7, 2, (0, 99), EXCLUSIVE), (ME, 7, 1, (500, TO_END), SHARED), *extra]),
        ((0x801, 0x1268), 0, b"\x80ledger", [(ME, 9, 1, OPEN, READ | BATCH)])])
    arena = Arena(directory, 240, (b"tally", 64), table, (None, 400), (b"spare\n", 100), **more)
    arena.table = table
    return arena


USE = """
import fcntl, mmap, sys
if len(sys.argv) > 1:
    f = open(sys.argv[1], 'r+b'); fcntl.flock(f, fcntl.LOCK_SH); m = mmap.mmap(f.fileno(), 0)
print(flush=True); sys.stdin.read()
"""

# Opens, locks, unlocks and closes files without end.
HURRY = """
import ctypes, sys
path, library, number = sys.argv[1].encode(), ctypes.CDLL(sys.argv[2]), int(sys.argv[3])
arena, table, modes = ctypes.c_void_p(), ctypes.c_void_p(), ctypes.c_uint32()
assert library.OpenSharedArena(path, 0, 0, ctypes.c_uint64(0), ctypes.byref(arena)) == 0
assert library.AllocateSharedFileLockTable(arena, b'locks', 1, 6, 20, ctypes.byref(table)) == 0
keys = [(ctypes.c_uint64 * 2)(0x801, i) for i in range(5)]
spans = [(ctypes.c_int64(i), ctypes.c_int64(10)) for i in range(100)]
print(flush=True)
for i in range(number, sys.maxsize):
    key, span = keys[i % 5], spans[i % 100]
    library.OpenSharedFile(table, number, 1, key, 1, 0, b'busy', ctypes.byref(modes))
    library.LockSharedFileRange(table, number, 1, key, *span, i % 3)
    library.SetSharedFileMode(table, number, 1, key, 3)
    library.UnlockSharedFileRange(table, number, 1, key, *span)
    library.CloseSharedFile(table, number, 1, key)
"""


class User:
    """A process that runs this program, and uses the arena if one is given."""

    def __init__(self, arena=None, program=USE, *more):
        words = [sys.executable, "-c", program] + ([arena.path] if arena else []) + list(map(str, more))
        self.process = subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        if not self.process.stdout.readline():
            self.__exit__()
            raise OSError("it ended at once")
        self.pid = self.process.pid

    def kill_only(self):
        os.kill(self.pid, signal.SIGKILL)
        os.waitid(os.P_PID, self.pid, os.WEXITED | os.WNOWAIT)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.process.stdout.close()


def dead_pid():
    with User() as user:
        return user.pid


# ---- the schema, of which no more is understood than it uses ----

SCHEMA = json.loads(source("docs/arenactl.schema.json"))
KINDS = {"object": dict, "array": list, "string": str, "boolean": bool, "null": type(None), "integer": int}


def faults(value, schema, place="$"):
    """What is wrong with the value, as a list of sentences."""
    if "$ref" in schema:
        schema = SCHEMA["$defs"][schema["$ref"].rsplit("/", 1)[1]]
    unknown = set(schema) - {"$schema", "$id", "$defs", "title", "description", "type", "properties", "required",
                             "additionalProperties", "items", "enum", "const", "oneOf", "minimum", "minItems",
                             "maxItems", "pattern"}
    assert not unknown, unknown
    if "oneOf" in schema:
        tries = [faults(value, choice, place) for choice in schema["oneOf"]]
        return [] if tries.count([]) == 1 else [f"{place}: not one of its kinds: {min(tries, key=len)}"]
    kinds = schema.get("type", list(KINDS))
    kinds = [kinds] if isinstance(kinds, str) else kinds
    if not any(isinstance(value, KINDS[kind]) and (kind == "boolean" or not isinstance(value, bool)) for kind in kinds):
        return [f"{place}: {value!r} is no {kinds}"]
    wrong = []
    if value not in schema.get("enum", [value]) or value != schema.get("const", value):
        wrong.append(f"{place}: {value!r} is not allowed")
    if isinstance(value, int) and value < schema.get("minimum", value):
        wrong.append(f"{place}: {value} is too small")
    if isinstance(value, str) and not re.search(schema.get("pattern", ""), value):
        wrong.append(f"{place}: {value!r} has another form")
    if isinstance(value, list):
        if not schema.get("minItems", 0) <= len(value) <= schema.get("maxItems", len(value)):
            wrong.append(f"{place}: {len(value)} items")
        for i, item in enumerate(value):
            wrong += faults(item, schema["items"], f"{place}[{i}]")
    if isinstance(value, dict):
        named = schema.get("properties", {})
        wrong += [f"{place}: {key} is missing" for key in schema.get("required", []) if key not in value]
        wrong += [f"{place}: {key} is in no schema" for key in value if key not in named]
        for key in set(named) & set(value):
            wrong += faults(value[key], named[key], f"{place}.{key}")
    return wrong


class Case(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory(prefix="arenactl-test.")
        self.addCleanup(scratch.cleanup)
        self.directory = scratch.name

    def run_it(self, *words):
        done = subprocess.run([ARENACTL, *map(str, words)], stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=100, check=False)
        self.assertIn(done.returncode, (0, 1, 2), done.stderr)
        if done.returncode != 1:
            self.assertEqual(done.stderr, b"")
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    def say(self, *words, status=0, has=(), lacks=()):
        """What it prints; a message in case of status 1."""
        got, out, err = self.run_it(*words)
        text = err if got == 1 else out
        self.assertEqual(got, status, out + err)
        for part in has if isinstance(has, (list, tuple)) else [has]:
            self.assertIn(part, text)
        for part in lacks:
            self.assertNotIn(part, text)
        if got == 1:
            # One form for all: what it is about, what happened, and what to do.
            self.assertRegex(err, r"\Aarenactl: .+: .+; .+\n\Z")
        return text

    def ask(self, *words, status=0):
        """The JSON, which fits the schema."""
        got, out, err = self.run_it(*words, "--json")
        self.assertEqual(got, status, out + err)
        answer = json.loads(out)
        self.assertEqual(answer["command"], words[0])
        self.assertEqual(faults(answer, SCHEMA), [])
        return answer


class Looks(Case):
    def test_answers_in_words_and_in_json(self):
        ghost = dead_pid()
        arena = sample(self.directory, [(ghost, 3, 3, OPEN, READ)])
        me, report = f"process {ME}", ('  "report \\"1\\".txt"  key 0x801:0x1267, 3 opens (limit 5), '
                                       "combined mode read, write, deny-delete\n")
        ledger = '  "\\x80ledger"  key 0x801:0x1268, 1 open, '
        with open(arena.path, "r+b") as file, mmap.mmap(file.fileno(), 0):
            for words, has, lacks in [
                (["locks"], ['table "locks": 2 of 4 file entries, 6 of 10 records in use', report, ledger,
                             f'    "report \\"1\\".txt"  open  {me}', "owner 7  handle 1  read, deny-delete\n",
                             "handle 2  exclusive, bytes 0 to 99\n", "handle 1  shared, bytes from 500\n"], ["stops"]),
                (["locks", "--file", '".txt'], [report], [ledger]),
                (["locks", "--file=0x801:0x1268"], [ledger], [report]),
                (["locks", f"--pid={ghost}"], [report, "owner 3", "  dead  "], [ledger, me + " "]),
                (["locks", "--blocking"],
                 [f'"report \\"1\\".txt"  {me} owner 7 handle 2 stops reading these bytes, writing these bytes, '
                  f"bytes 0 to 99 by {me} owner 7 handle 1, process {ghost} owner 3 handle 3\n",
                  "owner 9 handle 1 stops opens that deny reading, opens that heed oplocks\n"], []),
                (["chunks"], ["0x48  ", '64           1  "tally"\n', '"locks", a lock table\n',
                              "400           1  anonymous\n", r'"spare\x0a"', " in 2 blocks, the largest "], []),
                (["info"], ["16384 bytes (16.0 KiB)", "arena header: free", me + "  ", "has it open\n",
                            '"locks": 2 of 4 file entries, 50 %; 6 of 10 records, 60 %\n', "in 4 chunks, 13 %\n"], []),
                (["check"], [f'note: table "locks": 1 record of process {ghost}, dead; arenactl clean removes it\n',
                             "sound: 6 blocks, 1 lock table\n"], []),
                (["top", "-n1"], ["heap: free ", '"locks": files 2 of 4, records 6 of 10, opens 4, ranges 2, holders 2\n',
                                  'table "locks" mutex: held in 0 of '], ["\x1b"]),
                (["repair"], ['arena header: free\ntable "locks": free\nnothing to do\n'], []),
            ]:
                with self.subTest(words):
                    before = arena.bytes()
                    self.say(words[0], arena.path, *words[1:], has=has, lacks=lacks)
                    if words[0] != "top":
                        self.ask(words[0], arena.path, *words[1:])
                    self.assertEqual(arena.bytes(), before)
            stale = self.ask("check", arena.path)["stale"]
            self.assertEqual(stale, [{"table": "locks", "pid": ghost, "life": "dead", "recordCount": 1}])
            [told] = self.ask("clean", arena.path)["mutexes"]
            self.assertEqual(told["done"], ["1 open count or mode counted anew", f"1 record of process {ghost} removed, which has ended"])
            self.say("clean", arena.path, has="nothing to do\n")
            self.say("check", arena.path, lacks=["note"])

    def test_only_what_is_safe_and_unicode_is_shown_as_it_is(self):
        """Names may hold anything: what is no shortest UTF-8 or would drive a terminal is shown as numbers."""
        names = [("gr\u00fc\u00df \u20ac \U0001f600".encode(), None), (b"\xc3", r"\xc3"), (b"\xc0\xaf", r"\xc0\xaf"),
                 (b"\xe0\x80\x80", r"\xe0\x80\x80"), (b"\xed\xa0\x80", r"\xed\xa0\x80"),
                 (b"\xf4\x90\x80\x80", r"\xf4\x90\x80\x80"), (b"\x1b[2J\xc2\x9b", r"\x1b[2J\xc2\x9b"),
                 (b'a"b\\\n', r'a\"b\\\x0a')]
        spans = [((5, 4), "no bytes at 5"), ((0, -2), "no bytes at 0"), ((-2**63, TO_END), f"bytes from {-2**63}")]
        files = [((0, i), 0, name, [(ME, 1, 1, OPEN, 0x8000 | READ | BATCH)]) for i, (name, _) in enumerate(names)]
        files[0][3].extend((ME, 1, 1, span, SHARED) for span, _ in spans)
        # Names in JSON and in labels cannot break their line, and the readers of both get all of them.
        table = Table(b"t\xff\n\"\\", len(files), 20, files)
        arena = Arena(self.directory, table)
        shown = [text or name.decode() for name, text in names]
        self.say("locks", arena.path, has=[f'  "{text}"  key' for text in shown] + [text + "\n" for _, text in spans] +
                 ["read, oplock-batch, 0x8000\n"])
        answer = self.ask("locks", arena.path)
        [told] = answer["tables"]
        self.assertEqual(told["name"], "t\u00ff\n\"\\")
        self.assertEqual([file["name"] for file in told["files"]],
                         [name.decode() if text is None or b'"' in name else name.decode("latin-1") if b"\x1b" not in name
                          else "\x1b[2J\u009b" for name, text in names])
        self.assertEqual([record.get("empty") for record in told["files"][0]["records"]], [None, True, True, False])
        self.say("metrics", arena.path, has=r'table="t\\xff\n\"\\"')

    def test_every_line_about_records_names_their_file(self):
        arena = sample(self.directory)
        for line in self.say("locks", arena.path, "--blocking").splitlines():
            if "owner" in line:
                self.assertRegex(line, 'report|ledger')

    def test_the_figures_are_what_prometheus_reads(self):
        arena = sample(self.directory, [(dead_pid(), 1, 1, OPEN, READ)])
        arena.hold(arena.table.base, dead_pid(), 0)
        figures, told = {}, None
        for line in self.say("metrics", arena.path, "-w0", status=2).splitlines():
            if line.startswith("# HELP "):
                told = line.split()[2]
            elif line.startswith("# TYPE "):
                self.assertEqual(line.split()[2:], [told, "gauge"])
            else:
                name, labels, value = re.fullmatch(r'(iosched_[a-z_]+)\{((?:[a-z]+="(?:[^"\\\n]|\\.)*",?)+)\} (\d+)', line).groups()
                self.assertEqual(name, told)
                self.assertNotIn((name, labels), figures)
                figures[name, labels] = int(value)
        sums = {}
        for (name, _), value in figures.items():
            sums[name[len("iosched_"):]] = sums.get(name[len("iosched_"):], 0) + value
        info = self.ask("info", arena.path, "-w0", status=2)
        [table] = info["tables"]
        wanted = {"arena_size_bytes": info["bytes"], "arena_readable": 1, "arena_copy_exact": 0, "arena_findings": 1,
                  "arena_used_bytes": info["usedBytes"], "arena_free_bytes": info["free"]["bytes"],
                  "arena_largest_free_block_bytes": info["free"]["largestBytes"],
                  "arena_free_blocks": info["free"]["blockCount"], "arena_chunks": info["chunkCount"],
                  "arena_users": len(info["users"]), "mutex_held": 1, "mutex_holder_dead": 1,
                  "table_file_entries": table["fileEntries"], "table_file_entries_used": 2,
                  "table_lock_records": table["lockRecords"], "table_lock_records_used": 6, "table_opens": 4,
                  "table_range_locks": 2, "table_processes": 2}
        stale = sums.pop("table_stale_records")
        self.assertIn(stale, (1, 6))  # this process does not use the arena either, where that can be seen
        self.assertEqual(sums, wanted)
        self.assertEqual(info["usedBytes"] + info["free"]["bytes"] + 72, info["bytes"])

    def test_a_change_under_a_living_holders_mutex_is_not_called_damage(self):
        arena = sample(self.directory)
        arena.poke(arena.table.first_file + 0x28, "I", 9)
        self.say("check", arena.path, status=2, has="open count")
        with User(arena) as holder:
            arena.hold(arena.table.base, holder.pid, holder.pid)
            self.say("check", arena.path, "-w10", has=["perhaps only a change half made", "open count"])


# The finding's code, where it points, and changes: at, bytes, value. Numbers are places or sizes by their
# names in places(), with so much added. Under the heading: what a repair makes of it.
DAMAGES = {
    "mended": """
mutex-holder     0+0x28          0+0x28 4 dead
mutex-holder     0+8             0+8 4 dead
block-link       0+0x38          0+0x38 8 0+0x4C
heap-gap         free            0+0x38 8 last
free-order       last            0+0x38 8 last  free 8 0  last 8 free
free-neighbours  last+48         last+16 8 0+48  last 8 last+48  last+48 8 0  last+64 8 last.size-48
block-twice      last            last 8 free
block-twice      tally           tally 8 free
references       tally+32        tally+32 4 0
slot-lost        ledger.0        ledger+80 8 ledger+80  ledger+88 8 ledger+80
back-link        report.2+8      report.2+8 8 0+0x48
back-link        table+152       table+152 8 0
combined-mode    report+32       report+32 4 0+1
open-count       report+40       report+40 4 0+3
""",
    "refused": """
mutex-kind       0+0x10          0+0x10 4 0
mutex-word       0               0 4 0+77
block-link       0+0x40          0+0x40 8 0+0x40
block-link       0+0x40          0+0x40 8 0-8
block-link       tally           tally 8 0+0x100000
block-size       tally+16        tally+16 8 0
block-size       tally+16        tally+16 8 0+113
block-size       tally+16        tally+16 8 0-8
heap-overlap     tally.end       tally+16 8 tally.size+8
heap-gap         tally.end-8     tally+16 8 tally.size-8
chunk-size       tally+24        tally+24 8 0+4096
chunk-size       tally+24        tally+24 8 0-1
block-surplus    tally+16        tally+8 8 0  tally+24 8 0+8
name-place       tally+8         tally+8 8 0+0x48
name-end         tally.name      tally.name 8 0+0x7878787878787878
name-twice       locks.name      tally.name 8 0+0x736B636F6C
padding          table+52        table+52 4 0+9
mutex-kind       table+16        table+16 4 0+1
buckets          table+88        table+88 4 0+17
buckets          table+88        table+88 4 0+0x80000000
table-link       table+72        table+72 8 0+0x48
table-link       report+80       report+80 8 0+3
table-link       table+112       table+112 8 table+128
slot-twice       report.1        report.1 8 report.0
slot-twice       report+80       table+72 8 report.0
wrong-bucket     report+16       report+16 8 0+0x802
file-name        ledger+44       ledger+64 1 0+0x78
padding          ledger+76       ledger+76 4 0+1
record-pid       ledger.0+16     ledger.0+16 4 0
padding          ledger.0+28     ledger.0+28 4 0+1
padding          ledger.0+52     ledger.0+52 4 0+1
key-twice        ledger+16       ledger+16 8 0+0x801  ledger+24 8 0+0x1267
""",
    "left": """
padding          0+0x2C          0+0x2C 4 0+1
table-state      table+48        table+48 4 0
""",
    "no arena": """
magic            0+0x30          0+0x30 4 0+1
version          0+0x34          0+0x34 4 0+2
"""}


def places(arena):
    """Where the things of a sample are, and their sizes, by name."""
    found = {"0": 0, "table": arena.table.base}
    for name, at, size, text in arena.blocks:
        name = name.decode().strip()
        found.update({name: at, name + ".size": size, name + ".end": at + size, name + ".name": text})
    for i, name in enumerate(["report", "ledger"]):
        found[name] = arena.table.first_file + 96 * i
        found.update((f"{name}.{j}", arena.table.first_record + 56 * (4 * i + j)) for j in range(4))
    return found


def damages_of(arena, dead):
    """(outcome, row, code, offset, changes) of every damage; changes are (offset, bytes)."""
    known = {"dead": dead, **places(arena)}

    def number(text):
        name, more = re.fullmatch(r"([a-z0-9.]+)([+-]\w+)?", text).groups()
        return known[name] + int(more or "0", 0)

    for outcome, rows in DAMAGES.items():
        for row in rows.strip().splitlines():
            code, place, *words = row.split()
            changes = [(number(at), (number(value) % 2**64).to_bytes(8, "little")[:int(size)])
                       for at, size, value in zip(*[iter(words)] * 3)]
            yield outcome, row, code, number(place), changes


class Damage(Case):
    """Every command ends with a whole answer and leaves no trace, and a repair keeps its promise."""

    def look(self, arena):
        """What check finds; all that look agree with it, and none of them writes."""
        before = arena.bytes()
        status = self.run_it("check", arena.path, "-w0")[0]
        self.assertIn(status, (0, 2))
        self.assertEqual(self.run_it("metrics", arena.path, "-w0")[0], status)
        answers = [self.ask(command, arena.path, "-w0", status=status) for command in ("info", "chunks", "locks", "check")]
        self.assertEqual([answer["damaged"] for answer in answers], [status == 2] * 4)
        self.assertEqual(arena.bytes(), before)
        return answers[-1]["findings"]

    def repair(self, arena):
        """It puts all right that a mutex guards, or changes nothing there and says why. Returns what became of it."""
        table = range(arena.table.base, arena.table.base + arena.table.size)
        before = arena.bytes()
        status, out, _ = self.run_it("repair", arena.path, "--json", "-w0")
        after = arena.bytes()
        if status == 1:
            self.assertEqual(after, before)
            return "no arena"
        refusals = {mutex["offset"]: mutex["refusal"] for mutex in json.loads(out)["mutexes"]}
        for offset, refusal in refusals.items():
            if refusal:
                # Refused by the repair itself, not for what the checker said of its result.
                self.assertNotRegex(refusal, r"\A0x")
                begin, end = (table.start, table.stop) if offset else (0, len(before))
                self.assertEqual(after[begin:end], before[begin:end])
        if refusals[0]:
            return "refused"
        found = json.loads(self.run_it("check", arena.path, "--json", "-w0")[1])["findings"]
        isTableWhole = refusals.get(table.start) == ""
        for finding in found:
            if isTableWhole or finding["offset"] not in table:
                self.assertTrue("mutex" in finding["code"] or "padding after the holder" in finding["place"], finding)
        return "refused" if any(refusals.values()) else "left" if found else "mended"

    def test_every_damage_is_named_and_mended_or_refused(self):
        dead, arena = dead_pid(), sample(self.directory)
        self.assertEqual(self.look(arena), [])
        sound = arena.bytes()
        arena.hold(0, dead, dead)
        arena.hold(arena.table.base, dead, dead)
        held = arena.bytes()
        for outcome, row, code, offset, changes in damages_of(arena, dead):
            with self.subTest(row):
                arena.write(sound, changes)
                self.assertIn((code, offset), [(finding["code"], finding["offset"]) for finding in self.look(arena)])
                arena.write(held, changes)
                self.assertEqual(self.repair(arena), outcome)
        for size in 71, len(sound) - 8:
            arena.write(sound[:size])
            self.say("check", arena.path, status=2, has="  file: ")

    def test_no_random_change_makes_a_look_crash_hang_or_write_or_a_repair_break_its_promise(self):
        """IOSCHED_DAMAGES sets the number of damaged arenas; any failure names its number, the seed."""
        dead, arena = dead_pid(), sample(self.directory, [(dead_pid(), 3, 3, OPEN, READ)])
        sound = arena.bytes()
        fields = [i for i, byte in enumerate(sound) if byte]
        arena.hold(0, dead, dead)
        arena.hold(arena.table.base, dead, dead)
        held = arena.bytes()
        for seed in range(1, 1 + int(os.environ.get("IOSCHED_DAMAGES", 40))):
            with self.subTest(seed=seed):
                chance = random.Random(seed)
                changes = [(chance.choice(fields if chance.random() < 0.7 else range(len(sound))), chance.randbytes(1))
                           for _ in range(chance.randint(1, 4))]
                arena.write(sound, changes)
                self.look(arena)
                arena.write(held, changes)
                self.repair(arena)

    def test_the_numbers_of_entries_and_records_that_no_field_holds_are_worked_out(self):
        """Seven entries take the room of twelve records, so the chunk's size alone does not tell."""
        wanted = [(0, 24), (7, 12), (14, 3), (32, 30), (33, 12), (40, 9), (64, 70), (100, 300)]
        arena = Arena(self.directory, *[Table(b"table %d" % i, *pair) for i, pair in enumerate(wanted)], pages=20)
        tables = self.ask("info", arena.path)["tables"]
        self.assertEqual([(table["fileEntries"], table["lockRecords"]) for table in tables], wanted)

    def test_blocks_that_all_overlap_are_taken_in_its_stride(self):
        """As many blocks as fit, each claiming the rest of the arena as its own: whoever read every chunk or
        name of it would take the square of its size."""
        size, arena = 4 << 20, sample(self.directory)
        image = bytearray(arena.bytes()[:0x48]) + b"x" * (size - 0x48)
        struct.pack_into("<QQ", image, 0x38, 0, 0x48)
        for at in range(0x48, size - 47, 48):
            struct.pack_into("<QQQQII", image, at, at + 48 if at + 96 <= size else 0, at + 41, size - at, 1, 1, 0x01010101)
        arena.write(image)
        answer = self.ask("check", arena.path, status=2)
        self.assertEqual(len(answer["findings"]), 1000)
        self.assertGreater(answer["findingsNotListed"], size // 48 // 2)


class Unkind(Case):
    """Files that change their size, servers in a hurry."""

    def test_a_file_that_shrinks_and_grows_under_the_reader_is_no_trap(self):
        arena, chance, done = sample(self.directory, pages=64), random.Random(1), threading.Event()

        def shrink_and_grow():
            while not done.is_set():
                os.truncate(arena.path, chance.randrange(1 << 18))

        restless = threading.Thread(target=shrink_and_grow)
        restless.start()
        try:
            for command in ["info", "chunks", "locks", "check"] * 12:
                status, out, _ = self.run_it(command, arena.path, "--json", "-w0")
                self.assertEqual(status, 2 if json.loads(out)["damaged"] else 0)
        finally:
            done.set()
            restless.join()

    def test_no_answer_about_a_table_under_fire_finds_anything_wrong(self):
        """IOSCHED_BUSY_SECONDS sets how long it looks."""
        arena = Arena(self.directory, Table(b"locks", 6, 20))
        with contextlib.ExitStack() as stack:
            for i in range(8):
                try:
                    stack.enter_context(User(arena, HURRY, LIBRARY, i))
                except OSError:
                    self.skipTest("Python cannot load this build of the library")
            end, seen = time.monotonic() + float(os.environ.get("IOSCHED_BUSY_SECONDS", 3)), set()
            while time.monotonic() < end:
                seen.add(self.say("locks", arena.path, "-w0"))
                for command in "info", "chunks", "locks", "check":
                    self.ask(command, arena.path, "-w10")
        self.assertGreater(len(seen), 5)


class Changes(Case):
    def test_tells_who_holds_a_mutex_and_repairs_it_once_the_holder_is_dead(self):
        for of_table, recorded in [(False, "itself"), (True, "itself"), (True, "nobody"), (True, "parent")]:
            arena = sample(self.directory)
            base, place = (arena.table.base, 'table "locks"') if of_table else (0, "arena header")
            with self.subTest(place, recorded=recorded), User(arena) as holder:
                arena.hold(base, holder.pid, {"itself": holder.pid, "nobody": 0, "parent": ME}[recorded])
                other = f", recorded as {ME}" if recorded == "parent" else ""

                def check(status, life):
                    self.say("check", arena.path, "-w10", status=status,
                             has=f"mutex of {place}: held by process {holder.pid} ({life}{other})\n")

                check(0, "alive")
                # Nobody gets past the arena's own mutex while it is held.
                self.say("repair", arena.path, "-w10", status=0 if of_table else 2,
                         has=f"{place}: held by process {holder.pid}, which lives")
                holder.kill_only()
                check(2, "ended, not reaped")
                holder.process.wait()
                check(2, "dead")
                self.say("clean", arena.path, status=2, has="arenactl repair has to free it first")
                self.say("repair", arena.path, "--dry-run", has="would be done\n")
                check(2, "dead")
                self.assertEqual(self.ask("repair", arena.path, "--dry-run")["result"], "would be done")
                self.say("repair", arena.path, has=f"{place}: held by process {holder.pid}, which is dead\n")
                self.say("check", arena.path, has="sound")
                self.assertEqual(arena.bytes()[base:base + 48], mutex())

    def test_a_lock_table_that_was_never_ready_is_given_up_on_demand(self):
        arena = Arena(self.directory, Table(b"locks", 4, 10), Table(b"half", 1, 1, state=0))
        self.say("repair", arena.path, "locks", status=2, has='the chunk "locks" is a lock table that is ready')
        self.say("repair", arena.path, "half", "gone", has=['chunk "half", a lock table that was never ready, given up',
                                                            'there is no chunk "gone"'])
        self.say("check", arena.path, has="sound: 2 blocks, 1 lock table")

    def test_a_process_that_does_not_use_the_arena_is_a_stranger(self):
        """An id that is used again: no holder, but its records go on demand only."""
        with User() as stranger:
            arena = sample(self.directory, [(stranger.pid, 3, 3, OPEN, READ)])
            name = f"process {stranger.pid}"
            arena.hold(0, stranger.pid, 0)
            self.say("check", arena.path, "-w0", status=2, has=[
                name + ", which is not a user of this", name + ", not a user of this arena (its id was used again); name it to arenactl clean"])
            self.say("repair", arena.path, has=name + ", which is dead\n")
            self.say("clean", arena.path, has=name + " runs but does not use this arena")
            self.say("clean", arena.path, stranger.pid, has="1 record of " + name)
        with User(arena) as user:
            self.say("clean", arena.path, user.pid, status=2, has="lives and uses the arena")


class CommandLine(Case):
    def test_what_is_no_arena_and_what_is_no_command_is_called_so(self):
        path, foreign, fifo = sample(self.directory).path, os.path.join(self.directory, "foreign"), self.directory + "/fifo"
        for size in 0, 1, 72, 8192:
            with open(foreign, "wb") as file:
                file.write(b"x" * size)
            for command in "info", "chunks", "locks", "check":
                self.say(command, foreign, status=2, has="not an arena")
                self.ask(command, foreign, status=2)
            self.say("metrics", foreign, status=2, has='/foreign"} 0\n')
        os.mkfifo(fifo)
        usage = "arenactl --help tells how it is used"
        for words, status, has in [
            (["--json", "info", path], 0, "{\n"), (["-j", "-w", 5, "info", path], 0, "{\n"),
            (["info", "-jw5", path], 0, "{\n"), (["--json", "--", "info", path], 0, "{\n"),
            (["--help"], 0, "usage: arenactl"), (["-V"], 0, "arenactl, "), (["--version"], 0, "7.1"),
            (["check", fifo], 1, fifo), (["check", path + "/x"], 1, "check the path"),
            (["check", self.directory + "/missing"], 1, "missing: No such file"),
            (["repair", foreign], 1, "no initialised arena; check the path"),
            (["repair", "--dry-run", foreign], 1, "not an arena"), (["clean", self.directory], 1, self.directory),
            ([], 1, usage), (["info"], 1, usage), (["info", path, path], 1, usage), (["shout", path], 1, '"shout": no such command'),
            (["-x", "info", path], 1, '"-x": no such option'), (["--jsno", "info", path], 1, '"--jsno": no such option'),
            (["info", path, "-w"], 1, '"-w": needs an argument'), (["locks", path, "--pid"], 1, "--pid: needs an argument"),
            (["clean", path, 0], 1, "from 1 to"), (["top", "-j", path], 1, "no JSON"), (["explain", "nix"], 1, '"nix": no result code'),
            (["explain", 350999], 1, "no result code"), (["explain", "22x"], 1, "no result code"),
        ]:
            with self.subTest(words):
                self.say(*words, status=status, has=has)

        with open("/dev/full", "wb") as full:
            done = subprocess.run([ARENACTL, "check", path], stdout=full, stderr=subprocess.PIPE, check=False)
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stderr, rb"\Aarenactl: standard output: No space left on device; .+\n\Z")

    def test_a_code_is_explained_by_number_and_name(self):
        for words, has in [
            ([350102], "SHARED_ERR_LOCKED  350102  0x55796  another holder"), (["0x55796"], "SHARED_ERR_LOCKED"),
            (["locked"], "SHARED_ERR_LOCKED"), (["SHARED_ERR_LOCKED"], "what to do: "), ([28], "ENOSPC  28"),
            (["ENOSPC"], "the whole arena"), (["EWOULDBLOCK"], "EAGAIN"), ([0], "success"),
            (["VERSION", "EPIPE"], ["SCHED_ERR_VERSION", "SHARED_ERR_VERSION", "EPIPE  32  0x20  Broken pipe"]),
        ]:
            self.say("explain", *words, has=has)
            self.ask("explain", *words)

    def test_the_codes_and_flags_are_those_of_headers_and_documents(self):
        headers = source("include/iosched/sched.h") + source("include/iosched/shared.h")
        declared = {}
        for name in os.listdir(os.path.join(SOURCE, "include/iosched")):
            for code, number in re.findall(r"#define (\w+_ERR_\w+) (\d+)", source("include/iosched/" + name)):
                declared[code] = int(number)
        self.assertGreater(len(declared), 10)
        told = {entry["name"]: entry for entry in self.ask("explain")["codes"]}
        codes = {name: entry for name, entry in told.items() if "_ERR_" in name}
        self.assertEqual({name: entry["code"] for name, entry in codes.items()}, declared)
        document = source("docs/formats.md")
        flags = re.findall(r"#define (SHARED_FILE_\w+) (0x[0-9A-Fa-f]+)u", headers)
        self.assertEqual(sorted((name, int(bits, 16)) for name, bits in flags),
                         sorted((name, int(bits, 16)) for name, bits in re.findall(r"^\| `(SHARED_FILE_\w+)` \| (0x\w+) ", document, re.M)))
        table = dict(re.findall(r"^\| `(\w+)` \| (.*) \|$", document, re.M))
        for name, entry in codes.items():
            self.assertIn(entry["meaning"], re.findall(rf"#define {name} \d+ +/\* (.*?) \*/", headers))
            self.assertEqual(table[name], f"{entry['code']} | {entry['meaning']} | {entry['remedy']}")
        for name in set(re.findall(r"\bE[A-Z]{4,}\b", source("include/iosched/shared.h"))) - {"EXCLUSIVE"}:
            self.assertIn(name, told)

    def test_help_manual_and_completions_name_the_same_words(self):
        usage = self.say("--help")
        commands = set(re.findall(r"^  ([a-z]+) +", usage, re.M))
        options = re.findall(r"^  (-\w\b)?(?:, )?(--[\w-]+)?", usage, re.M)
        options = {word for pair in options for word in pair if word}
        self.assertTrue({"info", "explain"} <= commands and {"-j", "-w", "--json", "--pid", "-n"} <= options)

        bash = source("tools/arenactl/completions/arenactl.bash")
        self.assertEqual(set(re.search(r"commands='(.*)'", bash)[1].split()), commands)
        self.assertEqual(set(re.search(r"options='(.*)'", bash)[1].split()), options)
        zsh = source("tools/arenactl/completions/_arenactl")
        self.assertEqual(set(re.findall(r"^    '([a-z]+):", zsh, re.M)), commands)
        self.assertEqual(set(re.search(r"\(r\)\(([a-z|]+)\)", zsh)[1].split("|")), commands)
        self.assertEqual({word for line in re.findall(r"^    '(?:\(.*\)'\{)?(-[-\w,]+)", zsh, re.M) for word in line.split(",")}, options)
        fish = source("tools/arenactl/completions/arenactl.fish")
        self.assertEqual(set(re.search(r"commands (.*)", fish)[1].split()), commands)
        self.assertEqual(set(re.findall(r"\$none -a (\w+)", fish)), commands)
        declared = " ".join(re.findall("^complete .*", fish, re.M))
        self.assertEqual({"-" + letter for letter in re.findall(r" -s (\w)", declared)} |
                         {"--" + word for word in re.findall(r" -l ([\w-]+)", declared)}, options)
        manual = source("docs/man/arenactl.1").replace("\\-", "-")
        self.assertEqual(set(re.findall(r"^\.It Cm (\w+)$", manual, re.M)), commands)
        self.assertEqual({"-" + word for line in re.findall(r"^\.It (Fl .*)", manual, re.M)
                          for word in re.findall(r"Fl ([\w-]+)", line)}, options)

    def test_bash_completes_commands_options_and_codes(self):
        script = os.path.join(SOURCE, "tools/arenactl/completions/arenactl.bash")
        program = ('. "$1"; shift; COMP_WORDS=(arenactl "$@"); COMP_CWORD=$#; _arenactl; echo "${COMPREPLY[@]}"')
        paths = os.path.dirname(ARENACTL) + ":" + os.environ["PATH"]
        for words, wanted in [(["me"], "metrics"), (["-j", "--dry"], "--dry-run"), (["-w", "5", "ex"], "explain"),
                              (["explain", "SHARED_ERR_LO"], "SHARED_ERR_LOCKED"), (["info", "-w", ""], "")]:
            done = subprocess.run(["bash", "-c", program, "bash", script, *words], capture_output=True, text=True,
                                  env={**os.environ, "PATH": paths}, check=True)
            self.assertEqual(done.stdout.strip(), wanted, done.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[4:])
