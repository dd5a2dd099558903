#!/bin/sh
# Starts the ARM programs of the packages, unpacked in this root, under the emulator in /qemu: the daemon makes the
# certificates of the example configuration, keywardctl asks for them, the daemon stops.
set -eu

fail() {
    echo "use_emulated.sh: $1" >&2
    exit 1
}

# Waits for at most a minute until its arguments succeed.
await() {
    tries=600
    until "$@" >/dev/null 2>&1; do
        tries=$((tries - 1))
        [ "$tries" -gt 0 ] || fail "waited in vain for: $*"
        sleep 0.1
    done
}

is_ready() {
    [ -n "$(ls /run/ready)" ]
}

cp -r /usr/share/doc/keywardd/examples/etc/keywarden/. /etc/keywarden
# A device that knows its network from elsewhere.
cat >/etc/keywarden/scripts/network.sh <<'END'
#!/bin/sh
printf '%s\n' 'interface.0 eth0' 'ipv4.0.0 10.20.30.5' 'fqdn.0 unit42.example'
END

echo "  start"
/qemu/run /usr/sbin/keywardd
await is_ready
pid=$(cat /run/keywarden/keywardd.pid)
for service in web api pkiroot; do
    key=$(echo "/var/lib/keywarden/store/$service/server"/*.key)
    [ -f "$key" ] || fail "the service $service has no key"
    echo "  made $key"
done

echo "  keywardctl"
/qemu/run /usr/bin/keywardctl --version
/qemu/run /usr/bin/keywardctl status

echo "  stop"
kill "$pid"
await test ! -e /run/keywarden/keywardd.lock
