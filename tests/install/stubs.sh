#!/bin/sh
# The stubs under libc's names: what the linker says about a program that calls them, whom they bind,
# and what they do.
. "${0%/*}/common.sh"

names='pause sleep usleep popen pclose system'
shared="-L$LIBDIR -liosched -Wl,-rpath,$LIBDIR"
static=$LIBDIR/libiosched.a

# link LIBRARY OUTPUT SOURCES...: leaves the linker's words in $scratch/said.
link() {
    library=$1
    output=$2
    shift 2
    # shellcheck disable=SC2086  # a list of options
    "$CC" -I"$TREE/include" -o "$scratch/$output" "$@" $library 2>"$scratch/said" ||
        fail "cannot link $output: $(cat "$scratch/said")"
}

# warned NAMES: the linker has warned of exactly these, each once for its one reference.
warned() {
    for name in $1; do echo "warning: *** '$name' not from sched library."; done | sort >"$scratch/expected"
    grep -o 'warning: .*' "$scratch/said" | sort >"$scratch/warnings" || true
    diff "$scratch/expected" "$scratch/warnings" || fail "warnings about '$1'"
}

# The texts, byte for byte, in both libraries.
for name in $names; do
    printf "*** '%s' not from sched library.\\0" "$name" >"$scratch/text"
    objcopy --dump-section ".gnu.warning.$name=$scratch/section" "$LIBDIR/libiosched.so" /dev/null
    cmp "$scratch/text" "$scratch/section" || fail "section of $name in the shared library"
done

# Every reference is reported; a program that refers to none hears nothing.
for library in "$shared" "$static"; do
    link "$library" caller "$here/calls_stubs.c"
    warned "$names"
    "$scratch/caller" || fail "the stubs do not behave ($library)"
    link "$library" innocent "$here/consumer/consumer.c"
    warned ''
    # Whatever else the program uses, the warning about system arrives; the call goes to libc.
    link "$library" system "$here/calls_system.c"
    warned system
    "$scratch/system" || fail "system is not libc's ($library)"
done
nm "$scratch/innocent" | grep -wE ' [Tt] (pause|sleep|usleep|popen|pclose|system)$' &&
    fail "a static program carries a stub that it does not call"

# What packagers do to the shared library leaves the warnings in it.
mkdir "$scratch/packaged"
# shellcheck disable=SC2086
"$CC" -shared -Wl,--gc-sections -Wl,-u,_ZN11iosched_lib13systemWarningE -Wl,--version-script="$VERSION_SCRIPT" \
    -o "$scratch/packaged/libiosched.so" $OBJECTS
strip --strip-unneeded --remove-section=.comment "$scratch/packaged/libiosched.so"
link "-L$scratch/packaged -liosched" caller "$here/calls_stubs.c"
warned "$names"

# A third-party library calls libc's sleep, whatever the program's own sleep is.
"$CC" -shared -fPIC -o "$scratch/libthird.so" "$here/third_party.c"
third="-L$scratch -lthird -Wl,-rpath,$scratch"
for library in "$shared" "$static" "$static -rdynamic"; do
    link "$library $third" beside "$here/beside_third_party.c"
    warned sleep
    "$scratch/beside" || fail "third-party library ($library)"
done
