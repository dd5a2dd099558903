#!/bin/sh
# The callback script of a service whose certificate mosquitto serves. It runs as the daemon user, and the daemon waits
# for its end.
set -eu
umask 022 # the daemon's own is 0

store=/var/lib/keywarden/store/$1
links=/run/keywarden/current
fifo=/run/reload-servers

# mosquitto is configured with these two names, whatever the certificate's id is.
point() {
    [ -n "$1" ] || return 0
    mkdir -p "$links"
    ln -sfn "$store/server/$1" "$links/$service.crt"
    ln -sfn "$store/server/$1.key" "$links/$service.key"
}

# The daemon user may not signal mosquitto; reload-servers.sh does it. Opened for reading, too: that does not block
# where nobody reads.
ask_for_reload() {
    [ ! -p "$fifo" ] || echo mosquitto 1<>"$fifo"
}

service=$1
case "$2 ${3:-}" in
    'start ') point "$(cat "$store/server/.cacheddata/active.txt")" ;; # /run is empty after a boot
    'server new')
        point "$4"
        ask_for_reload
        ;;
esac
