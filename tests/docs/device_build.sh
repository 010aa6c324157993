#!/bin/sh
# The device's build file against the tree and the desk's build files: the same sources, each under its own source
# label, the same warnings and definitions, and nothing listed that does not exist. Run from the top of the tree.
# shellcheck disable=SC2016 # expressions of awk
set -u
cd "$(dirname "$0")/../.." || exit 1
scratch=$(mktemp -d) || exit 1
trap 'rm -rf "$scratch"' EXIT
failed=0

# same WHAT: the two lists expected and found.
same() {
    if ! diff -u "$scratch/expected" "$scratch/found" >"$scratch/difference"; then
        printf '%s (- expected, + Android.bp):\n' "$1"
        tail -n +3 "$scratch/difference"
        failed=1
    fi
}

# Every "label source" of Android.bp: the label stands in a module's cflags, the sources in its srcs.
labelled() {
    awk '
        /^[a-z_]+ \{/ { label = ""; count = 0 }
        match($0, /(SA|PUB)_SOURCE=\\"[^\\]*/) { label = substr($0, RSTART, RLENGTH); sub(/.*"/, "", label) }
        match($0, /"[^"]*\.cpp"/) { source[++count] = substr($0, RSTART + 1, RLENGTH - 2) }
        /^\}/ { for (i = 1; i <= count; i++) if (source[i] !~ /^tests\//) print label, source[i] }' Android.bp | sort
}

# The same of the desk: sa_room(NAME "LABEL" FILES) and pub_room likewise, with file names relative to the directory.
desk_labelled() {
    for directory in sa pub; do
        tr '\n' ' ' <"$directory/CMakeLists.txt" | grep -oE "${directory}_room\([a-z_]+ +\"[^)]*\)" |
            sed -E "s/^[a-z_]+\([a-z_]+ +//; s/\)$//; s/\"//g" |
            awk -v directory="$directory" '{ for (i = 2; i <= NF; i++) print $1, directory "/" $i }'
    done | sort
}

labelled >"$scratch/found"
desk_labelled >"$scratch/expected"
[ -s "$scratch/expected" ] || { echo "no sources were found in the desk's build files" && exit 1; }
same "sources and their labels"

find sa pub -name '*.cpp' | sort >"$scratch/expected"
labelled | cut -d' ' -f2 >"$scratch/found"
sort -o "$scratch/found" "$scratch/found"
same "sources of the tree"

# Warnings and definitions that the desk gives to everything.
grep -E '^add_compile_(options\(-W|definitions\(_)' CMakeLists.txt | sed -E 's/^[a-z_]+\(//; s/\).*//' | tr ' ' '\n' |
    sed 's/^_/-D_/' | sort >"$scratch/expected"
grep -oE 'sa_procedural INTERFACE -[^)]*' CMakeLists.txt | tr ' ' '\n' | grep '^-' >>"$scratch/expected"
awk '/^cc_defaults/ { inside = 1 } /^\}/ { inside = 0 } inside' Android.bp | grep -oE '"-[^"]*"' | tr -d '"' |
    sort >"$scratch/found"
sort -o "$scratch/expected" "$scratch/expected"
same "warnings and definitions"
[ "$(wc -l <"$scratch/found")" -ge 10 ] || { echo "too few options were found" && failed=1; }

# Every file named exists: sources, init's stanza, the configuration.
for file in $(grep -oE '"[^":]+\.(cpp|rc|cfg)"' Android.bp | tr -d '"' | grep /); do
    [ -f "$file" ] || { echo "Android.bp names $file, which does not exist" && failed=1; }
done

# Every module that another one names exists.
grep -oE '":?lib(zr-qel)[a-z-]*"' Android.bp | tr -d '":' | sort -u >"$scratch/named"
grep -oE 'name: "[^"]*"' Android.bp | sed 's/.*"\(.*\)"/\1/' | sort >"$scratch/made"
missing=$(comm -23 "$scratch/named" "$scratch/made")
[ -z "$missing" ] || { echo "Android.bp uses modules that it does not make: $missing" && failed=1; }
twice=$(uniq -d "$scratch/made")
[ -z "$twice" ] || { echo "Android.bp makes modules twice: $twice" && failed=1; }

# What the desk boots from is what a device installs.
for installed in etc/zr-qel-sa.rc etc/zr-qel-sa.cfg; do
    grep -q "\"$installed\"" Android.bp || { echo "Android.bp does not install $installed" && failed=1; }
done
exit "$failed"
