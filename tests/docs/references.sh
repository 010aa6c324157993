#!/bin/sh
# What the documents refer to exists: linked pages, named files, commands of ./dev, presets. Run from the top of the tree.
set -u
cd "$(dirname "$0")/../.." || exit 1
failed=0
seen=0

complain() {
    echo "$1"
    failed=1
}

# A file or a directory of the tree; patterns and places for a name of one's own are no names.
check_path() {
    case $1 in
        *NAME* | *PRESET* | *'*'* | *…*) return ;;
    esac
    seen=$((seen + 1))
    [ -e "$1" ] || complain "$page names $1, which does not exist"
}

for page in README.md CONTRIBUTING.md docs/*.md; do
    [ -f "$page" ] || continue
    directory=$(dirname "$page")
    for link in $(grep -oE '\]\([^)#]+' "$page" | cut -c3-); do
        case $link in
            http*) continue ;;
        esac
        seen=$((seen + 1))
        [ -e "$directory/$link" ] || complain "$page links $link, which does not exist"
    done
    for path in $(grep -oE '`(sa|pub|etc|host|handset|tests|docs|bench|cmake|\.ci)/[^` ]*`' "$page" | tr -d '`'); do
        check_path "$path"
    done
    for word in $(grep -oE '\./dev [a-z]+' "$page" | cut -d' ' -f2 | sort -u); do
        seen=$((seen + 1))
        [ "$word" = help ] || ./dev help | grep -qE "^  $word " || complain "$page tells of ./dev $word, which does not exist"
    done
    for preset in $(grep -oE 'preset [a-z0-9]+`' "$page" | cut -d' ' -f2 | tr -d '`' | sort -u); do
        seen=$((seen + 1))
        grep -q "\"name\": \"$preset\"" CMakePresets.json || complain "$page tells of the preset $preset, which does not exist"
    done
done
[ "$seen" -ge 30 ] || complain "only $seen references were found"
exit "$failed"
