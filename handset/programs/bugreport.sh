#!/system/bin/sh
# bugreport: the state of the handset as one text on standard output: a header, then the output of programs.

rule="========================================================"

section() {
    title=$1
    shift
    echo "------ $title ($*) ------"
    "$@" 2>&1 || echo "*** $1: exit code $?"
    echo
}

if [ $# -gt 0 ]; then
    echo "usage: bugreport" >&2
    exit 1
fi
cat >&2 <<EOF
=============================================================================
WARNING: flat bugreports are deprecated, use adb bugreport <zip_file> instead
=============================================================================


EOF
echo "$rule"
date "+== dumpstate: %Y-%m-%d %H:%M:%S"
echo "$rule"
echo
echo "Build: $(getprop ro.build.display.id "(unknown)")"
echo "Build fingerprint: '$(getprop ro.build.fingerprint unknown)'"
echo "Bootloader: $(getprop ro.bootloader "(unknown)")"
echo "Radio: $(getprop gsm.version.baseband "(unknown)")"
echo
section UPTIME uptime
section "MEMORY INFO" cat /proc/meminfo
section PROCESSES ps -A
section "FILESYSTEMS & FREE SPACE" df
section "SYSTEM LOG" logcat -d
section "SYSTEM PROPERTIES" getprop
echo "$rule"
echo "== dumpstate: done"
echo "$rule"
