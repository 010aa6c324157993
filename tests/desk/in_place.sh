#!/bin/sh
# Handsets in place, in a container without new namespaces and mounts: what ./dev decides there, that a handset works and
# removes its files, and that it changes nothing else. Arguments: the build directory, the top of the tree.
set -u
build=$1
tree=$2
failed=0

if [ "${DESK_IN_PLACE-}" = 1 ]; then
    echo "in place: no container of the test's own"
    exit 77
fi

scratch=$(mktemp -d) || exit 1
levels=$(cat /proc/sys/kernel/printk)

# Restores the machine's console level in case a handset has changed it.
restore_levels() {
    [ "$(cat /proc/sys/kernel/printk)" = "$levels" ] || echo "$levels" >/proc/sys/kernel/printk
}

trap 'restore_levels; rm -rf "$scratch"' EXIT
trap 'exit 1' HUP INT TERM

complain() {
    echo "$1"
    failed=1
}

# container OPTION... -- COMMAND...: its root is empty but for what is listed here; $scratch is its /test.
container() {
    env -i PATH="/test/bin:/usr/bin:/usr/sbin" DESK_IN_PLACE="$place" timeout 60 bwrap --unshare-pid --unshare-ipc \
        --unshare-uts --unshare-net --unshare-cgroup-try --die-with-parent --ro-bind /usr /usr --symlink usr/bin /bin \
        --symlink usr/lib /lib --symlink usr/lib64 /lib64 --symlink usr/lib32 /lib32 --symlink usr/libx32 /libx32 \
        --proc /proc --dev /dev --tmpfs /tmp --dir /etc --bind "$scratch" /test --ro-bind "$build" "$build" \
        --cap-drop ALL --cap-add CAP_CHOWN --cap-add CAP_DAC_OVERRIDE --cap-add CAP_FOWNER --cap-add CAP_FSETID \
        --cap-add CAP_KILL --cap-add CAP_SETGID --cap-add CAP_SETUID --cap-add CAP_SETPCAP --cap-add CAP_NET_RAW \
        --cap-add CAP_SYS_CHROOT --cap-add CAP_MKNOD "$@" 2>&1
}

read_only_settings="--ro-bind /proc/sys /proc/sys"

# ---- what ./dev decides. It runs until the build, which fails here.

mkdir "$scratch/bin"
cp "$tree/dev" "$scratch/dev"
printf '#!/bin/sh\nexit 1\n' >"$scratch/bin/cmake"
printf '#!/bin/sh\necho installed\n' >"$scratch/bin/dpkg-query"
chmod +x "$scratch/bin/cmake" "$scratch/bin/dpkg-query"
place=""

# decides WHAT PATTERN OUTPUT: the output matches the pattern.
decides() {
    # shellcheck disable=SC2254 # a pattern
    case $3 in
        $2) ;;
        *) complain "$1: expected $2, found: $3" ;;
    esac
}

builds_in_place="== handsets run in place: *== building*"
one_sentence="dev: root may not make new namespaces here*"
decides "with namespaces" "== building*" "$(PATH="$scratch/bin:$PATH" "$scratch/dev" run 2>&1)"
decides "in a container" "$builds_in_place" "$(container --dir /.dockerenv -- /test/dev run)"
refused="strace -f -qq -o /dev/null -e trace=unshare -e inject=unshare:error=EPERM"
# shellcheck disable=SC2086 # a list
decides "in a container with that right, which refuses them" "$builds_in_place" \
    "$(container --dir /.dockerenv --cap-add CAP_SYS_ADMIN -- $refused /test/dev run)"
decides "on a machine" "$one_sentence" "$(container -- /test/dev run)"
decides "on a machine, one line" 1 "$(container -- /test/dev test | wc -l)"
decides "on a machine to be thrown away" "$builds_in_place" "$(container -- /test/dev test --in-place)"

# ---- what ./dev test skips: each pattern of the list matches a test, and ctest accepts all patterns together

names=$(ctest --test-dir "$build" -N | sed -n 's/^ *Test *#[0-9]*: //p')
grep -v '^#' "$tree/tests/in_place" | cut -d' ' -f1 >"$scratch/patterns"
while read -r pattern; do
    printf '%s\n' "$names" | grep -qE "$pattern" || complain "tests/in_place lists $pattern, and there is no such test"
done <"$scratch/patterns"
! grep '[()]' "$scratch/patterns" || complain "tests/in_place has a parenthesis"

# ---- a handset works and removes its files

place=1
handset=$build/handset/desk/handset
cat >"$scratch/life" <<'EOF'
ln -s /dev/pts/99 /dev/someones
ls -A / /dev >/tmp/before
"$1" run --agent -- /system/bin/sh -c 'until [ -e /dev/ttysa1 ]; do sleep 0.1; done; cat /data/local/log/sa.log' |
    grep -c 'sa_listener_loop fd'
ls -A / /dev | cmp - /tmp/before && echo removed
EOF
# shellcheck disable=SC2086 # a list
decides "a life" "$(printf '1\nremoved')" "$(container $read_only_settings -- /bin/sh /test/life "$handset")"

