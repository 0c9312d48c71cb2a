#!/bin/sh
# The whole programs in the documents are those of examples/, compile on the installed tree, and link.
. "${0%/*}/common.sh"

for page in "$SOURCE"/README.md "$SOURCE"/docs/*.md; do
    awk -v out="$scratch/$(basename "$page" .md)" '
        /^```/ { if (code && text ~ /int main\(/) printf "%s", text >(out (++count) ".c")
                 code = ($0 == "```c"); text = ""; next }
        code { text = text $0 "\n" }' "$page"
done
[ -f "$scratch/README1.c" ] || fail "no program in README.md"
for program in "$scratch"/*.c; do
    same=
    for example in "$SOURCE"/examples/*.c; do ! cmp -s "$program" "$example" || same=yes; done
    [ -n "$same" ] || fail "a program in the documents differs from those of examples/: $(head -n 1 "$program")"
    "$CC" -std=c11 -D_GNU_SOURCE -Wall -Wextra -Werror -Wno-missing-field-initializers \
        -I"$TREE/include" -o "$scratch/program" "$program" "$LIBDIR/libiosched.a"
done
