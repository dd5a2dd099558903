# shellcheck shell=bash
# shellcheck disable=SC2154 # the device's variables and functions are those of device.sh
# The demonstration itself, step by step; sourced by device.sh. A step that does not come out as told ends it.

pipes=/run/keywarden/pipes
store=/var/lib/keywarden/store
pid_file=/run/keywarden/keywardd.pid
name=unit42.example

# Shows a command as one would type it, runs it and shows at most so many lines of what it says.
show() {
    local lines=$1 typed=$2 said
    shift 2
    printf '   $ %s\n' "$typed"
    said=$("$@") || fail "this did not work: $typed"
    [ -z "$said" ] || printf '%s\n' "$said" | head -n "$lines" | cut -c 1-110 | sed 's/^/   /'
}

tell() {
    printf '   %s\n' "$@"
}

active_id() {
    cat "$root$store/$1/server/.cacheddata/active.txt"
}

certificate_of() {
    printf '%s' "$root$store/$1/server/$(active_id "$1")"
}

fingerprint_of() {
    openssl x509 -in "$(certificate_of "$1")" -noout -fingerprint -sha256
}

alternative_names() {
    openssl x509 -in "$1" -noout -ext subjectAltName | sed -n '2s/^ *//p'
}

# OpenSSL writes an IPv6 address in its longest form.
address_text() {
    python3 -c 'import ipaddress, sys
address = ipaddress.ip_address(sys.argv[1])
print(address if address.version == 4 else ":".join("%X" % int(group, 16) for group in address.exploded.split(":")))' \
        "$1"
}

require_names() {
    local certificate=$1 names wanted
    shift
    names=", $(alternative_names "$certificate"),"
    for wanted in "$@"; do
        case $names in
            *", $wanted,"*) ;;
            *) fail "the certificate does not name \"$wanted\" but$names" ;;
        esac
    done
}

# --- 1 ----------------------------------------------------------------------------------------------------------

