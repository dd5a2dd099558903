#!/bin/sh
# Cross-builds the daemon, keywardctl and the unit tests for 32-bit ARM and runs the tests under qemu-user.
#
#   tools/armhf.sh             everything: packages, sysroot, build, tests
#   tools/armhf.sh sysroot     only the folder with the target's libraries, build/armhf-sysroot
#
# The host learns of no other architecture and gets no package of one: apt works on lists, a cache and a status
# file of its own in build/, and the packages are unpacked, not installed.
set -eu

top=$(CDPATH='' cd -- "$(dirname -- "$0")/.." && pwd)
cd "$top"
sysroot=$top/build/armhf-sysroot
private_apt=$top/build/armhf-apt
jobs=$(nproc)

# The newest packages that the libraries depend on come along by themselves.
packages='libc6 libstdc++6 libssl-dev libcxxtools-dev libcli11-dev libgtest-dev libgmock-dev'

say() {
    printf '\n== %s\n' "$*"
}

fail() {
    echo "armhf.sh: $1" >&2
    exit 1
}

# --- The sysroot ------------------------------------------------------------------------------------------------

apt_for_armhf() {
    apt-get -q -o APT::Architecture=armhf -o APT::Architectures=armhf \
        -o Dir::State="$private_apt/state" -o Dir::State::status="$private_apt/status" \
        -o Dir::Cache="$private_apt/cache" -o APT::Sandbox::User="$(id -un)" "$@"
}

download() {
    mkdir -p "$private_apt/state/lists/partial" "$private_apt/cache/archives/partial"
    : >"$private_apt/status"
    # A source that does not have this architecture, or cannot be reached, may not matter; the next step tells.
    apt_for_armhf update >"$private_apt/log" 2>&1 || true
    # shellcheck disable=SC2086 # into words
    apt_for_armhf -y --download-only --no-install-recommends install $packages >>"$private_apt/log" 2>&1 || {
        cat "$private_apt/log" >&2
        fail "the packages for armhf could not be downloaded"
    }
}

# An entry in a package database of the sysroot's own, so that dpkg-shlibdeps can tell which package and version a
# library is of. It meets the libraries under their names on the host, which are therefore what is listed.
register() {
    control=$(mktemp -d)
    dpkg-deb -e "$1" "$control"
    package=$(dpkg-deb -f "$1" Package)
    architecture=$(dpkg-deb -f "$1" Architecture)
    entry=$2/var/lib/dpkg/info/$package
    if grep -q '^Multi-Arch: same' "$control/control"; then
        entry=$entry:$architecture
    fi
    dpkg-deb --fsys-tarfile "$1" | tar -t | sed -n "s|^\./\(.*[^/]\)\$|$sysroot/\1|p" >"$entry.list"
    for file in symbols shlibs; do
        [ ! -f "$control/$file" ] || cp "$control/$file" "$entry.$file"
    done
    {
        sed '/^Package:/a Status: install ok installed' "$control/control"
        echo
    } >>"$2/var/lib/dpkg/status"
    rm -r "$control"
}

make_sysroot() {
    wanted="$sysroot, by $(cksum <"$top/tools/armhf.sh")"
    # What went into it is written last: a sysroot that was not finished is made anew.
    [ "$(cat "$sysroot/made-of" 2>/dev/null)" != "$wanted" ] || return 0
    say "Sysroot for armhf"
    rm -rf "$private_apt" "$sysroot" "$sysroot.new"
    mkdir -p "$sysroot.new/var/lib/dpkg/info"
    echo armhf >"$sysroot.new/var/lib/dpkg/arch"
    echo 1 >"$sysroot.new/var/lib/dpkg/info/format"
    download
    for package in "$private_apt"/cache/archives/*.deb; do
        dpkg-deb -x "$package" "$sysroot.new"
        register "$package" "$sysroot.new"
        basename "$package"
    done
    # Under the emulation a name that exists here stands before the host's: only libraries shall.
    rm -rf "$private_apt" "$sysroot.new/usr/share" "$sysroot.new/usr/bin" "$sysroot.new/usr/src" "$sysroot.new/etc"
    printf '%s\n' "$wanted" >"$sysroot.new/made-of"
    mv "$sysroot.new" "$sysroot"
}

# --- Build and test ---------------------------------------------------------------------------------------------

build() {
    say "Build for armhf"
    launcher=
    if command -v ccache >/dev/null 2>&1; then
        launcher=-DCMAKE_CXX_COMPILER_LAUNCHER=ccache
    fi
    # shellcheck disable=SC2086 # nothing when there is no launcher
    cmake --preset armhf $launcher
    cmake --build --preset armhf -j "$jobs"
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo -E "$@"
    fi
}

# A case that is not run must be one that there is: a name that was changed would else be left out of the list's sight.
check_exclusions() {
    exclusions=tests/unit/not_under_emulation.txt
    names=$(sed -n 's/^\([A-Za-z0-9_]*\.[A-Za-z0-9_]*\) .*/\1/p' "$exclusions")
    for name in $names; do
        grep -rqE "^TEST(_F|_P)?\(${name%.*}, ${name#*.}\)" tests/unit || fail "$exclusions: there is no $name"
    done
    echo "left out: $(echo "$names" | wc -l) cases; $exclusions tells why"
}

# Programs of the tests mostly wait. What a busy machine made too slow is tried once more; the output names it.
run_tests() {
    say "Unit tests under qemu-arm"
    check_exclusions
    as_root ctest --preset armhf -j "$((2 * jobs))" --repeat until-pass:3
}

# Two at a time would make the sysroot under each other's feet.
mkdir -p build
exec 9>build/armhf.lock
flock 9

case ${1:-all} in
    sysroot)
        "$top/tools/setup.sh" armhf
        make_sysroot
        ;;
    all)
        "$top/tools/setup.sh" build armhf
        make_sysroot
        build
        run_tests
        ;;
    *) fail "unknown argument '$1'; there is 'sysroot', or none" ;;
esac
