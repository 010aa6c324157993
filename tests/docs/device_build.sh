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

# Every "label pattern" of Android.bp: the label stands in a module's cflags, the patterns in its srcs.
awk '
    /^[a-z_]+ \{/ { label = ""; count = 0 }
    match($0, /(SA|PUB)_SOURCE=\\"[^\\]*/) { label = substr($0, RSTART, RLENGTH); sub(/.*"/, "", label) }
    /^ *srcs:/ && match($0, /"[^"]*\.cpp"/) { pattern[++count] = substr($0, RSTART + 1, RLENGTH - 2) }
    /^\}/ { for (i = 1; i <= count; i++) if (label != "") print label, pattern[i] }' Android.bp | sort >"$scratch/found"

# The same of the desk: sa_module(NAME "LABEL" PATTERN) and pub_module likewise, with patterns relative to the directory.
# CMake's patterns of sa-main and sa-handle reach into their folders; Android.bp writes ** for that. main.cpp is the program's.
{
    for directory in sa pub; do
        sed -nE "s|^${directory}_module\([a-z_]+ \"([^\"]*)\" (.*)\)\$|\1 $directory/\2|p" "$directory/CMakeLists.txt"
    done | sed -E 's#(sa/main|sa/sa-handle)/\*\.cpp$#\1/**/*.cpp#'
    echo "sa/main sa/main/main.cpp"
} | sort >"$scratch/expected"
[ "$(wc -l <"$scratch/expected")" -ge 7 ] || { echo "too few modules were found in the desk's build files" && exit 1; }
same "sources and their labels"

# sa-host: the desk's patterns and version.
sed -nE 's/^file\(GLOB sources CONFIGURE_DEPENDS (.*)\)$/\1/p' host/CMakeLists.txt | tr ' ' '\n' | sed 's|^|host/|' |
    sort >"$scratch/expected"
awk '/^cc_binary \{/ { inside = 0 } /name: "sa-host"/ { inside = 1 } /^\}/ { inside = 0 } inside' Android.bp |
    tee "$scratch/sa-host" | grep -oE '"[^"]*\.cpp"' | tr -d '"' | sort >"$scratch/found"
same "sources of sa-host"
sed -nE 's/^project\(zr-qel-sa VERSION ([0-9.]*) .*/\1/p' CMakeLists.txt >"$scratch/expected"
sed -nE 's/.*SA_HOST_VERSION=\\"([0-9.]*).*/\1/p' "$scratch/sa-host" >"$scratch/found"
same "version of sa-host"

# Warnings and definitions that the desk gives to everything.
grep -E '^add_compile_(options\(-W|definitions\(_)' CMakeLists.txt | sed -E 's/^[a-z_]+\(//; s/\).*//' | tr ' ' '\n' |
    sed 's/^_/-D_/' | sort >"$scratch/expected"
grep -oE 'sa_procedural INTERFACE -[^)]*' CMakeLists.txt | tr ' ' '\n' | grep '^-' >>"$scratch/expected"
awk '/^cc_defaults/ { inside = 1 } /^\}/ { inside = 0 } inside' Android.bp | grep -oE '"-[^"]*"' | tr -d '"' |
    sort >"$scratch/found"
sort -o "$scratch/expected" "$scratch/expected"
same "warnings and definitions"
[ "$(wc -l <"$scratch/found")" -ge 10 ] || { echo "too few options were found" && failed=1; }

# Every file named exists: sources, init's stanza, the configuration, the page.
for file in $(grep -oE '"[^":]+\.(cpp|rc|cfg|sh|html|css|js)"' Android.bp | tr -d '"' | grep /); do
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