require_no_errors() {
    local errors
    errors=$(grep -E '^(EMERG|ALERT|CRIT|ERR) ' "$work/syslog") || return 0
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

# --- 2 ----------------------------------------------------------------------------------------------------------

days_left() {
    local end
    end=$(openssl x509 -in "$1" -noout -enddate)
    echo $((($(date -d "${end#notAfter=}" +%s) - $(date +%s)) / 86400))
}

show_certificate() {
    local certificate days wanted=("DNS:$name" "IP Address:$ipv4")
    say "2. What came out: a certificate for the device's names and addresses"
    certificate=$(certificate_of web)
    [ -f "$certificate" ] || fail "the service \"web\" has no certificate: $(grep ' web' "$work/syslog" | tail -n 3)"
    days=$(days_left "$certificate")
    show 2 "openssl x509 -in $store/web/server/$(active_id web) -noout -subject" \
        openssl x509 -in "$certificate" -noout -subject
    tell "names: $(alternative_names "$certificate")" "days left: $days"
    [ -z "$ipv6" ] || wanted+=("IP Address:$(address_text "$ipv6")")
    require_names "$certificate" "${wanted[@]}"
    [ "$days" -ge 80 ] && [ "$days" -le 90 ] || fail "$days days left of 90"
    tell "the store's files:"
    python3 "$work/device.py" list "$root" "$store/web/server" | sed 's/^/   /'
    check_rights "$certificate"
}

# The key is for its group only, which is what the web server's account is in.
check_rights() {
    local key_rights certificate_rights
    key_rights=$(stat -c '%a %u %g' "$1.key")
    certificate_rights=$(stat -c '%a %u %g' "$1")
    [ "$key_rights" = "640 ${user_ids[keyuser]} ${group_ids[kwkey]}" ] || fail "the key's rights are $key_rights"
    [ "$certificate_rights" = "644 ${user_ids[keyuser]} ${group_ids[kwadmin]}" ] ||
        fail "the certificate's rights are $certificate_rights"
    as_user operator operator cat "$1.key" >/dev/null 2>&1 && fail "anybody can read the key"
    tell "The account \"operator\" cannot read the key; \"kwweb\", a member of kwkey, can."
}

# --- 3 ----------------------------------------------------------------------------------------------------------

configure_nginx() {
    mkdir "$work/web"
    chown "${user_ids[kwweb]}:${group_ids[kwweb]}" "$work/web"
    # nginx is not started as root, so that the file has to be there.
    : >/run/nginx.pid
    chown "${user_ids[kwweb]}" /run/nginx.pid
    {
        echo "daemon off; pid /run/nginx.pid; error_log $work/web/error.log; worker_processes 1;"
        echo 'events {}'
        echo 'http {'
        echo "    access_log off;"
        for folder in client_body proxy fastcgi uwsgi scgi; do
            echo "    ${folder}_temp_path $work/web/$folder;"
        done
        echo '    server {'
        printf '        listen %s ssl;\n' "${listening[@]}"
        echo '        ssl_certificate /run/keywarden/current/web.crt;'
        echo '        ssl_certificate_key /run/keywarden/current/web.key;'
        # shellcheck disable=SC2016 # nginx's variable
        echo '        location / { return 200 "served to $remote_addr\n"; }'
        echo '    }'
        echo '}'
    } >"$work/nginx.conf"
}

# What a path unit of a service manager does: the daemon user may not signal another user's server.
serve_reload_requests() {
    while sleep 0.1 && [ -d "/proc/$$" ]; do
        if rm /run/keywarden/current/web.reload 2>/dev/null; then
            kill -HUP "$web_server"
        fi
    done
}

start_nginx() {
    configure_nginx
    printf '   $ nginx    (as the user kwweb, with ssl_certificate /run/keywarden/current/web.crt)\n'
    in_background setpriv --pdeathsig TERM --reuid "${user_ids[kwweb]}" --regid "${group_ids[kwweb]}" \
        --groups "${group_ids[kwkey]}" -- nginx -e "$work/web/error.log" -p "$work/web" -c "$work/nginx.conf"
    web_server=${started[-1]}
    in_background serve_reload_requests
}

# One for each address: outside of its own network the demonstration must not be reached from elsewhere.
start_s_server() {
    local address certificate
    certificate=$(certificate_of web)
    printf '   $ openssl s_server -cert %s ...    (as the user kwweb)\n' "${certificate#"$root"}"
    web_servers=()
    for address in "${listening[@]}"; do
        in_background setpriv --pdeathsig TERM --reuid "${user_ids[kwweb]}" --regid "${group_ids[kwweb]}" \
            --groups "${group_ids[kwkey]}" -- openssl s_server -quiet -www -accept "$address" \
            -cert "$certificate" -key "$certificate.key" >"$work/s_server" 2>&1
        web_servers+=("${started[-1]}")
    done
}

choose_port() {
    port=8443
    listening=("*:$port")
    [ "$own_mounts" = yes ] || listening=("$port")
    [ -z "$ipv6" ] || [ "$own_mounts" = no ] || listening+=("[::]:$port")
    if [ "$own_network" = no ]; then
        port=$(python3 "$work/device.py" port)
        listening=("$ipv4:$port" "$new_ipv4:$port")
        [ -z "$ipv6" ] || listening+=("[$ipv6]:$port")
    fi
}

is_served() {
    local address
    for address in "$ipv4" ${ipv6:+"[$ipv6]"}; do
        timeout 5 openssl s_client -connect "$address:$port" </dev/null >/dev/null 2>&1 || return 1
    done
}

# Verification is on: without a matching name and a trusted certificate, s_client ends with a failure.
client() {
    timeout 20 openssl s_client -connect "$1" -CAfile "$(certificate_of web)" -verify_return_error \
        "${@:2}" </dev/null 2>&1
}

# What to connect to for a host name: the chroot's /etc/hosts is not the host's.
where_is() {
    if [ "$own_mounts" = yes ] && [ "$1" = "$name" ]; then
        printf '%s' "$1"
    else
        printf '%s' "$ipv4"
    fi
}

show_connection() {
    local what=$1 peer=$2 said
    shift 2
    printf '   $ openssl s_client -connect %s -CAfile <the certificate> -verify_return_error %s\n' "$peer" "$*"
    said=$(client "$peer" "$@") || fail "no verified connection by $what: $said"
    case $said in
        *'Verify return code: 0 (ok)'*) tell "verified: by $what, \"Verify return code: 0 (ok)\"" ;;
        *) fail "a connection by $what, but not verified: $said" ;;
    esac
}