# The beginning of scripts that kill handsets.
cat >"$scratch/kills" <<'EOF'
mkfifo /tmp/never
until_true() {
    left=200
    until "$@"; do
        left=$((left - 1))
        [ "$left" -gt 0 ] || exit 1
        sleep 0.1
    done
}
boot() {
    "$1" boot <>/tmp/never >/tmp/told &
    booter=$!
    until_true test -e /dev/ttysa1
    init=$(sed -n 's/.*: pid //p' /tmp/told)
}
removed() { ls -A / | cmp -s - /tmp/before; }
runs() { cat /proc/[0-9]*/cmdline 2>/dev/null | tr '\0' '\n' | grep -qx "$1"; }
ls -A / >/tmp/before
EOF

# When its booter is killed, it removes its files. When its init is killed, the next handset removes its files and kills its
# programs, but no others.
cat >"$scratch/killed" <<'EOF'
. /test/kills
boot "$1"
kill -KILL "$booter"
until_true removed
boot "$1"
"$1" enter "$init" -- /system/bin/sh -c '
    exec </dev/null >/dev/null 2>&1
    /usr/bin/setsid /usr/bin/setpriv --reuid 2000 --regid 2000 --clear-groups sleep 1111 &
    /usr/bin/setsid sleep 2222' &
env ANDROID_ROOT=/system LD_LIBRARY_PATH=/system/lib chroot /usr /bin/sleep 3333 &
for nap in 1111 2222 3333; do until_true runs "$nap"; done
kill -KILL "$init" "$booter"
"$1" run -- /system/bin/sh -c 'cat /proc/[0-9]*/cmdline 2>/dev/null' | tr '\0' '\n' | grep -x 'zr-qel-sa\|1111\|2222\|3333'
until_true removed
echo removed
EOF
# shellcheck disable=SC2086 # a list
decides "killed" "$(printf '3333\nremoved')" "$(container $read_only_settings -- /bin/sh /test/killed "$handset")"

# ---- what it does not change

foreign_data="handset: /data exists and does not belong to a handset: a handset in place needs this path"

cat >"$scratch/foreign" <<'EOF'
echo mine >/data/file
ls -A / >/tmp/before
"$1" run -- /system/bin/true
cat /data/file
ls -A / | cmp - /tmp/before && echo untouched
EOF
# shellcheck disable=SC2086 # a list
decides "someone's /data" "$(printf '%s\nmine\nuntouched' "$foreign_data")" \
    "$(container $read_only_settings --dir /data -- /bin/sh /test/foreign "$handset")"

# The same when a killed handset had a /data before.
cat >"$scratch/stale" <<'EOF'
. /test/kills
boot "$1"
kill -KILL "$init" "$booter"
mv /data /desk/
mkdir /data
echo mine >/data/file
"$1" run -- /system/bin/true
cat /data/file
rm -r /data
removed && echo removed
EOF
# shellcheck disable=SC2086 # a list
decides "someone's /data after a killed init" "$(printf '%s\nmine\nremoved' "$foreign_data")" \
    "$(container $read_only_settings -- /bin/sh /test/stale "$handset")"

# A directory mounted in a killed handset's /data, also one of the same file system.
cat >"$scratch/mounted" <<'EOF'
. /test/kills
boot "$1"
kill -KILL "$init" "$booter"
mkdir /mine /data/mine
mount --bind /mine /data/mine
echo mine >/mine/file
"$1" run -- /system/bin/true
cat /mine/file
umount /data/mine
rm -r /data /mine
removed && echo removed
EOF
# shellcheck disable=SC2086 # a list
decides "what is mounted in a killed handset's /data" "$(printf '%s\nmine\nremoved' "$foreign_data")" \
    "$(container $read_only_settings --cap-add CAP_SYS_ADMIN -- /bin/sh /test/mounted "$handset")"

cat >"$scratch/outside" <<'EOF'
mknod /dev/ttyMINE c 1 3
ls -AR /dev /etc /test >/tmp/before
for path in /data/.. /data/../etc /system/. /dev/tty /dev/ttyMINE; do
    "$1" run --remove "$path" -- /system/bin/true
done
ls -AR /dev /etc /test | cmp - /tmp/before && echo untouched
EOF
refusal="handset: a handset in place has no files outside of its directories"
# shellcheck disable=SC2086 # a list
decides "names that lead out, and devices" \
    "$(printf "$refusal (%s)\n" /data/.. /data/../etc /system/. /dev/tty /dev/ttyMINE && echo untouched)" \
    "$(container $read_only_settings -- /bin/sh /test/outside "$handset")"

# Opens the file for writing, which must be refused, and writes nothing.
cat >"$scratch/levels" <<'EOF'
"$1" run --agent -- /system/bin/sh -c '
    until grep -qs "read_kernel_log_loop open" /data/local/log/sa.log; do sleep 0.1; done
    (: >/proc/sys/kernel/printk) 2>/dev/null && echo open; dmesg'
EOF
output=$(container --cap-add CAP_SYSLOG -- /bin/sh /test/levels "$handset")
now=$(cat /proc/sys/kernel/printk)
restore_levels
case $output in
    "handset: a handset in place would change the machine's console level here: "*) ;; # a kernel without Landlock
    *) decides "writable settings" "*klogctl: Operation not permitted*" "$output" ;;
esac
case $output in
    open*) complain "a handset may write the machine's console level" ;;
esac
decides "the machine's console level" "$levels" "$now"
exit "$failed"
