#!/bin/sh
# A first use of the installed packages, inside of the clean root: the example configuration, the daemon as the init
# script starts it, keywardctl, a plug-in, and the orderly stop.
#
#   use_installed.sh PLUGIN.so
set -eu

plugin=$1
store=/var/lib/keywarden/store

fail() {
    echo "use_installed.sh: $1" >&2
    exit 1
}

# Waits for at most 30 seconds until its arguments succeed.
await() {
    tries=300
    until "$@" >/dev/null 2>&1; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || fail "waited in vain for: $*"
        sleep 0.1
    done
}

make_network() {
    hostname unit42
    ip link set lo up
    ip link add eth0 type dummy 2>/dev/null || {
        ip link add eth0 type veth peer name peer0
        ip link set peer0 up
    }
    ip link set eth0 up
    ip addr add 10.20.30.5/24 dev eth0
    echo '10.20.30.5 unit42.example unit42' >>/etc/hosts
}

# As the examples are meant: copied to their place. One service more has its events told to the plug-in.
configure() {
    cp -r /usr/share/doc/keywardd/examples/etc/keywarden/. /etc/keywarden
    sed "s|^callbackScript .*|callbackLibrary $plugin|" /etc/keywarden/services/web.conf >/etc/keywarden/services/plugged.conf
}

expect_mode() {
    mode=$(stat -c '%a %U %G' "$2")
    [ "$mode" = "$1" ] || fail "$2 is '$mode' instead of '$1'"
}

is_ready() {
    [ -n "$(ls /run/ready)" ]
}

is_stopped() {
    ! pgrep_keywardd
}

# There is no procps here.
pgrep_keywardd() {
    for name in /proc/[0-9]*/comm; do
        if [ "$(cat "$name" 2>/dev/null)" = keywardd ]; then
            return 0
        fi
    done
    return 1
}

make_network
configure

echo "  start"
/etc/init.d/keywardd start
await is_ready
expect_mode '755 keyuser keyuser' /var/lib/keywarden
for service in web api pkiroot plugged; do
    keys=$(echo "$store/$service/server"/*.key)
    [ -f "$keys" ] || fail "the service $service has no key"
done
expect_mode '640 keyuser kwkey' "$(echo $store/web/server/*.key)"

echo "  keywardctl"
keywardctl status
for service in web api pkiroot plugged; do
    keywardctl status "$service" | grep -q running || fail "the service $service does not run"
done
keywardctl check
keywardctl notify network

echo "  plug-in"
cat /run/keywarden/plugged.events
grep -q '^new certificate [0-9a-f]*\.0$' /run/keywarden/plugged.events || fail "the plug-in was not told of its certificate"

echo "  stop"
/etc/init.d/keywardd stop
await is_stopped
[ ! -e /run/keywarden/keywardd.lock ] || fail "the lock stayed behind"
grep -q '^stopped$' /run/keywarden/plugged.events || fail "the plug-in was not told of the stop"
