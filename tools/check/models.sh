#!/bin/sh
# Checks the protocols in docs/models/ with Spin: as they stand, each has to be free of violations,
# and with any of its guards taken out (the macros that its head names) the same search has to find
# the fault that the guard is there for.
set -eu
cd "$(dirname "$0")/../.."

failed=0

# search MODEL GUARD: leaves the search's report in the directory's log; GUARD may be empty.
search() {
    dir=build/models/$1${2:+-$2}
    mkdir -p "$dir"
    (
        cd "$dir"
        spin ${2:+-D"$2"} -a "../../../docs/models/$1.pml"
        cc -O2 -w -DSAFETY -DCOLLAPSE -o pan pan.c
        ./pan -m100000 -w24
    ) </dev/null >"$dir/log" 2>&1
    states=$(sed -n 's/^ *\([0-9.e+]*\) states, stored.*/\1/p' "$dir/log")
    errors=$(sed -n 's/.*errors: \([0-9]*\)$/\1/p' "$dir/log")
    if [ -z "$errors" ] || grep -q -e 'max search depth too small' -e 'out of memory' "$dir/log"; then
        tail -n 20 "$dir/log" >&2
        exit 1
    fi
}

verdict() {
    printf '%-8s %-22s %10s states, violations %s: %s\n' "$1" "$2" "$states" "$errors" "$3"
}

for model in docs/models/*.pml; do
    name=$(basename "$model" .pml)
    search "$name" ''
    if [ "$errors" -eq 0 ]; then
        verdict "$name" 'as it stands' ok
    else
        verdict "$name" 'as it stands' "FAILED, spin -k $dir/$name.pml.trail -p $model"
        failed=1
    fi
    # shellcheck disable=SC2013  # words
    for guard in $(sed -n 's/^ \* guards: //p' "$model"); do
        search "$name" "$guard"
        if [ "$errors" -gt 0 ]; then
            verdict "$name" "$guard" 'fault found'
        else
            verdict "$name" "$guard" 'FAILED, the fault was not found'
            failed=1
        fi
    done
done
exit "$failed"
