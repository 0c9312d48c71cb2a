#!/bin/sh
# Every public header compiles alone and with all others, as C11 and as C++17, without warnings. A
# program that asks for no more than POSIX must be able to use them, too.
. "${0%/*}/common.sh"

warnings="-Wall -Wextra -Wpedantic -Wconversion -Wundef -Werror -fsyntax-only"
for header in "$TREE"/include/iosched/*.h; do
    name=$(basename "$header")
    echo "#include <iosched/$name>" | tee "$scratch/alone_${name%.h}.c" >>"$scratch/all.c"
done
for file in "$scratch"/*.c; do
    for define in _GNU_SOURCE _POSIX_C_SOURCE=200809L; do
        # shellcheck disable=SC2086  # a list of options
        "$CC" -std=c11 -Wstrict-prototypes $warnings -D$define -I"$TREE/include" "$file"
    done
    # shellcheck disable=SC2086
    "$CXX" -x c++ -std=c++17 $warnings -I"$TREE/include" "$file"
done
