#!/bin/sh
# Runs inside a handset with an emulated agent: waits for its start, uses both channels, and checks the effects.
# The only argument is the emulator's name. Status 0 if all checks passed.
# shellcheck disable=SC2317 # conditions are called by name
emulator=$1
failed=0

# check NAME EXPECTED FOUND
check() {
    if [ "$2" = "$3" ]; then
        echo "ok      $1"
    else
        echo "FAILED  $1: expected \"$2\", found \"$3\""
        failed=1
    fi
}

# until_true COMMAND...: waits at most 60 seconds.
until_true() {
    left=300
    while ! "$@" >/dev/null 2>&1; do
        left=$((left - 1))
        [ "$left" -gt 0 ] || return 1
        sleep 0.2
    done
}

until_true test -e /dev/ttysa1 || { cat /data/local/log/sa.log; echo "the agent did not come up"; exit 1; }
pid=$(cat /tmp/zr-qel-sa.pid)
check "the agent is emulated" "/usr/bin/$emulator" "$(readlink "/proc/$pid/exe")"
check "init runs it" running "$(getprop init.svc.zr-qel-sa)"

check "attention" 0 "$(sa-host send AT >/dev/null; echo $?)"
check "query" "QUERY_SERVICE: 0" "$(sa-host query zr-elog)"
check "start" 0 "$(sa-host start zr-elog >/dev/null; echo $?)"
check "query of what runs" "QUERY_SERVICE: 1" "$(sa-host query zr-elog)"
check "stop" 0 "$(sa-host stop zr-elog >/dev/null; echo $?)"
check "system" 0 "$(sa-host system 'echo done > /data/done' >/dev/null; echo $?)"
check "its command ran" "done" "$(cat /data/done)"
check "auto-start" 0 "$(sa-host autostart add zr-elog >/dev/null; echo $?)"
check "its list" 400 "$(stat -c %s /data/zr-qel-sa/auto-start.lst)"
check "unknown command" 1 "$(sa-host send +NOSUCH >/dev/null 2>&1; echo $?)"
check "remote shell" "hello 3" "$(sa-host shell 'echo hello; exit 3' | tr '\n' ' '; sa-host shell 'exit 3'; echo $?)"

until_true test -s /data/local/log/kmsg.log
check "kernel messages" "0644 2000 1007" "$(stat -c '%#a %u %g' /data/local/log/kmsg.log)"
for file in logcat.log logcat-events.log logcat-radio.log; do
    until_true test -e "/data/local/log/$file"
    check "$file" "2000 1007" "$(stat -c '%u %g' "/data/local/log/$file")"
done

# Stops the kernel-message thread in its read and starts another one.
touch /data/local/log/kmsg.log.4
check "delete-log" 0 "$(sa-host delete-log >/dev/null; echo $?)"
until_true test -s /data/local/log/kmsg.log
check "generations are gone" "" "$(ls /data/local/log/kmsg.log.4 2>/dev/null)"
readers() { readlink "/proc/$pid/fd/"* | grep -c "^/proc/kmsg$"; }
one_reader() { [ "$(readers)" = 1 ]; }
until_true one_reader
check "one reader stopped, one started" 1 "$(readers)"

kill -TERM "$pid"
until_true test ! -e /dev/ttyCMD0
restarted() { [ "$(cat /tmp/zr-qel-sa.pid)" != "$pid" ] && [ -e /dev/ttyCMD0 ]; }
until_true restarted
check "after SIGTERM init starts it again" 0 "$(sa-host send AT >/dev/null; echo $?)"
check "the teardown is told" 1 "$(grep -c 'signal_treatment exit$' /data/local/log/sa.log.1)"
check "the listed service was started" running "$(until_true pidof zr-elog; getprop init.svc.zr-elog)"
exit "$failed"
