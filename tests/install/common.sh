# What the scripts of this directory share. They run with TREE (the installed tree), LIBDIR, SOURCE,
# CC and CXX set, in the directory that ctest gives them.
# shellcheck shell=sh
set -eu
LC_ALL=C
export LC_ALL

scratch=$(mktemp -d "${TMPDIR:-/tmp}/iosched-install.XXXXXX")
trap 'rm -rf "$scratch"' EXIT
# shellcheck disable=SC2034  # for the scripts that include this one
here=$SOURCE/tests/install

fail() {
    echo "$0: $*" >&2
    exit 1
}
