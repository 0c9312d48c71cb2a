#!/bin/sh
# Runs the small example programs: what each prints, and how it takes the end of its input, a hang-up
# and lines that come in pieces.
#
#   programs.sh DIRECTORY
set -eu
bin=$1
LC_ALL=C
export LC_ALL
scratch=$(mktemp -d "${TMPDIR:-/tmp}/iosched-programs.XXXXXX")
server=
skeleton=
# shellcheck disable=SC2086  # none to two process ids
trap 'rm -rf "$scratch"; [ -z "$server$skeleton" ] || kill $server $skeleton 2>/dev/null' EXIT
fail() {
    echo "programs.sh: $*" >&2
    exit 1
}

# says EXPECTED PROGRAM [ARGUMENTS]: standard output, whole, and exit status 0.
says() {
    expected=$1
    shift
    program=$1
    shift
    said=$(timeout 60 "$bin/$program" "$@") || fail "$program ended with $?"
    [ "$said" = "$expected" ] || fail "$program said: $said"
}

says 'exit 3, ticked meanwhile: yes
read one
read two
exit 0
apple
pear
exit 0' commands
says 'piece, 2 left
one batch by hand: 1
withdrawn: 1
piece, 1 left
piece, 0 left
nothing left to do: 1
the table has grown: 1
suspended but ready: 1' delayed
says 'hook: the child has a loop of its own
worker: exit 3
program: signal 15' workers
says 'signal 10: the idle timer starts anew
5 beats in at least 100 ms: yes
idle for 200 ms
stopping what is not running any more: 0' timers
[ "$("$bin/terminal" | tr -d '\r')" = '24 80' ] || fail terminal
says 'counted to 2000
in use: not deleted' chunks "$scratch/arena"
says "open: 350107
the oplock is the other's: 1
bytes before its lock: 50
open after the cleaning: 0
a.txt: mode 1, 1 open
known: 0" file_locks "$scratch/arena"
[ ! -e "$scratch/arena" ] || fail "an arena was left"
printf hi >"$scratch/file"
says "cut: a-name-that-is-, verbose 1
2 bytes, the first is 'h'
1970 as a file time: 116444736000000000, and back: 0" options -v -n a-name-that-is-too-long "$scratch/file"
"$bin/options" -x 2>"$scratch/said" && fail "options takes -x"
grep -q 'illegal option -- x' "$scratch/said" || fail "options: $(cat "$scratch/said")"
"$bin/figures" "$scratch" | grep -q 'blocks of [0-9]* bytes free' || fail "figures"
"$bin/trace" | tail -n 4 | tr '\n' ' ' | grep -q 'enter, level=1 .*enter, level=2 .*leave, level=2 .*leave, level=1' ||
    fail "trace"

"$bin/daemon" "$scratch/log" >"$scratch/said"
[ "$(cat "$scratch/said")" = 'going into the background' ] || fail "daemon says it twice"
while [ ! -s "$scratch/log" ]; do sleep 0.05; done # ctest keeps the deadline
[ "$(cat "$scratch/log")" = 'session of its own, terminal none' ] || fail "daemon: $(cat "$scratch/log")"

# A line in two pieces, a tick in between, and the end of the input, which ends the program.
said=$({ printf part && sleep 1.2 && printf 'line\n'; } | "$bin/ticker")
[ "$said" = '4 bytes
tick
5 bytes' ] || fail "ticker: $said"
head -c 300000 /dev/urandom >"$scratch/bytes"
"$bin/aio_echo" <"$scratch/bytes" >"$scratch/echo"
cmp "$scratch/echo" "$scratch/bytes" || fail "aio_echo"
"$bin/aio_echo" </dev/zero | head -c 1 >/dev/null || fail "aio_echo: nobody reads" # ends by EPIPE

# Without timeout(1) in front: that sends a SIGCONT and a second SIGTERM after the first, and a program
# that is stopped by its leak checker just then may never come out of it.
"$bin/skeleton" &
skeleton=$!
# A port that is free now may be somebody else's a moment later: then another one.
for attempt in 1 2 3 4 5; do
    port=$(python3 -c 'import socket; s = socket.create_server(("127.0.0.1", 0)); print(s.getsockname()[1])')
    "$bin/echo_server" "$port" &
    server=$!
    sleep 0.3
    kill -0 "$server" 2>/dev/null && break
    [ $attempt -lt 5 ] || fail "echo_server finds no port"
done
python3 - "$port" <<'PY' || fail "echo_server"
import socket, sys, time
def connect():
    for attempt in range(200):
        try:
            return socket.create_connection(("127.0.0.1", int(sys.argv[1])), 20)
        except ConnectionRefusedError:
            time.sleep(0.05)
    sys.exit("nobody listens")
gone, lazy, client = connect(), connect(), connect()
gone.sendall(b"and away")
gone.close()                                  # hangs up with its echo unread
lazy.setblocking(False)
sent = 0
try:
    while True:
        sent += lazy.send(b"x" * 65536)       # does not read: the server stops reading it
except BlockingIOError:
    pass
for piece in (b"par", b"tial li", b"ne\n"):   # and everybody else goes on
    client.sendall(piece)
    got = b""
    while len(got) < len(piece):
        got += client.recv(100)
    assert got == piece, got
client.shutdown(socket.SHUT_WR)
assert client.recv(100) == b""                # the end of its input ends the connection
lazy.setblocking(True)
while sent > 0:
    sent -= len(lazy.recv(1 << 20))
assert sent == 0
PY
kill "$server" "$skeleton"
wait "$server" || fail "echo_server ended with $?"
wait "$skeleton" || fail "skeleton ended with $?"
server=
skeleton=
