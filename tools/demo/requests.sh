# shellcheck shell=bash
# shellcheck disable=SC2154 # the variables and functions of the other files of this folder
# Telling the daemon something and asking it: notifications, commands and what the owner hears of them; sourced.

times_told() {
    grep -c "^[-0-9]* [:0-9]* $1\$" "$root$owner_log" || true
}

is_told_again() {
    [ "$(times_told "$1")" -gt "$2" ]
}

# A notification has no answer: what the owner is told says when it was dealt with.
require_told() {
    wait_until 60 is_told_again "$1" "$2" || fail "the owner was not told \"$1\": $(tail -n 3 "$work/syslog")"
}

add_address() {
    if [ "$own_network" = yes ]; then
        show 1 "ip addr add $new_ipv4/24 dev $interface" ip addr add "$new_ipv4/24" dev "$interface"
    else
        tell "(a wrapper lets the network script print $new_ipv4 as well)"
        echo "$new_ipv4" >"$root/etc/keywarden/scripts/new-address"
    fi
}

notify() {
    printf '   $ printf %s >%s/notification.signal    (as operator, a member of kwnotify)\n' "$1" "$pipes"
    # shellcheck disable=SC2016 # for the inner shell
    as_user operator kwnotify timeout 10 sh -c 'printf %s "$1" >"$2"' - "$1" "$root$pipes/notification.signal" ||
        fail "the daemon does not take notifications"
}

change_network() {
    local before web api told
    say "5. The device gets one more address: the daemon makes new certificates and tells the owner"
    web="web server new $(active_id web)" api="api server new $(active_id api)"
    before="$(fingerprint_of web) $(fingerprint_of api)"
    told=("$(times_told "$web")" "$(times_told "$api")")
    add_address
    notify n
    require_told "$web" "${told[0]}"
    require_told "$api" "${told[1]}"
    case $before in
        *"$(fingerprint_of web)"* | *"$(fingerprint_of api)"*) fail "it is still the old certificate" ;;
    esac
    tell "names: $(alternative_names "$(certificate_of web)")"
    require_names "$(certificate_of web)" "IP Address:$new_ipv4" "IP Address:$ipv4" "DNS:$name"
    tell "the owner was told:" "$(grep -E ' (web|api) server new ' "$root$owner_log" | tail -n 2 | sed '2s/^/   /')"
    renew_s_server web "$port"
    renew_s_server api "$api_port"
    trust "the certificate" "$(certificate_of web)"
    show_new_connection "the new address" "$new_ipv4:$port" -verify_ip "$new_ipv4"
    trust "pkiroot's" "$(certificate_of pkiroot)"
    show_new_connection "the new address" "$new_ipv4:$api_port" -verify_ip "$new_ipv4"
}

# Asks a service as a user does: makes the output fifo, writes one request, reads the one answer. The lock is for
# several users who ask at the same time.
ask() {
    local service=$1 words=("$@") request
    request=$(
        IFS=$'\t'
        printf '%s' "operator	${words[*]}"
    )
    # shellcheck disable=SC2016 # for the inner shell
    as_user operator kwadmin timeout 20 flock "$root$pipes/$service/$service.lock" sh -c '
        mkfifo -m 0660 "$1.out" && printf %s "$2" >"$1.in" && cat "$1.out"
        rm -f "$1.out"' - "$root$pipes/$service/$service" "$request"
}

# Like show, for an answer that begins with the code of success.
show_answer() {
    local lines=$1
    shift
    show_any_answer "$lines" "$@"
    case $answer in
        '0 '*) ;;
        *) fail "the answer to \"$*\" is: $answer" ;;
    esac
}

# Leaves the answer in the variable of that name.
show_any_answer() {
    local lines=$1
    shift
    answer=$(ask "$@") || fail "no answer to: $*"
    printf '   $ printf '\''operator'
    printf '\\t%s' "$@"
    printf "' >%s.in; cat %s.out\n" "$1" "$1"
    printf '%s\n' "$answer" | head -n "$lines" | cut -c 1-110 | sed 's/^/   /'
}

give_commands() {
    local path
    say "6. Ask a service, as operator, a member of kwadmin"
    path=$store/web/server/$(active_id web)
    tell "\$ cd $pipes/web; mkfifo -m 0660 web.out"
    show_answer 1 web config status
    show_answer 8 web server getcertinfo "$path"
    [ "$(ask web config status)" = '0 running' ] || fail "the service does not say that it runs"
}
