# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154 # for and of the other files of this folder
# The demonstration itself, step by step; sourced by device.sh. A step that does not come out as told ends it.

pipes=/run/keywarden/pipes
store=/var/lib/keywarden/store
pid_file=/run/keywarden/keywardd.pid
owner_log=/var/log/keywarden/owner.log
uploads=/run/operator
name=unit42.example

# shellcheck source=tools/demo/process.sh
. "$top/tools/demo/process.sh"
# shellcheck source=tools/demo/certificates.sh
. "$top/tools/demo/certificates.sh"
# shellcheck source=tools/demo/tls.sh
. "$top/tools/demo/tls.sh"
# shellcheck source=tools/demo/requests.sh
. "$top/tools/demo/requests.sh"
# shellcheck source=tools/demo/authorities.sh
. "$top/tools/demo/authorities.sh"

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

# An external PKI's certificate is not made anew for a new address: the network changes before there is one.
give_demonstration() {
    start_daemon
    show_certificate
    serve_certificate
    show_local_ca
    change_network
    give_commands
    show_external_pki
    show_trusted
    stop_daemon
    say "Everything came out as told."
}
