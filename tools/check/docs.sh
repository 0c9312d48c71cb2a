#!/bin/sh
# Checks what documents and headers promise: links lead somewhere, every exported name is declared and
# documented in a public header and shown in an example, and no mark of unfinished work is left.
set -eu
cd "$(dirname "$0")/../.."
bad=0
complain() {
    echo "$*" >&2
    bad=1
}

# Links between documents, relative to the document that holds them.
pages=$(find . -name '*.md' -not -path './build*' -not -path './out/*' -not -path './.git/*' | sort)
for page in $pages; do
    links=$(grep -o '](\([^)# ]*\)' "$page" | cut -c3- | grep -v -e '^[a-z]*:' || true)
    for link in $links; do
        [ -e "$(dirname "$page")/$link" ] || complain "$page: link to $link leads nowhere"
    done
done

# The names that the headers declare: functions, and data marked extern. A declaration counts as
# documented when a comment stands right before it or before the block of declarations that it is in.
declared=$(mktemp)
trap 'rm -f "$declared"' EXIT
for header in include/iosched/*.h; do
    awk -v header="$header" '
        # Comments are skipped but remembered; a blank line ends what they speak for.
        /^[ \t]*\/\*/ { comment = 1 }
        comment { documented = 1; if (/\*\//) comment = 0; next }
        /^[ \t]*$/ { documented = 0; next }
        /^#/ || /^extern "C"/ || /^typedef/ || /^[ \t}]/ { next }
        match($0, /[A-Za-z_][A-Za-z_0-9]*(\(|\[?\]?;)/) {
            name = substr($0, RSTART, RLENGTH)
            gsub(/[^A-Za-z_0-9]/, "", name)
            print name, documented ? "yes" : "no", header
        }' "$header"
done >"$declared"

names=$(grep '^[A-Za-z_]' src/exports.list)
for name in $names; do
    case $name in
    # Declared by libc; nobody is meant to call them here.
    pause | sleep | usleep | popen | pclose) continue ;;
    esac
    grep -qw "$name" examples/*.c || complain "$name appears in no program of examples/"
    line=$(grep "^$name " "$declared" || true)
    case $line in
    '') complain "src/exports.list: $name is declared in no public header" ;;
    *" no "*) complain "${line##* }: $name is not documented" ;;
    esac
done
while read -r name _ header; do
    grep -qx "$name" src/exports.list || complain "$header: $name is not in src/exports.list"
done <"$declared"

if git rev-parse --git-dir >/dev/null 2>&1; then
    marks=$(git grep -nE '\b(TO[D]O|FIXM[E]|XX[X]|HAC[K])\b' || true)
    [ -z "$marks" ] || complain "$marks"
fi
exit $bad
