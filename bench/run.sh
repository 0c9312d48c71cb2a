#!/bin/sh
# bench/run.sh BUILD: every benchmark of a build tree, one table.
set -eu
found=
for program in "$1"/bench/bench_*; do
    case $program in *.cmake | *\*) continue ;; esac
    found=yes
    "$program" --benchmark_counters_tabular=true
done
[ -n "$found" ] || {
    echo "no benchmark was built" >&2
    exit 1
}
