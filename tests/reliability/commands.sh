#!/bin/sh
# Checks the commands in docs/reliability.md: each program and filter exists, and each command has rounds and seed.
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

# check LINE: "tests/reliability/run NAME ROUNDS SEED", with an optional comment.
check() {
    echo "$1" | grep -qE '^[^ ]+ [^ ]+ [0-9]+ [0-9]+( .*)?$' || complain "$1: not a name, rounds and a seed"
    name=$(echo "$1" | cut -d' ' -f2)
    reason=$(tests/reliability/run --list "$name" 2>&1) || complain "$1: $reason"
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
