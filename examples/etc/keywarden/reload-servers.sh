#!/bin/sh
# Makes servers read their certificates again when a callback script asks for it: the scripts run as the daemon user,
# who may not signal other accounts' servers. Started at boot as root. It takes the names below and nothing else, so
# that the daemon user gains the right to ask for a reload, and no other.
set -u

fifo=/run/reload-servers

rm -f "$fifo"
mkfifo -m 0600 "$fifo"
chgrp keyuser "$fifo"
chmod 0660 "$fifo"
# Open for reading and writing: there is always a reader, and no end of file between two requests.
exec 3<>"$fifo"

hang_up() {
    [ ! -r "$1" ] || kill -HUP "$(cat "$1")"
}

while read -r server <&3; do
    case $server in
        nginx) hang_up /run/nginx.pid ;;
        mosquitto) hang_up /run/mosquitto/mosquitto.pid ;;
        stunnel) hang_up /run/stunnel4/stunnel.pid ;;
    esac
done