show_wrong_name() {
    local said peer wrong=elsewhere.example
    peer=$(where_is "$name"):$port
    printf '   $ openssl s_client -connect %s ... -verify_hostname %s\n' "$peer" "$wrong"
    if said=$(client "$peer" -verify_hostname "$wrong"); then
        fail "a wrong name is taken: $said"
    fi
    case $said in
        *'num=62:hostname mismatch'* | *'num=62:Hostname mismatch'*) tell "refused, as it must be: \"hostname mismatch\"" ;;
        *) fail "a wrong name is refused for another reason: $said" ;;
    esac
}

serve_certificate() {
    say "3. Serve it with a TLS server and connect, with verification on"
    choose_port
    if [ "$own_mounts" = yes ]; then
        start_nginx
    else
        start_s_server
    fi
    wait_until 20 is_served ||
        fail "the web server does not answer: $(cat "$work/web/error.log" "$work/s_server" 2>/dev/null)"
    show_connection "name" "$(where_is "$name"):$port" -servername "$name" -verify_hostname "$name"
    show_connection "IPv4 address" "$ipv4:$port" -verify_ip "$ipv4"
    [ -z "$ipv6" ] || show_connection "IPv6 address" "[$ipv6]:$port" -verify_ip "$ipv6"
    show_wrong_name
}

# --- 4 ----------------------------------------------------------------------------------------------------------

times_told() {
    grep -c "^[-0-9]* [:0-9]* $1\$" "$root/var/log/keywarden/owner.log" || true
}

is_told_again() {
    [ "$(times_told "$1")" -gt "$2" ]
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

is_served_now() {
    local said
    said=$(client "$1" -verify_ip "$2")
}

change_network() {
    local event before told
    say "4. The device gets one more address: the daemon makes a new certificate and tells the owner"
    event="web server new $(active_id web)"
    before=$(fingerprint_of web)
    told=$(times_told "$event")
    add_address
    notify n
    wait_until 60 is_told_again "$event" "$told" || fail "the owner was not told \"$event\": $(tail -n 3 "$work/syslog")"
    [ "$(fingerprint_of web)" != "$before" ] || fail "it is still the old certificate"
    tell "names: $(alternative_names "$(certificate_of web)")"
    require_names "$(certificate_of web)" "IP Address:$new_ipv4" "IP Address:$ipv4" "DNS:$name"
    show 6 "grep ' web ' /var/log/keywarden/owner.log    (what the owner's script was told)" \
        grep ' web ' "$root/var/log/keywarden/owner.log"
    if [ "$own_mounts" = no ]; then
        kill "${web_servers[@]}"
        wait "${web_servers[@]}" 2>/dev/null || true
        start_s_server
    fi
    wait_until 20 is_served_now "$new_ipv4:$port" "$new_ipv4" || fail "the web server shows no new certificate"
    show_connection "the new address" "$new_ipv4:$port" -verify_ip "$new_ipv4"
}

# --- 5 ----------------------------------------------------------------------------------------------------------

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
    local lines=$1 answer
    shift
    answer=$(ask "$@") || fail "no answer to: $*"
    case $answer in
        '0 '*) ;;
        *) fail "the answer to \"$*\" is: $answer" ;;
    esac
    printf '   $ printf '\''operator'
    printf '\\t%s' "$@"
    printf "' >%s.in; cat %s.out\n" "$1" "$1"
    printf '%s\n' "$answer" | head -n "$lines" | cut -c 1-100 | sed 's/^/   /'
}

