#!/usr/bin/env python3
"""Runs the benchmark workers of a build tree: one table, results.json and two plots beside them.

usage: bench.py [--quick] BUILD [REGEX]     REGEX picks lines of the table by their text

All workers of a line are started first, then asked for a round each in turn, several times over; the
table shows medians, and how the first column compares to the best of the others: in each round by
itself, since the speed of a shared machine changes between rounds."""
import json, os, platform, re, select, signal, statistics, subprocess, sys, time

LOOPS = ["iosched", "libevent", "libuv", "libev", "sdevent"]
LOCKS = ["iosched", "pthread", "kernel"]
EXCUSES = {3: "none", 4: "descr. limit"}  # by a worker's exit status
PATIENCE = 10.0  # seconds in which a worker is prepared and warm, or answers a round; else "too slow"
SHARE = 2.0  # seconds for all rounds of a worker; three are always made
UNITS = ((1e9, "s"), (1e6, "ms"), (1e3, "us"))


def rows(title, work, sizes, goal, columns=LOOPS, program="bench_{column} {work}"):
    """Lines of the table: one for each of the sizes, or pairs of size and number of busy ones."""
    pairs = [size if isinstance(size, tuple) else (size, 1) for size in sizes]
    return [dict(title=title.format(n=f"{n:,}", busy=f"{busy:,}"), work=work, size=n, busy=busy,
                 goal=goal, columns=columns, program=program) for n, busy in pairs]


def locks(title, work, sizes, goal, columns):
    return rows(title, work, sizes, goal, columns, "bench_locks {work}-{column}")


# The last number of each is the ratio to the best peer that iosched aims at, at most.
TABLE = (
    rows("a pass with one event", "idle", [0], 1.0)
    + rows("one event among {n} idle descriptors", "idle", [100, 1000, 10000], 1.1)
    + rows("the active one wanders among {n}", "ready", [10, 100, 1000, 10000], 1.1)
    + rows("{busy} of {n} ready in each pass", "ready", [(1000, k) for k in (10, 100, 500, 1000)], 1.0)
    + rows("registered anew in each pass, {n} idle", "anew", [0, 1000], 1.1)
    + rows("another one gone or back in each pass, {n} idle", "toggled", [0, 1000], 1.1)
    + rows("timer started and stopped, {n} running", "start-stop", [100, 1000, 10000, 100000], 1.0)
    + rows("one of {n} equal timers started", "start-equal", [1000, 10000], 1.0)
    + rows("one of {n} timers fired", "fire", [1000, 10000, 100000], 0.8)
    + rows("a deferred call, {n} waiting", "deferred", [10, 1000, 100000], 1.5)
    + rows("one message to {n} pipes", "aio-kept", [10, 100, 1000, 5000], 1.1)
    + rows("a message in each of {n} pipes", "aio-kept", [(n, n) for n in (10, 100, 1000, 5000)], 1.0)
    + rows("the same, asked for anew, {n} pipes", "aio-anew", [(n, n) for n in (10, 100, 1000, 5000)], 1.1)
    + rows("the end of a child among {n}", "child", [10, 100, 1000], 1.1)
    + rows("echo request, {n} connections, {busy} busy", "echo",
           [(100, 10), (100, 64), (1000, 100), (1000, 64), (5000, 500), (5000, 64)], 1.0)
    + locks("shared mutex locked and unlocked", "mutex", [0], 1.5, ["iosched", "pthread"])
    + locks("range locked and unlocked, {n} other files", "range", [0, 4000], 1.0, ["iosched", "kernel"])
    + locks("the same, the kernel asked who calls", "range-getpid", [0], None, ["iosched"])
    + locks("file opened and closed, {n} other files", "open", [0, 4000], None, ["iosched"])
    + locks("the same, the kernel asked who calls", "open-getpid", [0], None, ["iosched"])
    + locks("chunk found and given back, {n} others", "chunk", [10, 100, 1000], None, ["iosched"])
)


class Failed(Exception):
    """A worker found something wrong, or waits for an event that has not come."""


class Worker:
    """One library at one line of the table. `excuse` says why it has no figures."""

    def __init__(self, build, column, row, milliseconds):
        self.column, self.rounds, self.excuse, self.buffer = column, [], None, b""
        self.command = row["program"].format(work=row["work"], column=column).split()
        self.command += [str(row["size"]), str(row["busy"]), str(milliseconds)]
        # A session of its own: what the worker starts is ended with it.
        self.process = subprocess.Popen([f"{build}/bench/{self.command[0]}"] + self.command[1:],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, start_new_session=True)

    def failed(self, why):
        return Failed(" ".join(self.command) + ": " + why)

    def answer(self):
        """The next line, or None: then the worker is gone and the excuse is set."""
        deadline = time.monotonic() + PATIENCE
        while b"\n" not in self.buffer:
            if not select.select([self.process.stdout], [], [], max(0, deadline - time.monotonic()))[0]:
                if self.sleeps():
                    raise self.failed("an event is missing")
                return self.give_up("too slow")
            piece = os.read(self.process.stdout.fileno(), 4096)
            if not piece:
                return self.ended()
            self.buffer += piece
        line, self.buffer = self.buffer.split(b"\n", 1)
        return line.decode()

    def sleeps(self):
        """Whether it is asleep at every look: it would be running if it were only slow."""
        for _ in range(20):
            with open(f"/proc/{self.process.pid}/stat") as stat:
                if stat.read().rsplit(")", 1)[1].split()[0] != "S":
                    return False
            time.sleep(0.05)
        return True

    def ended(self):
        if self.process.wait() in EXCUSES:
            return self.give_up(EXCUSES[self.process.returncode])
        raise self.failed(self.process.stderr.read().decode().strip())

    def give_up(self, excuse):
        self.excuse = excuse
        self.stop()

    def round(self):
        began = time.monotonic()
        self.process.stdin.write(b"\n")
        self.process.stdin.flush()
        line = self.answer()
        if line is not None:
            self.rounds.append(float(line))
        return time.monotonic() - began

    def stop(self):
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()


