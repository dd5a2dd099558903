#!/bin/bash
# Makes the device that the demonstration is given on, and gives it. Started by demo.sh as root, in the namespaces
# that could be had:
#
#   device.sh WORK OWN_MOUNTS OWN_NETWORK TOP DAEMON
#
# With a mount namespace, every path below is the real one; without, the device is a folder with copies.
set -Eeuo pipefail

work=$1
own_mounts=$2
own_network=$3
top=$4
daemon=$5

# shellcheck source=tools/demo/messages.sh
. "$top/tools/demo/messages.sh"
# shellcheck source=tools/demo/steps.sh
. "$top/tools/demo/steps.sh"

PATH=/usr/sbin:/usr/bin:/sbin:/bin
export PATH LC_ALL=C
# Apart from the one that is there for the daemon's own sake, each stands for somebody on the device.
declare -A user_ids=([keyuser]=47100 [kwweb]=47101 [operator]=47102)
declare -A group_ids=([keyuser]=47100 [kwweb]=47101 [operator]=47102
    [kwnotify]=47110 [kwadmin]=47111 [kwkey]=47112 [kwca]=47113)
declare -A members=([keyuser]=keyuser [kwca]=keyuser
    [kwnotify]="keyuser,operator" [kwadmin]="keyuser,operator" [kwkey]="keyuser,kwweb")

# In front of every path of the device.
root=
started=()

# --- Processes --------------------------------------------------------------------------------------------------

in_background() {
    "$@" </dev/null &
    started+=($!)
}

end_process() {
    local index
    kill "$1"
    wait "$1" 2>/dev/null || true
    for index in "${!started[@]}"; do
        [ "${started[index]}" != "$1" ] || unset "started[index]"
    done
}

as_user() {
    local user=$1 group=$2
    shift 2
    setpriv --reuid "${user_ids[$user]}" --regid "${group_ids[$group]}" --clear-groups -- "$@"
}

# The device's shell has root's rights, as the daemon's parent does.
on_device() {
    if [ "$own_mounts" = yes ]; then
        "$@"
    else
        chroot "$root" "$@"
    fi
}

wait_until() {
    local seconds=$1 end
    shift
    end=$((SECONDS + seconds))
    until "$@"; do
        [ "$SECONDS" -lt "$end" ] || return 1
        sleep 0.05
    done
}

clean_up() {
    trap - ERR
    set +e
    local pid
    for pid in "${started[@]}"; do
        kill "$pid" 2>/dev/null
    done
    for pid in "${started[@]}"; do
        wait "$pid" 2>/dev/null
    done
}

# --- Files ------------------------------------------------------------------------------------------------------

# Copies what is needed first: a file system in memory is about to hide some folders of the host.
gather() {
    if [ "$own_mounts" = yes ]; then
        mount -t tmpfs -o mode=0755 tmpfs "$work"
    fi
    cp "$daemon" "$work/keywardd"
    cp "$top/tools/demo/device.py" "$work/device.py"
    cp "$top/platform/network.sh" "$work/network.sh"
    cp -r "$top/examples/etc/keywarden" "$work/keywarden"
    chmod -R u+rwX,go+rX,go-w "$work/keywarden"
    chmod 755 "$work/keywardd" "$work/network.sh" "$work/keywarden/owner.sh"
}

make_etc_from_host() {
    mkdir "$work/etc"
    cp -a /etc/. "$work/etc"
    rm -rf "$work/etc/keywarden"
    echo 'passwd: files' >"$work/etc/nsswitch.conf"
    echo 'group: files' >>"$work/etc/nsswitch.conf"
    echo 'hosts: files' >>"$work/etc/nsswitch.conf"
    mount --bind "$work/etc" /etc
}

# One file system has the few devices that a program needs, and room for /dev/log.
make_dev() {
    local name
    mkdir "$work/dev" "$work/dev/shm"
    for name in null zero full random urandom tty; do
        : >"$work/dev/$name"
        mount --bind "/dev/$name" "$work/dev/$name"
    done
    ln -s /proc/self/fd "$work/dev/fd"
    ln -s /proc/self/fd/0 "$work/dev/stdin"
    ln -s /proc/self/fd/1 "$work/dev/stdout"
    ln -s /proc/self/fd/2 "$work/dev/stderr"
    mount --rbind "$work/dev" /dev
}

hide_host_folders() {
    local folder
    for folder in /run /var/lib /var/log; do
        mount -t tmpfs -o mode=0755 tmpfs "$folder"
    done
    [ -L /var/run ] || mount --rbind /run /var/run
}

# A folder that can be a root: the daemon, its libraries and BusyBox for everything else.
fill_chroot() {
    local library name
    root=$work/root
    mkdir -p "$root"/{bin,dev,etc,proc,run,sbin,tmp,usr/sbin,var/lib,var/log}
    ln -s /run "$root/var/run"
    cp /bin/busybox "$root/bin/busybox"
    for name in $("$root/bin/busybox" --list); do
        [ "$name" = busybox ] || ln -s busybox "$root/bin/$name"
    done
    cp "$work/keywardd" "$root/usr/sbin/keywardd"
    for library in $(ldd "$work/keywardd" | grep -o '/[^ ]*'); do
        mkdir -p "$root$(dirname "$library")"
        cp -L "$library" "$root$library"
    done
    for name in null,3 zero,5 random,8 urandom,9; do
        make_device "$root/dev/${name%,*}" "${name#*,}"
    done
    on_device sh -c true || fail "a program cannot be run in the chroot $root"
}

