#!/bin/sh
# Installs the Debian 12 packages that are missing; says and does nothing when none is.
#
#   tools/setup.sh [build] [demo] [test]      the groups wanted; "build" when none is named
set -eu

packages_of() {
    case $1 in
        build) echo g++ cmake ninja-build libssl-dev libcxxtools-dev libcli11-dev pkg-config ccache ;;
        demo) echo iproute2 nginx-light openssl util-linux python3 busybox-static hostname ;;
        test)
            echo libgtest-dev libgmock-dev libbenchmark-dev python3 python3-cryptography faketime iproute2 \
                busybox-static openssl strace nginx-light gnutls-bin golang-cfssl clang-format clang-tidy \
                util-linux procps shellcheck
            ;;
        *)
            echo "setup.sh: no group '$1'; there are build, demo and test" >&2
            return 1
            ;;
    esac
}

is_installed() {
    case $(dpkg-query -W -f '${db:Status-Abbrev}' "$1" 2>/dev/null) in
        ?i*) true ;;
        *) false ;;
    esac
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

fail() {
    echo "setup.sh: $1" >&2
    echo "Needed and not installed:$missing" >&2
    exit 1
}

# --- No service is started --------------------------------------------------------------------------------------

policy=/usr/sbin/policy-rc.d
saved_policy=$policy.keyward-saved
mark='Of an installation by keyward under way'
our_policy=

# Packages with a service (nginx) start it when they are installed, unless this file forbids it.
forbid_service_starts() {
    if [ -x "$policy" ] && ! grep -q "$mark" "$policy"; then
        answer=0
        "$policy" nginx start >/dev/null 2>&1 || answer=$?
        [ "$answer" -ne 101 ] || return 0
    fi
    our_policy=yes
    # One of ours can have stayed behind where a power cut ended an installation.
    if [ -e "$policy" ] && ! grep -q "$mark" "$policy"; then
        as_root mv "$policy" "$saved_policy"
    fi
    printf '#!/bin/sh\n# %s; removed at its end.\nexit 101\n' "$mark" | as_root tee "$policy" >/dev/null
    as_root chmod 755 "$policy"
}

allow_service_starts() {
    [ -n "$our_policy" ] || return 0
    our_policy=
    as_root rm -f "$policy"
    [ ! -e "$saved_policy" ] || as_root mv "$saved_policy" "$policy"
}

# A server that came only for our sake shall not run from the next boot on, either.
keep_from_boot() {
    case "$missing " in
        *' nginx-light '*) ;;
        *) return 0 ;;
    esac
    [ -z "$nginx_was_there" ] || return 0
    command -v systemctl >/dev/null || return 0
    as_root systemctl disable --quiet nginx.service >/dev/null 2>&1 || true
}

# ----------------------------------------------------------------------------------------------------------------

missing=
for group in "${@:-build}"; do
    wanted=$(packages_of "$group")
    for package in $wanted; do
        case "$missing " in
            *" $package "*) continue ;;
        esac
        is_installed "$package" || missing="$missing $package"
    done
done
[ -n "$missing" ] || exit 0

command -v apt-get >/dev/null || fail "this is not a Debian system (there is no apt-get)"
[ "$(id -u)" -eq 0 ] || command -v sudo >/dev/null || fail "run this as root, or install sudo"
nginx_was_there=
! is_installed nginx-common || nginx_was_there=yes

echo "Installing:$missing"
trap allow_service_starts EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM
forbid_service_starts
# An index that is partly out of reach may still do; the installation tells.
as_root apt-get -q -o DPkg::Lock::Timeout=300 update >/dev/null ||
    echo "setup.sh: 'apt-get update' failed; going on with the package lists that are there" >&2
# shellcheck disable=SC2086 # into words
as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=300 -o Dpkg::Use-Pty=0 \
    -o Dpkg::Options::=--force-confold install --no-install-recommends $missing </dev/null >/dev/null ||
    fail "the installation failed (see above)"
keep_from_boot
