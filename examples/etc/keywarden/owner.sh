#!/bin/sh
# The daemon runs this script, as the daemon user, with every event of a service whose file names it under
# "callbackScript", and waits for its end. What it is called with:
#
#   owner.sh <service> start | stop | allStarted
#   owner.sh <service> server new <id>             the service has a new certificate
#   owner.sh <service> server validIn <days>       its certificate becomes valid in so many days
#   owner.sh <service> server expireIn <days>      its certificate ends in so many days (told daily)
#   owner.sh <service> server expireFrom <days>    its certificate ended so many days ago
#   owner.sh <service> ca new <id>                 a trusted CA was added; "client" for a trusted client
#   owner.sh <service> ca revoke <id> ...          trusted CAs were removed
#
# An exit status other than 0 is logged as a warning; nothing else depends on it.
set -u

# The daemon user must be allowed to write into these two folders.
log=/var/log/keywarden/owner.log
current=/run/keywarden/current

store=/var/lib/keywarden/store
serverPid=/run/nginx.pid

# Servers are configured with one pair of names for good, whatever the certificate's id is.
point() {
    mkdir -p "$current"
    ln -sfn "$store/$1/server/$2" "$current/$1.crt"
    ln -sfn "$store/$1/server/$2.key" "$current/$1.key"
}

# nginx reads its certificate again on SIGHUP. One that runs under another account cannot be signalled from here:
# then a file asks whoever may do it, with systemd for example a path unit that has
# "PathModified=/run/keywarden/current/nginx.reload" and starts a unit with "ExecStart=systemctl reload nginx".
reloadServer() {
    pid=
    if [ -r "$serverPid" ]; then
        read -r pid <"$serverPid"
    fi
    if [ -z "$pid" ] || [ ! -d "/proc/$pid" ]; then
        return # it reads the new certificate when it starts
    fi
    kill -HUP "$pid" 2>/dev/null || : >"$current/nginx.reload"
}

# The daemon works with an empty umask, and so would this script.
umask 022
printf '%s %s\n' "$(date -u '+%Y-%m-%d %H:%M:%S')" "$*" >>"$log"

case "$1 $2 ${3:-}" in
    *' start ') # /run is empty after a boot, and the certificate is not new
        id=$(cat "$store/$1/server/.cacheddata/active.txt" 2>/dev/null)
        [ -z "$id" ] || point "$1" "$id"
        ;;
    'web server new' | 'api server new') # nginx serves both
        point "$1" "$4"
        reloadServer
        ;;
    *' server new') point "$1" "$4" ;;
esac
