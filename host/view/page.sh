#!/bin/sh
# page.sh HTML CSS SCRIPT: writes the page that `view --html` fills, as a string literal of C++. Both build systems call
# it, so that a device's sa-host has the same page.
set -eu
printf 'R"page('
sed '/^@page_style@/,$d' "$1"
cat "$2"
sed -n '/^@page_style@/,/^@page_program@/p' "$1" | sed 's/^@page_style@//; /^@page_program@/d'
cat "$3"
sed -n '/^@page_program@/,$p' "$1" | sed 's/^@page_program@//'
echo ')page"'
