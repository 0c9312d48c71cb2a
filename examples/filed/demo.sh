#!/bin/bash
# Starts filed with four workers, drives it by hand and with filed-load while workers are killed, and
# ends with a summary. usage: demo.sh BUILD-DIRECTORY; DEMO_SECONDS sets the length of the load (15).
set -u

build=$(cd "${1:?usage: demo.sh BUILD-DIRECTORY}" && pwd) || exit 1
filed=$build/examples/filed/filed
load=$build/examples/filed/filed-load
arenactl=$build/tools/arenactl/arenactl
seconds=${DEMO_SECONDS:-15}

scratch=$(mktemp -d) || exit 1
server=
finish() {
    [ -z "$server" ] || kill "$server" 2>/dev/null
    wait
    rm -rf "$scratch"
}
trap finish EXIT
trap 'exit 1' INT TERM

bold() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
[ -t 1 ] || bold() { printf '\n== %s\n' "$*"; }
indent() { sed -u 's/^/    /'; }

# One connection: sends the lines given, shows what comes back.
client() { printf '%s\n' "$@" QUIT | timeout 20 nc -N 127.0.0.1 "$port"; }
field() { sed -n "s/.* $1 \([0-9]*\).*/\1/p" <<<"$2"; }
recordsInUse() { "$arenactl" locks "$scratch/arena" | sed -n 's/.*, \([0-9]*\) of [0-9]* records in use.*/\1/p'; }

bold "a server with four workers"
mkdir "$scratch/served"
echo 'This file is served.' >"$scratch/served/notes.txt"
user=()
if [ "$(id -u)" = 0 ]; then # the server becomes somebody else, and RUN runs as that user
    user=(-u nobody)
    chown -R nobody "$scratch"
fi
"$filed" -R "${user[@]}" -A "$arenactl" -w 4 -p 0 -g 1 -r "$scratch/served" -a "$scratch/arena" -P "$scratch/pid" \
    -l "$scratch/log" >"$scratch/out" &
server=$!
for _ in $(seq 100); do
    [ -s "$scratch/pid" ] && break
    sleep 0.1
done
[ -s "$scratch/pid" ] || { cat "$scratch/out" "$scratch/log"; exit 1; }
read -r _ port <"$scratch/pid"
indent <"$scratch/out"

bold "two clients and an oplock: the second open is refused and told who holds it"
(
    printf 'OPEN read,write,oplock-batch notes.txt\n'
    sleep 1
) | nc -N 127.0.0.1 "$port" | sed 's/^/    first   /' &
sleep 0.4
client 'OPEN read notes.txt' 'HOLDERS notes.txt' | sed 's/^/    second  /'
wait %2

bold "room on the file system, a program's output, and a client that sleeps"
client DF 'RUN uname -s; echo "status follows"; exit 3' | indent
printf '    SLEEP 800 on one connection; meanwhile, on others of the same workers:\n'
client 'SLEEP 800' >"$scratch/slept" &
sleeper=$!
answered=0
while kill -0 "$sleeper" 2>/dev/null; do
    client STATS | grep -q '^OK workers' && answered=$((answered + 1))
done
wait "$sleeper"
printf '    %s connections served and answered before this came: %s\n' \
    "$answered" "$(grep slept "$scratch/slept")"

bold "filed-load for $seconds s, workers killed raw, many of them inside the lock table"
"$load" --kill9 -a "$scratch/arena" -p "$port" -t "$seconds" >"$scratch/load" 2>&1 &
loader=$!
tail -f --pid="$loader" -n +1 "$scratch/load" | grep --line-buffered ' s ' | indent &
sleep $((seconds / 3))
# One write, so that the load's lines do not come in between.
picture=$("$arenactl" locks "$scratch/arena" | cut -c1-100 | sed -n '1,9p' | indent)
printf '  the lock table, as arenactl sees it now (its first lines):\n%s\n' "$picture"
sleep $((seconds / 3))
printf '  SIGHUP: every worker is replaced, one at a time; nobody is refused\n'
kill -HUP "$server"
wait "$loader"
loadStatus=$?
sleep 0.2
sed -n '/^request/,$p' "$scratch/load" | indent

bold "what is left"
for _ in $(seq 50); do # the last connections end, the last dead worker is cleaned up after
    left=$(recordsInUse)
    [ "$left" = 0 ] && break
    sleep 0.1
done
stats=$(client STATS | grep '^OK workers')
"$arenactl" check "$scratch/arena" | tail -n +2 | indent
checkStatus=${PIPESTATUS[0]}
kill -TERM "$server"
wait "$server"
serverStatus=$?
server=
grep -E 'died holding|replacing|ended' "$scratch/log" | tail -n 4 | indent

violations=$(sed -n 's/^conflicting grants: \([0-9]*\) .*/\1/p' "$scratch/load")
refused=$(sed -n 's/.*lost, \([0-9]*\) refused/\1/p' "$scratch/load")
inside=$(sed -n 's/^raw kills: [0-9]*, \([0-9]*\) .*/\1/p' "$scratch/load")
wait=$(sed -n 's/^raw kills: .* one: \(.*\)/\1/p' "$scratch/load")
repaired=$(field repaired "$stats")
killed=$(field killed "$stats")
replaced=$(field replaced "$stats")
bold summary
printf '    %-34s %s\n' \
    'requests served' "$(field requests "$stats")" \
    'connections accepted' "$(field accepted "$stats")" \
    'connection attempts refused' "${refused:-?}" \
    'workers killed' "${killed:-?} (${inside:-?} of them inside the lock table)" \
    'repairs of the lock table' "${repaired:-?}" \
    'longest wait for a grant' "${wait:-?} after a kill" \
    'workers started in their place' "${replaced:-?} (SIGHUP's included)" \
    'conflicting grants' "${violations:-?}" \
    'records left over' "${left:-?}" \
    'the arena, checked' "$([ "$checkStatus" = 0 ] && echo sound || echo "status $checkStatus")" \
    'exit status of the server' "$serverStatus"

good=1
[ "$loadStatus" = 0 ] || good=0
[ "$violations" = 0 ] && [ "$refused" = 0 ] && [ "$left" = 0 ] || good=0
[ "${killed:-0}" -gt 0 ] && [ "${replaced:-0}" -ge "${killed:-0}" ] || good=0
[ "$checkStatus" = 0 ] && [ "$serverStatus" = 0 ] && [ "$answered" -gt 0 ] || good=0
if [ "$good" = 1 ]; then
    printf '\n    all is well\n'
else
    printf '\n    SOMETHING IS WRONG; the log of the server ends:\n'
    tail -n 20 "$scratch/log" | indent
    exit 1
fi
