#!/bin/sh
# A C program built with plain cc and pkg-config, on the shared library and on the static one, from a
# tree that was moved.
. "${0%/*}/common.sh"

cp -a "$TREE" "$scratch/moved"
moved=$scratch/moved/${LIBDIR#"$TREE/"}
export PKG_CONFIG_PATH="$moved/pkgconfig"
program=$here/consumer/consumer.c
[ "$(pkg-config --modversion iosched)" = 7.1.0 ] || fail "version"
[ "$(pkg-config --variable=includedir iosched)" = "$TREE/include" ] || fail "odd path"

# shellcheck disable=SC2046  # lists of options
"$CC" -o "$scratch/shared" "$program" $(pkg-config --define-prefix --cflags --libs iosched) -Wl,-rpath,"$moved"
# shellcheck disable=SC2046
"$CC" -o "$scratch/static" -static "$program" $(pkg-config --define-prefix --static --cflags --libs iosched)

for kind in shared static; do
    said=$("$scratch/$kind") || fail "the $kind program failed"
    case $said in
    'ping ZorbexVersion 7.1.0 '*) ;;
    *) fail "the $kind program said: $said" ;;
    esac
done
readelf -d "$scratch/shared" | grep -q 'NEEDED.*\[libiosched.so.7\]' || fail "not linked by SONAME"
