#!/bin/sh
# The storms that docs/reliability.md tells how to repeat are there: each name, each filter, with rounds and seed.
#   commands.sh DIRECTORY-OF-THE-PROGRAMS
set -u
cd "$(dirname "$0")/../.." || exit 1
export PROGRAMS="$1"
failed=0
seen=0

complain() {
    echo "docs/reliability.md: $1"
    failed=1
}

# check LINE: "tests/reliability/run NAME ROUNDS SEED", with a remark behind it at most.
check() {
    echo "$1" | grep -qE '^[^ ]+ [^ ]+ [0-9]+ [0-9]+( .*)?$' || complain "$1: not a name, rounds and a seed"
    storm=$(echo "$1" | cut -d' ' -f2)
    reason=$(tests/reliability/run --list "$storm" 2>&1) || complain "$1: $reason"
}

while read -r line; do
    case $line in
        'tests/reliability/run NAME '*) ;;
        'tests/reliability/run '*)
            seen=$((seen + 1))
            check "$line"
            ;;
    esac
done <docs/reliability.md
[ "$seen" -ge 8 ] || complain "only $seen commands were found"
exit "$failed"
