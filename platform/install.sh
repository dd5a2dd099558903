#!/bin/sh
# Copies the platform files to where they belong.
#
#   platform/install.sh DESTDIR systemd|init
#
# DESTDIR may be "" or "/". Accounts and folders are not made: systemd-sysusers and systemd-tmpfiles do that, or the
# image (docs/platform.md). The daemon, its configuration and network.sh are not copied.
set -eu

source=${0%/*}
[ $# -eq 2 ] || {
    echo "usage: $0 DESTDIR systemd|init" >&2
    exit 2
}
root=${1%/}

put() {
    mode=$1
    from=$2
    to=$root/$3
    mkdir -p "${to%/*}"
    cp "$source/$from" "$to"
    chmod "$mode" "$to"
}

put 0644 lib/settings usr/lib/keywardd/settings
put 0755 lib/instance usr/lib/keywardd/instance
put 0755 hooks/keyward-notify usr/lib/keywardd/notify

# In if-down.d the addresses would still be there.
for folder in if-up.d if-post-down.d; do
    put 0755 hooks/ifupdown/keywardd etc/network/$folder/keywardd
done

case $2 in
    systemd)
        for unit in keywardd.service keyward-time.service keyward-time.timer keyward-time.path \
            keyward-time-synchronized.service keyward-time-chrony.service; do
            put 0644 systemd/$unit usr/lib/systemd/system/$unit
        done
        for example in unprivileged.conf keyward-reload-nginx.path keyward-reload-nginx.service; do
            put 0644 systemd/$example usr/share/doc/keywardd/examples/$example
        done
        put 0644 sysusers.d/keywardd.conf usr/lib/sysusers.d/keywardd.conf
        put 0644 tmpfiles.d/keywardd.conf usr/lib/tmpfiles.d/keywardd.conf
        put 0755 hooks/NetworkManager/50-keywardd usr/lib/NetworkManager/dispatcher.d/50-keywardd
        for folder in routable.d degraded.d no-carrier.d off.d; do
            put 0755 hooks/networkd-dispatcher/50-keywardd usr/lib/networkd-dispatcher/$folder/50-keywardd
        done
        ;;
    init) put 0755 init.d/keywardd etc/init.d/keywardd ;;
    *)
        echo "$0: systemd or init, not '$2'" >&2
        exit 2
        ;;
esac