give_commands() {
    local path
    say "5. Ask a service, as operator, a member of kwadmin"
    path=$store/web/server/$(active_id web)
    tell "\$ cd $pipes/web; mkfifo -m 0660 web.out"
    show_answer 1 web config status
    show_answer 8 web server getcertinfo "$path"
    [ "$(ask web config status)" = '0 running' ] || fail "the service does not say that it runs"
}

# --- 6 ----------------------------------------------------------------------------------------------------------

# The service "broker" has its certificate from the service "pkiroot", and the web server is made to trust that CA.
show_local_ca() {
    local authority broker
    say "6. A certificate authority on the device"
    authority=$(certificate_of pkiroot)
    broker=$(certificate_of broker)
    show 2 "openssl x509 -in $store/broker/server/$(active_id broker) -noout -subject -issuer" \
        openssl x509 -in "$broker" -noout -subject -issuer
    show 4 "openssl x509 -in $store/pkiroot/server/$(active_id pkiroot) -noout -ext basicConstraints,keyUsage" \
        openssl x509 -in "$authority" -noout -ext basicConstraints,keyUsage
    case $(openssl x509 -in "$authority" -noout -ext basicConstraints,keyUsage) in
        *critical*CA:TRUE*critical*'Certificate Sign, CRL Sign'*) ;;
        *) fail "these are not the extensions of a CA" ;;
    esac
    openssl verify -purpose sslserver -verify_hostname "$name" -verify_ip "$ipv4" -CAfile "$authority" "$broker" \
        >"$work/verify" 2>&1 || fail "the CA's certificate is no proof of the broker's: $(cat "$work/verify")"
    tell "verified: \"openssl verify -CAfile <pkiroot's>\" takes the broker's certificate"
    if openssl verify -CAfile "$(certificate_of web)" "$broker" >/dev/null 2>&1; then
        fail "any certificate is proof of the broker's"
    fi
    if as_user kwweb kwkey cat "$authority.key" >/dev/null 2>&1; then
        fail "a TLS server can read the CA's key"
    fi
    add_trusted_ca "${authority#"$root"}"
}

add_trusted_ca() {
    local id
    tell "The web server shall trust clients of that CA: it is added to the service's store \"ca\"."
    show_answer 1 web ca add "$1"
    id=$(active_id pkiroot)
    cmp -s <(openssl x509 -in "$root$store/web/ca/$id") <(openssl x509 -in "$root$1") ||
        fail "the store does not hold the CA"
    wait_until 10 is_told_again "web ca new $id" 0 || fail "the owner was not told of the CA"
}

# --- 7 ----------------------------------------------------------------------------------------------------------

is_gone() {
    grep -q "^$daemon_pid " "$work/statuses"
}

stop_daemon() {
    local status entry
    say "7. Stop the daemon"
    tell "\$ kill -TERM $daemon_pid"
    kill -TERM "$daemon_pid"
    wait_until 60 is_gone || fail "the daemon does not stop: $(tail -n 3 "$work/syslog")"
    status=$(sed -n "s/^$daemon_pid //p" "$work/statuses")
    tell "exit status: $status" "last line of its log: $(tail -n 1 "$work/syslog")"
    [ "$status" = 10 ] || fail "the exit status of an orderly stop is 10, not $status"
    [ "$(tail -n 1 "$work/syslog")" = 'NOTICE Stopping with the code 10...' ] || fail "the last line is another one"
    require_no_errors
    grep -q ' web stop$' "$root/var/log/keywarden/owner.log" || fail "the owner was not told of the stop"
    for entry in "$pipes" "$pid_file" /run/keywarden/keywardd.lock "/run/ready/$daemon_pid"; do
        [ ! -e "$root$entry" ] || fail "this is left behind: $entry"
    done
    [ -s "$(certificate_of web)" ] || fail "the certificate is gone"
    tell "No pipes, lock, pid file or readiness marker is left; the store stays. What remains in /run:"
    python3 "$work/device.py" list "$root" /run/keywarden /run/ready | sed 's/^/   /'
}

give_demonstration() {
    start_daemon
    show_certificate
    serve_certificate
    change_network
    give_commands
    show_local_ca
    stop_daemon
    say "Everything came out as told."
}
