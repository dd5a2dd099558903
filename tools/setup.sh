#!/bin/sh
# Installs the Debian 12 packages that are missing; says and does nothing when none is.
#
#   tools/setup.sh [build] [demo] [test] [armhf] [package]      the groups wanted; "build" when none is named
set -eu

packages_of() {
    case $1 in
        build) echo g++ cmake ninja-build libssl-dev libcxxtools-dev libcli11-dev pkg-config ccache ;;
        demo) echo iproute2 nginx-light openssl util-linux python3 busybox-static hostname ;;
        test)
            echo libgtest-dev libgmock-dev libbenchmark-dev python3 python3-cryptography faketime iproute2 \
                busybox-static openssl strace nginx-light gnutls-bin golang-cfssl clang-format clang-tidy \
                util-linux procps shellcheck valgrind mosquitto mosquitto-clients stunnel4 mandoc \
                adduser hostname systemd
            ;;
        armhf) echo g++-arm-linux-gnueabihf qemu-user cmake ninja-build dpkg-dev util-linux ;;
        package)
            echo debhelper dpkg-dev fakeroot file git lintian make mmdebstrap pkg-config python3 util-linux
            ;;
        fuzz) echo clang libclang-rt-14-dev ;;
        analysis) echo clang-tidy cppcheck valgrind gcovr python3 ;;
        *)
            echo "setup.sh: no group '$1'; there are build, demo, test, armhf, package, fuzz and analysis" >&2
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

# Packages with a service (nginx, mosquitto) start it when they are installed, unless this file forbids it.
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

# Servers that came only for our sake shall not run from the next boot on, either.
keep_from_boot() {
    command -v systemctl >/dev/null || return 0
    for service in $services_to_keep_off; do
        as_root systemctl disable --quiet "$service" >/dev/null 2>&1 || true
    done
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
# The package that a service comes with, and the service.
services_to_keep_off=
for pair in nginx-common:nginx.service mosquitto:mosquitto.service stunnel4:stunnel.target; do
    case "$missing " in
        *" ${pair%%[-:]*}"*) is_installed "${pair%:*}" || services_to_keep_off="$services_to_keep_off ${pair#*:}" ;;
    esac
done

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
