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

# Exactly the list, each name under the version node that the list gives it.
awk '/^@/ { node = substr($0, 2) } /^[A-Za-z_]/ { print $0 "@@" node }' "$SOURCE/src/exports.list" |
    sort >"$scratch/listed"
nm -D --defined-only "$so" | awk '$3 !~ /^IOSCHED_[0-9.]+$/ { print $3 }' | sort >"$scratch/exported"
diff "$scratch/listed" "$scratch/exported" || fail "exported symbols differ from src/exports.list"

# C++ leaves marks in the names of what it needs: beside the library's own, none may be asked for.
nm --defined-only "$LIBDIR/libiosched.a" | awk 'NF == 3 { print $3 }' | sort -u >"$scratch/own"
nm -u "$LIBDIR/libiosched.a" | awk '$2 ~ /^(_Z|__cxa|__gxx|_Unwind)/ { print $2 }' | sort -u |
    comm -23 - "$scratch/own" >"$scratch/runtime"
[ ! -s "$scratch/runtime" ] || fail "the C++ run-time library is needed: $(cat "$scratch/runtime")"

# In a statically linked program the archive's names stand beside the program's own.
grep '^[A-Za-z_]' "$SOURCE/src/exports.list" | sort >"$scratch/interface"
nm -g --defined-only "$LIBDIR/libiosched.a" | awk 'NF == 3 { print $3 }' |
    grep -vE '^_ZNK?11iosched_lib' | sort -u | comm -23 - "$scratch/interface" >"$scratch/foreign"
[ ! -s "$scratch/foreign" ] || fail "global names that a program may have too: $(cat "$scratch/foreign")"
for library in "$LIBDIR/libiosched.a" "-L$LIBDIR -liosched -Wl,-rpath,$LIBDIR"; do
    # shellcheck disable=SC2086  # a list of options
    "$CC" -I"$TREE/include" -o "$scratch/own_names" "$here/own_names.c" $library ||
        fail "a program with names of its own does not link ($library)"
    "$scratch/own_names" || fail "the library uses the program's own names ($library)"
done