def measure(build, row, rounds, milliseconds):
    """Fills in the row's `median` and `rounds` by column."""
    workers = []
    try:
        for column in row["columns"]:
            workers.append(Worker(build, column, row, milliseconds))
            workers[-1].answer()  # one prepares at a time
        spent = dict.fromkeys(row["columns"], 0.0)
        for number in range(rounds):
            for worker in workers:
                if worker.excuse is None and (number < 3 or spent[worker.column] < SHARE):
                    spent[worker.column] += worker.round()
    finally:
        for worker in workers:
            worker.stop()
    row["median"] = {w.column: w.excuse or statistics.median(w.rounds) for w in workers}
    row["rounds"] = {w.column: w.rounds for w in workers}
    row["ratio"] = ratio(*(w.rounds if w.excuse is None else [] for w in workers))


def ratio(own, *peers):
    """To the best peer: the median over all rounds, or None where there is nothing to compare."""
    ratios = [statistics.median(a / b for a, b in zip(own, rounds)) for rounds in peers if own and rounds]
    return max(ratios, default=None)


def figure(value):
    if isinstance(value, str):
        return value
    for size, unit in UNITS:
        if value >= size:
            return f"{value / size:.3g} {unit}"
    return f"{value:.3g} ns"


def line(row, columns):
    cells = "".join(f"{figure(row['median'].get(c, '-')):>13}" for c in columns)
    if row["ratio"] is None:
        return f"{row['title']:<50}{cells}"
    missed = row["goal"] is not None and row["ratio"] > row["goal"] + 0.005
    return f"{row['title']:<50}{cells}{row['ratio']:>9.2f}x{' *' if missed else ''}"


def heading(columns):
    return f"\n{'':<50}" + "".join(f"{c:>13}" for c in columns) + f"{'to best':>10}"


def plot(path, results, work, title, axis):
    """Cost against size, a line for each library, as an SVG."""
    lines = sorted((r for r in results if r["work"] == work and r["size"] > 0), key=lambda r: r["size"])
    if len(lines) < 2:
        return
    data = {c: [(r["size"], r["median"][c]) for r in lines if not isinstance(r["median"][c], str)]
            for c in LOOPS}
    drawn = {c: points for c, points in data.items() if points}
    script = [f"set terminal svg size 640,400 font 'sans,12' background 'white'; set output '{path}'", "set logscale xy",
              f"set title '{title}'; set xlabel '{axis}'; set ylabel 'ns'; set key left top; set grid"]
    for column, points in drawn.items():
        script += [f"${column} << END"] + [f"{x} {y}" for x, y in points] + ["END"]
    script.append("plot " + ", ".join(f"${c} with linespoints lw 2 title '{c}'" for c in drawn))
    subprocess.run(["gnuplot"], input="\n".join(script), text=True, check=True)
    print(path)


def machine():
    with open("/proc/cpuinfo") as cpuinfo:
        model = re.search(r"model name\s*: (.*)", cpuinfo.read())
    return dict(processor=model[1] if model else platform.machine(), cores=os.cpu_count(),
                kernel=platform.release(), load=os.getloadavg()[0])


def main(arguments):
    quick = "--quick" in arguments
    build, pattern = ([a for a in arguments if a != "--quick"] + [""])[:2]
    results, columns = [], None
    for row in (r for r in TABLE if re.search(pattern, r["title"])):
        measure(build, row, *((3, 5) if quick else (25, 10)))
        own = LOCKS if row["program"].startswith("bench_locks") else LOOPS
        if own != columns:
            columns = own
            print(heading(columns))
        print(line(row, columns), flush=True)
        results.append(row)
    print("\nProcessor time for each operation, medians. *: further behind the best than it should be.")
    with open(f"{build}/bench/results.json", "w") as out:
        json.dump(dict(machine=machine(), results=results), out, indent=1)
    print(f"{build}/bench/results.json")
    plot(f"{build}/bench/descriptors.svg", results, "idle", "A pass with one event", "idle descriptors")
    plot(f"{build}/bench/timers.svg", results, "start-stop", "A timer started and stopped", "running timers")


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except Failed as failure:
        sys.exit(f"bench: {failure}")
