#!/bin/sh
# The whole programs in the documents are those of examples/, compile on the installed tree, and link;
# the pieces of C in the guide stand in them word for word.
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

awk -v out="$scratch/guide" '
    /^```/ { if (code && text !~ /int main\(/) printf "%s", text >(out (++count) ".part")
             code = ($0 == "```c"); text = ""; next }
    code { text = text $0 "\n" }' "$SOURCE/docs/guide.md"
[ -f "$scratch/guide1.part" ] || fail "no piece of a program in the guide"
for part in "$scratch"/*.part; do
    same=
    for example in "$SOURCE"/examples/*.c; do
        awk 'NR == FNR { part = part $0 "\n"; next } { all = all $0 "\n" } END { exit !index(all, part) }' \
            "$part" "$example" && same=yes
    done
    [ -n "$same" ] || fail "this piece of the guide is in no program of examples/: $(cat "$part")"
done
