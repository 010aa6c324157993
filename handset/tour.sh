#!/bin/sh
# A tour of the agent, taken inside a desk handset by `./dev run`. Each step is one call of sa-host: what a host would
# type, what it reads, and the lines that the step left in the diagnostic log. Ends with status 1 when a step did not
# read what it should. With --stay the host console follows, for a person at a terminal.
set -u

log=/data/local/log/sa.log
seen=0   # bytes of the diagnostic log that have been shown
failed=0 # things that were not as they should be
carriage_return=$(printf '\r')

if [ -t 1 ]; then
    bold=$(printf '\033[1m')
    dim=$(printf '\033[2m')
    plain=$(printf '\033[0m')
else
    bold="" dim="" plain=""
fi

new_lines() {
    tail -c "+$((seen + 1))" "$log" 2>/dev/null
}

# Waits up to ten seconds for a line among the new ones.
await_line() {
    tries=200
    until new_lines | grep -q "$1"; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || return 1
        sleep 0.05
    done
}

# Shows the new lines from the pattern FIRST to the pattern LAST. A request's carriage return, which stands in the log as
# it is, is shown as \r.
show_lines() {
    new_lines | sed -n "s/$carriage_return/\\\\r/g; /$1/,/$2/{p;/$2/q}" | cut -c 1-150 | while read -r line; do
        printf '%s  | %s%s\n' "$dim" "$line" "$plain"
    done
    seen=$(wc -c <"$log")
}

# call TEXT WANTED ARGUMENT...: calls sa-host with the arguments and shows the first lines of what it prints. WANTED is a
# pattern of all that it prints.
call() {
    printf '\n%s%s%s\n$ sa-host' "$bold" "$1" "$plain"
    wanted=$2
    shift 2
    for word in "$@"; do
        case $word in
            *[!a-zA-Z0-9_./-]*) printf " '%s'" "$word" ;;
            *) printf ' %s' "$word" ;;
        esac
    done
    answer=$(sa-host "$@" 2>&1)
    printf '\n%s\n' "$answer" | head -n 21
    # shellcheck disable=SC2254 # a pattern
    case $answer in
        $wanted) ;;
        *)
            printf '** this should have been: %s\n' "$wanted"
            failed=$((failed + 1))
            ;;
    esac
}

# step FIRST LAST READY TEXT WANTED ARGUMENT...: a call and the lines that it leaves from FIRST to LAST. READY is in the
# line with which the agent is ready for the next step.
step() {
    first=$1 last=$2 ready=$3
    shift 3
    call "$@"
    if ! await_line "$ready"; then
        printf '** the diagnostic log did not get a line with: %s\n' "$ready"
        failed=$((failed + 1))
    fi
    show_lines "$first" "$last"
}

# A request on the command channel. sa-host hangs up after each one; the agent then opens the channel anew.
request() {
    step 'sa_handle_read_cmd_loop read_len' 'sa_handle_read_cmd_loop req\[' 'sa_handle_read_cmd_loop reopen' "$@"
}

# A command in the remote shell, which leaves lines, too: they are not shown.
look() {
    call "$@"
    await_line 'sa_listener_loop reopen'
    seen=$(wc -c <"$log")
}

await_agent() {
    if ! await_line 'sa_listener_loop fd\['; then
        printf 'the agent did not come up: init says "%s"; its diagnostic log:\n' "$(getprop init.svc.zr-qel-sa)"
        cat "$log"
        exit 1
    fi
    printf 'The agent is up. Its diagnostic log has %d lines, the last ones:\n' "$(wc -l <"$log")"
    tail -n 3 "$log" | cut -c 1-150 | sed "s/^/$dim  | /; s/\$/$plain/"
    seen=$(wc -c <"$log")
}

tour() {
    step 'sa_handle_read_cmd_loop read_len' 'sa_handle_read_cmd_loop reopen' 'sa_handle_read_cmd_loop reopen' \
        "Attention, and how the agent handles the end of a connection" OK send AT
    request "Is the service zr-elog running?" 'QUERY_SERVICE: 0' query zr-elog
    request "Start it" OK start zr-elog
    request "It runs" 'QUERY_SERVICE: 1' query zr-elog
    request "Stop it" OK stop zr-elog
    request "Copy kernel messages" OK kernel-log on
    request "The switch is on" 'KERNEL_LOG: 1' kernel-log query
    request "Kernel-log snapshots are off" 'DMESG_LOG: 0' dmesg-log query
    request "A system command" OK system 'date > /data/local/tmp/now'
    look "The state at a glance" '*kernel-log on*zr.log*packets*radio*' status
    look "The end of the diagnostic log" '[[]*' log -n 5
    request "All logs saved to the card" OK save-log
    step 'sa_listener_loop size' 'subproc_waiter_service pid.* exit errno' 'subproc_waiter_service pid.* exit errno' \
        "A command in the remote shell: what has been saved" '*sa.log*' shell 'du -a /storage/real_sd/logs'
    for set in /storage/real_sd/logs/*; do
        call "All logs of the set, merged by time" '*sa *handle_sa_cmd_req req*main *zr-qel-sa: *' view --grep START_SERVICE "$set"
    done
}

await_agent
tour
if [ "$failed" -eq 0 ]; then
    printf '\nThe tour is complete; every step read what it should.\n'
else
    printf '\nThe tour is complete; %d things went wrong, see the lines with **.\n' "$failed"
fi
if [ "${1-}" = --stay ]; then
    printf '\nThe console of sa-host is yours: help lists its commands, the end of input (Ctrl-D) ends the handset.\nCtrl-C abandons a request.\n'
    trap : INT # Ctrl-C is the console's
    sa-host console
fi
[ "$failed" -eq 0 ]
