# shellcheck shell=bash
# shellcheck disable=SC2154 # the variables and functions of the other files of this folder
# The web server, and clients that verify it; sourced.

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
        print_nginx_server web "$port"
        print_nginx_server api "$api_port"
        echo '}'
    } >"$work/nginx.conf"
}

print_nginx_server() {
    local current=/run/keywarden/current
    echo '    server {'
    printf "        listen %s:$2 ssl;\n" "${listening[@]}"
    echo "        ssl_certificate $current/$1.crt;"
    echo "        ssl_certificate_key $current/$1.key;"
    # shellcheck disable=SC2016 # nginx's variable
    printf '%s\n' '        location / { return 200 "served to $remote_addr\n"; }'
    echo '    }'
}

# What a path unit of a service manager does: the daemon user may not signal another user's server.
serve_reload_requests() {
    while sleep 0.1 && [ -d "/proc/$$" ]; do
        if rm /run/keywarden/current/nginx.reload 2>/dev/null; then
            kill -HUP "$web_server"
        fi
    done
}

start_nginx() {
    configure_nginx
    printf '   $ nginx    (as the user kwweb, with the certificates of web and api in /run/keywarden/current)\n'
    in_background setpriv --pdeathsig TERM --reuid "${user_ids[kwweb]}" --regid "${group_ids[kwweb]}" \
        --groups "${group_ids[kwkey]}" -- nginx -e "$work/web/error.log" -p "$work/web" -c "$work/nginx.conf"
    web_server=${started[-1]}
    in_background serve_reload_requests
}

# One for each address: outside of its own network the demonstration must not be reached from elsewhere.
start_s_server() {
    local service=$1 address certificate
    certificate=$(certificate_of "$service")
    printf '   $ openssl s_server -cert %s ...    (as the user kwweb)\n' "${certificate#"$root"}"
    for address in "${listening[@]}"; do
        in_background setpriv --pdeathsig TERM --reuid "${user_ids[kwweb]}" --regid "${group_ids[kwweb]}" \
            --groups "${group_ids[kwkey]}" -- openssl s_server -quiet -www -accept "$address:$2" \
            -cert "$certificate" -key "$certificate.key" >>"$work/s_server" 2>&1
        web_servers[${started[-1]}]=$service
    done
}

# By the processes' ids.
declare -A web_servers=()

# nginx is made to read the new certificate by the owner's script; the stand-in is started anew.
renew_s_server() {
    local process
    [ "$own_mounts" = no ] || return 0
    for process in "${!web_servers[@]}"; do
        [ "${web_servers[$process]}" = "$1" ] || continue
        end_process "$process"
        unset "web_servers[$process]"
    done
    start_s_server "$1" "$2"
}

choose_ports() {
    port=8443
    api_port=8444
    listening=("*")
    [ -z "$ipv6" ] || [ "$own_mounts" = no ] || listening+=("[::]")
    if [ "$own_network" = no ]; then
        port=$(python3 "$work/device.py" port)
        api_port=$port
        while [ "$api_port" = "$port" ]; do
            api_port=$(python3 "$work/device.py" port)
        done
        listening=("$ipv4" "$new_ipv4")
        [ -z "$ipv6" ] || listening+=("[$ipv6]")
    fi
}

is_served() {
    local address
    for address in "$ipv4" ${ipv6:+"[$ipv6]"}; do
        timeout 5 openssl s_client -connect "$address:$port" </dev/null >/dev/null 2>&1 || return 1
        timeout 5 openssl s_client -connect "$address:$api_port" </dev/null >/dev/null 2>&1 || return 1
    done
}

# From here on, the clients trust this certificate and no other.
trust() {
    trusted_as=$1
    trusted=$2
}

# Verification is on: without a matching name and a trusted certificate, s_client ends with a failure.
client() {
    timeout 20 openssl s_client -connect "$1" -CAfile "$trusted" -no-CApath -no-CAstore -verify_return_error \
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
    printf '   $ openssl s_client -connect %s -CAfile <%s> -verify_return_error %s\n' "$peer" "$trusted_as" "$*"
    said=$(client "$peer" "$@") || fail "no verified connection by $what: $said"
    case $said in
        *'Verify return code: 0 (ok)'*) tell "verified: by $what, \"Verify return code: 0 (ok)\"" ;;
        *) fail "a connection by $what, but not verified: $said" ;;
    esac
}

show_connections() {
    show_connection "name" "$(where_is "$name"):$1" -servername "$name" -verify_hostname "$name"
    show_connection "IPv4 address" "$ipv4:$1" -verify_ip "$ipv4"
}

# What follows the port is for s_client, and the text is OpenSSL's reason.
show_refusal() {
    local reason=$1 said peer
    peer=$(where_is "$name"):$2
    shift 2
    printf '   $ openssl s_client -connect %s -CAfile <%s> ... %s\n' "$peer" "$trusted_as" "$*"
    if said=$(client "$peer" "$@"); then
        fail "there is a connection, but it must not be: $said"
    fi
    case ${said,,} in
        *"verify error:num="*":$reason"*) tell "refused, as it must be: \"$reason\"" ;;
        *) fail "this is refused for another reason: $said" ;;
    esac
}

serve_certificate() {
    say "3. Serve it with a TLS server and connect, with verification on"
    choose_ports
    if [ "$own_mounts" = yes ]; then
        start_nginx
    else
        start_s_server web "$port"
        start_s_server api "$api_port"
    fi
    wait_until 20 is_served ||
        fail "the web server does not answer: $(cat "$work/web/error.log" "$work/s_server" 2>/dev/null)"
    trust "the certificate" "$(certificate_of web)"
    show_connections "$port"
    [ -z "$ipv6" ] || show_connection "IPv6 address" "[$ipv6]:$port" -verify_ip "$ipv6"
    show_refusal "hostname mismatch" "$port" -verify_hostname elsewhere.example
}

# For a moment, nginx's old worker takes connections beside the new one.
has_one_worker() {
    local workers
    [ "$own_mounts" = yes ] || return 0
    workers=$(grep -ls "^PPid:[[:space:]]*$web_server\$" /proc/[0-9]*/status) || true
    [ "$(printf '%s\n' "$workers" | wc -l)" -eq 1 ]
}

is_served_now() {
    local said
    said=$(client "$@") && has_one_worker
}

# Right after the owner was told, the server may still be reading the new certificate.
show_new_connection() {
    wait_until 20 is_served_now "${@:2}" || fail "the web server shows no new certificate: $(client "${@:2}")"
    show_connection "$@"
}
