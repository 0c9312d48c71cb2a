#!/bin/sh
# The libraries as a packager looks at them: names, exported symbols, what they need.
. "${0%/*}/common.sh"

so=$LIBDIR/libiosched.so.7.1.0
[ -f "$so" ] || fail "$so is missing"
[ "$(readlink "$LIBDIR/libiosched.so")" = libiosched.so.7 ] || fail "development link"
[ "$(readlink "$LIBDIR/libiosched.so.7")" = libiosched.so.7.1.0 ] || fail "run-time link"
readelf -d "$so" | grep -q 'SONAME.*\[libiosched.so.7\]' || fail "SONAME"

needed=$(readelf -d "$so" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | grep -v '^libc\.so\.6$' || true)
[ -z "$needed" ] || fail "needs more than libc: $needed"

# Exactly the list, each name under the library's own version node and no other.
grep '^[A-Za-z_]' "$SOURCE/src/exports.list" | sed 's/$/@@IOSCHED_7.1/' | sort >"$scratch/listed"
nm -D --defined-only "$so" | awk '$3 != "IOSCHED_7.1" { print $3 }' | sort >"$scratch/exported"
diff "$scratch/listed" "$scratch/exported" || fail "exported symbols differ from src/exports.list"

# C++ leaves marks in the names of what it needs: beside the library's own, none may be asked for.
nm --defined-only "$LIBDIR/libiosched.a" | awk 'NF == 3 { print $3 }' | sort -u >"$scratch/own"
nm -u "$LIBDIR/libiosched.a" | awk '$2 ~ /^(_Z|__cxa|__gxx|_Unwind)/ { print $2 }' | sort -u |
    comm -23 - "$scratch/own" >"$scratch/runtime"
[ ! -s "$scratch/runtime" ] || fail "the C++ run-time library is needed: $(cat "$scratch/runtime")"
