# shellcheck shell=bash
# shellcheck disable=SC2154 # the variables and functions of the other files of this folder
# The steps that start and stop the daemon, and its log; sourced.

# Lines of the log that a step has provoked on purpose.
expected_errors=()

require_no_errors() {
    local errors
    errors=$(grep -E '^(EMERG|ALERT|CRIT|ERR) ' "$work/syslog" |
        grep -vxF -f <(printf '%s\n' "${expected_errors[@]:-(none)}")) || return 0
    fail "there are errors in the log: $errors"
}

is_ready() {
    [ -s "$root$pid_file" ] && daemon_pid=$(cat "$root$pid_file") && [ -e "$root/run/ready/$daemon_pid" ]
}

is_ready_or_gone() {
    is_ready || ! kill -0 "$keeper" 2>/dev/null
}

start_daemon() {
    local program=$work/keywardd
    say "1. Start the daemon; it leaves /run/ready/<pid> when it is ready"
    in_background python3 "$work/device.py" log "$root/dev/log" "$work/syslog"
    wait_until 10 test -S "$root/dev/log" || fail "there is no system log"
    [ "$own_mounts" = yes ] || program=/usr/sbin/keywardd
    tell '$ keywardd'
    # In the background by itself: "run" is its parent, to learn its exit status.
    on_device_in_background "$program"
    wait_until 60 is_ready_or_gone || fail "the daemon is not ready after 60 seconds: $(tail -n 3 "$work/syslog")"
    is_ready || fail "the daemon ended: $(tail -n 3 "$work/syslog" "$work/daemon.err")"
    tell "It is ready, with process id $daemon_pid. Of its log:"
    grep -E '^NOTICE (The (service .* is starting|daemon is running)|New certificate|Reload: )' "$work/syslog" |
        cut -c 1-110 | sed 's/^/   /'
    tell "... and $(grep -c '^INFO ' "$work/syslog") lines of severity INFO"
    require_no_errors
    grep -q '^NOTICE The daemon is running\.$' "$work/syslog" || fail "the log does not tell that the daemon runs"
}

on_device_in_background() {
    local words=("$@")
    [ "$own_mounts" = yes ] || words=(chroot "$root" "$@")
    in_background python3 "$work/device.py" run "$work/statuses" "${words[@]}" 2>"$work/daemon.err"
    keeper=${started[-1]}
}

is_gone() {
    grep -q "^$daemon_pid " "$work/statuses"
}

stop_daemon() {
    local status entry
    say "9. Stop the daemon"
    tell "\$ kill -TERM $daemon_pid"
    kill -TERM "$daemon_pid"
    wait_until 60 is_gone || fail "the daemon does not stop: $(tail -n 3 "$work/syslog")"
    status=$(sed -n "s/^$daemon_pid //p" "$work/statuses")
    tell "exit status: $status" "last line of its log: $(tail -n 1 "$work/syslog")"
    [ "$status" = 10 ] || fail "the exit status of an orderly stop is 10, not $status"
    [ "$(tail -n 1 "$work/syslog")" = 'NOTICE Stopping with the code 10...' ] || fail "the last line is another one"
    require_no_errors
    grep -q ' web stop$' "$root$owner_log" || fail "the owner was not told of the stop"
    for entry in "$pipes" "$pid_file" /run/keywarden/keywardd.lock "/run/ready/$daemon_pid"; do
        [ ! -e "$root$entry" ] || fail "this is left behind: $entry"
    done
    [ -s "$(certificate_of web)" ] || fail "the certificate is gone"
    tell "No pipes, lock, pid file or readiness marker is left; the store stays. What remains in /run:"
    python3 "$work/device.py" list "$root" /run/keywarden /run/ready | sed 's/^/   /'
}
