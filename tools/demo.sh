#!/bin/bash
# Installs what is missing, builds keywardd and shows it at work. From any folder, as root or with sudo.
#
#   tools/demo.sh                          in a mount and a network namespace of its own
#   tools/demo.sh --no-namespaces          as where namespaces are refused: with less to show
#   tools/demo.sh --no-network-namespace   with the host's network
#   tools/demo.sh --no-mount-namespace     in a chroot
#
# Nothing on the host is changed but the packages that were missing and the folder build/demo.
set -Eeuo pipefail

top=$(CDPATH='' cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
build=$top/build/demo

# shellcheck source=tools/demo/messages.sh
. "$top/tools/demo/messages.sh"

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# --- Build ------------------------------------------------------------------------------------------------------

# After a run as root, the folder is root's.
as_builder() {
    if [ ! -e "$build" ] || [ -w "$build/CMakeCache.txt" ]; then
        "$@"
    else
        as_root "$@"
    fi
}

configure_and_build() {
    local launcher=''
    # ccache keeps its files at home.
    [ -z "${HOME:-}" ] || launcher=$(command -v ccache || true)
    as_builder cmake -S "$top" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE="-O2 -g1" \
        -DCMAKE_CXX_COMPILER_LAUNCHER="$launcher" -DKEYWARD_TESTS=OFF -DKEYWARD_BENCH=OFF &&
        as_builder cmake --build "$build" --target keywardd
}

build_daemon() {
    local log
    log=$(mktemp)
    if ! configure_and_build >"$log" 2>&1 || [ ! -x "$build/keywardd" ]; then
        cat "$log" >&2
        rm -f "$log"
        fail "the daemon could not be built"
    fi
    tail -n 1 "$log"
    rm -f "$log"
}

# --- Isolation --------------------------------------------------------------------------------------------------

own_mounts=yes
own_network=yes
mounts_refusal='asked for'
network_refusal='asked for'

read_options() {
    local option
    for option in "$@"; do
        case $option in
            --no-namespaces)
                own_mounts=no
                own_network=no
                ;;
            --no-mount-namespace) own_mounts=no ;;
            --no-network-namespace) own_network=no ;;
            *)
                sed -n '2,9s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
                [ "$option" = --help ] && exit 0
                exit 2
                ;;
        esac
    done
}

# Making the namespace is not enough: what is done in it later can be refused as well.
probe_namespaces() {
    if [ "$own_mounts" = yes ]; then
        # shellcheck disable=SC2016 # for the inner shell
        mounts_refusal=$(as_root unshare --mount --propagation private \
            sh -c 'mount -t tmpfs -o mode=0755 tmpfs "$1" && mount --bind "$1" "$1"' - "$work" 2>&1) ||
            own_mounts=no
    fi
    if [ "$own_network" = yes ]; then
        # shellcheck disable=SC2016 # for the inner shell
        network_refusal=$(as_root unshare --net sh -c 'ip link set lo up &&
            { ip link add eth0 type dummy || ip link add eth0 type veth peer name peer0; } 2>&1 &&
            ip link set eth0 up && ip addr add 10.20.30.5/24 dev eth0' 2>&1) || own_network=no
    fi
}

announce_refusals() {
    if [ "$own_mounts" = no ]; then
        loudly "NO MOUNT NAMESPACE (${mounts_refusal:-refused})." \
            "The daemon runs in a chroot with copied files, and \"openssl s_server\" stands for nginx." \
            "NOT SHOWN: a real web server that the owner's script makes read the new certificate."
    fi
    if [ "$own_network" = no ]; then
        loudly "NO NETWORK NAMESPACE (${network_refusal:-refused})." \
            "The device has this host's loopback for its network, and no address is added to it:" \
            "a wrapper adds one more line to what the network script prints." \
            "NOT SHOWN: that the daemon takes a changed address from a real interface."
    fi
}

run_on_device() {
    local options=()
    [ "$own_mounts" = no ] || options+=(--mount --propagation private)
    # With the device's own host name, too, which nobody outside shall see.
    [ "$own_mounts$own_network" != yesyes ] || options+=(--uts)
    [ "$own_network" = no ] || options+=(--net)
    as_root unshare "${options[@]}" bash "$top/tools/demo/device.sh" \
        "$work" "$own_mounts" "$own_network" "$top" "$build/keywardd"
}

remove_work() {
    [ -z "${work:-}" ] || as_root rm -rf --one-file-system "$work"
}

main() {
    read_options "$@"
    [ "$(id -u)" -eq 0 ] || command -v sudo >/dev/null || fail "run this as root, or install sudo"
    trap remove_work EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM HUP

    say "Install what is missing and build the daemon"
    "$top/tools/setup.sh" build demo || fail "not everything that is needed could be installed"
    build_daemon

    work=$(mktemp -d /tmp/keyward-demo.XXXXXX)
    chmod 755 "$work"
    probe_namespaces
    announce_refusals
    run_on_device || exit 1
}

main "$@"