# Where devices are refused, an empty file does as /dev/null; the others are not opened.
make_device() {
    if ! { mknod -m 666 "$1" c 1 "$2" && : >"$1"; } 2>/dev/null; then
        rm -f "$1"
        : >"$1"
        chmod 666 "$1"
    fi
}

# --- Accounts and settings --------------------------------------------------------------------------------------

# Every account of the daemon's world has to be LISTED in /etc/group, the daemon user in each of its groups.
add_accounts() {
    local name
    touch "$root/etc/passwd" "$root/etc/group"
    for name in "${!user_ids[@]}"; do
        sed -i "/^$name:/d" "$root/etc/passwd"
        echo "$name:x:${user_ids[$name]}:${group_ids[$name]}::/nonexistent:/bin/sh" >>"$root/etc/passwd"
    done
    for name in "${!group_ids[@]}"; do
        sed -i "/^$name:/d" "$root/etc/group"
        echo "$name:x:${group_ids[$name]}:${members[$name]:-}" >>"$root/etc/group"
    done
}

# What an installation makes: the configuration, and folders that the daemon user may write into.
install_settings() {
    local owner="${user_ids[keyuser]}:${group_ids[keyuser]}" folder
    cp -r "$work/keywarden" "$root/etc/keywarden"
    mkdir -p "$root/etc/keywarden/scripts" "$root/run/ready"
    cp "$work/network.sh" "$root/etc/keywarden/scripts/network.sh"
    for folder in /run/keywarden /var/lib/keywarden /var/log/keywarden; do
        mkdir -p "$root$folder"
        chown "$owner" "$root$folder"
    done
    chown "$owner" "$root/run/ready"
    # Where the operator puts the certificates that the daemon shall take.
    mkdir "$root$uploads"
    chown "${user_ids[operator]}:${group_ids[operator]}" "$root$uploads"
}

# Names and addresses as they would stand on the device. In a network of the host's, only the loopback is ours.
settle_network() {
    local settings=$root/etc/keywarden name=unit42.example
    echo "fqdn $name" >"$settings/network.conf"
    if [ "$own_network" = yes ]; then
        interface=eth0 ipv4=10.20.30.5 ipv6=fd42::5 new_ipv4=10.20.30.77
    else
        interface=lo ipv4=127.0.0.1 ipv6=::1 new_ipv4=127.0.0.42
        echo 'loopback yes' >>"$settings/network.conf"
        sed -i 's/^networkInterface\.0 .*/networkInterface.0 lo/' "$settings/services"/*.conf
        wrap_network_script
    fi
    if [ "$own_mounts" = yes ]; then
        printf '127.0.0.1 localhost\n%s %s unit42\n' "$ipv4" "$name" >"$root/etc/hosts"
    fi
}

# The platform's script, and one more address of the loopback once there is a file with one.
wrap_network_script() {
    local scripts=$root/etc/keywarden/scripts
    mv "$scripts/network.sh" "$scripts/platform.sh"
    cat >"$scripts/network.sh" <<'END'
#!/bin/sh
scripts=/etc/keywarden/scripts
"$scripts/platform.sh" | while read -r key value; do
    echo "$key $value"
    case "$key $value" in
        interface.*' lo') number=${key#interface.} ;;
    esac
    if [ "$key" = "ipv4.$number.0" ] && [ -r "$scripts/new-address" ]; then
        echo "ipv4.$number.1 $(cat "$scripts/new-address")"
    fi
done
END
    chmod 755 "$scripts/network.sh"
}

make_network() {
    [ "$own_network" = yes ] || return 0
    [ "$own_mounts" = no ] || hostname unit42
    ip link set lo up
    if ! ip link add eth0 type dummy 2>/dev/null; then
        ip link add eth0 type veth peer name peer0
        ip link set peer0 up
    fi
    ip link set eth0 up
    ip addr add "$ipv4/24" dev eth0
    # Without the check for duplicates, the address can be used at once.
    ip addr add "$ipv6/64" dev eth0 nodad 2>/dev/null || true
}

# A kernel without IPv6 is no failure of the daemon's, but it has to be told.
check_ipv6() {
    local addresses
    addresses=$(ip -6 addr show dev "$interface" 2>/dev/null) || true
    case $addresses in
        *" $ipv6/"*) ;;
        *)
            ipv6=
            loudly "NO IPV6 ON $interface." "NOT SHOWN: an IPv6 address in the certificate."
            ;;
    esac
}

# ----------------------------------------------------------------------------------------------------------------

make_device_root() {
    if [ "$own_mounts" = yes ]; then
        make_etc_from_host
        make_dev
        hide_host_folders
    else
        fill_chroot
    fi
    add_accounts
    install_settings
    settle_network
    make_network
    check_ipv6
}

trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP
# A subshell only ends; the shell that waits for it tells.
trap '[ "$BASHPID" = $$ ] || exit 1; fail "line $LINENO of ${BASH_SOURCE[0]##*/} went wrong: $BASH_COMMAND"' ERR

umask 022
gather
make_device_root
give_demonstration
