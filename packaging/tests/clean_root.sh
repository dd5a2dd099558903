#!/bin/sh
# Installs the packages in a Debian with nothing else in it, uses, removes and purges them there, and looks what stays
# behind. Needs root and a mount and process namespace of its own, which build.sh gives it: so nothing has to be
# taken away at the end, and nothing runs on.
#
#   clean_root.sh ROOT.tar PLUGIN.so PACKAGE.deb ...
set -eu

archive=$1
plugin=$2
shift 2
here=$(CDPATH='' cd -- "$(dirname -- "$0")" && pwd)
root=/mnt

fail() {
    echo "clean_root.sh: $1" >&2
    exit 1
}

in_root() {
    chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C DEBIAN_FRONTEND=noninteractive "$@"
}

quietly() {
    "$@" >"$root/tmp/log" 2>&1 || {
        tail -n 40 "$root/tmp/log" >&2
        fail "this failed: $*"
    }
}

apt() {
    quietly in_root apt-get -q -y -o Dpkg::Use-Pty=0 --no-install-recommends "$@"
}

# --- The root ---------------------------------------------------------------------------------------------------

fill_root() {
    mount -t tmpfs -o mode=755 tmpfs "$root"
    tar -x -C "$root" -f "$archive"
    mount -t proc proc "$root/proc"
    cp -L /etc/resolv.conf "$root/etc/resolv.conf"
    # Nothing is started by an installation: what runs here is started by hand.
    printf '#!/bin/sh\nexit 101\n' >"$root/usr/sbin/policy-rc.d"
    chmod 755 "$root/usr/sbin/policy-rc.d"
    touch "$root/etc/hosts"
    mkdir "$root/packages"
    cp "$@" "$root/packages"
}

packages_in_root() {
    for package in "$root"/packages/*.deb; do
        echo "${package#"$root"}"
    done
}

names_of_packages() {
    for package in "$root"/packages/*.deb; do
        dpkg-deb -f "$package" Package
    done
}

# The other packages that ours need come first, so that what is compared later is ours alone.
install_dependencies() {
    in_root apt-get -q update >/dev/null 2>&1 || true
    # Of the ways to make accounts the smallest one, as on a device without systemd.
    apt install systemd-standalone-sysusers
    ours=$(names_of_packages | tr '\n' ' ')
    # shellcheck disable=SC2046 # into words
    dependencies=$(in_root apt-get -q -s --no-install-recommends install $(packages_in_root) |
        awk -v ours=" $ours" '$1 == "Inst" && !index(ours, " " $2 " ") { print $2 }')
    echo "needed beside an essential Debian: $(echo "$dependencies" | tr '\n' ' ')"
    # shellcheck disable=SC2086 # into words
    apt install $dependencies
}

# Every name but those that the package manager keeps for itself.
list_files() {
    (cd "$root" && find . -xdev \( -path ./packages -o -path ./tmp -o -path ./var/cache -o -path ./var/lib/dpkg \
        -o -path ./var/lib/apt -o -path ./var/log/apt \) -prune -o -print) |
        grep -v -e '^\./var/log/dpkg\.log$' -e '^\./var/log/alternatives\.log$' | sort
}

# --- Steps ------------------------------------------------------------------------------------------------------

install_ours() {
    # shellcheck disable=SC2046 # into words
    apt install $(packages_in_root)
}

purge_ours() {
    # shellcheck disable=SC2046 # into words
    apt purge $(names_of_packages)
}

# The backup files of whoever makes accounts.
account_files='^\./etc/\(passwd\|group\|shadow\|gshadow\)-$\|^\./etc/\.pwd\.lock$'

# "left", but for the accounts and the names in the file "expected".
expect_only_expected() {
    grep -v "$account_files" "$root/tmp/left" | grep -vxF -f "$root/tmp/expected" >"$root/tmp/odd" || true
    [ ! -s "$root/tmp/odd" ] || fail "left behind by a purge: $(cat "$root/tmp/odd")"
    in_root getent passwd keyuser >/dev/null || fail "the account keyuser was removed"
}

# The keys, and what the administrator has put beside the package's own configuration.
note_what_may_stay() {
    (cd "$root" && find ./var/lib/keywarden) >"$root/tmp/expected"
    (cd "$root/usr/share/doc/keywardd/examples" && find ./etc/keywarden) >>"$root/tmp/expected"
    echo ./etc/keywarden/services/plugged.conf >>"$root/tmp/expected"
}

compare() {
    list_files >"$root/tmp/after"
    comm -13 "$root/tmp/before" "$root/tmp/after" >"$root/tmp/left"
    comm -23 "$root/tmp/before" "$root/tmp/after" >"$root/tmp/lost"
    [ ! -s "$root/tmp/lost" ] || fail "gone, and not ours: $(cat "$root/tmp/lost")"
}

fill_root "$@"
install_dependencies
list_files >"$root/tmp/before"

echo "install, and purge what was never used"
install_ours
purge_ours
compare
echo nothing >"$root/tmp/expected"
expect_only_expected

echo "install and use"
install_ours
cp "$plugin" "$root/packages/events.so"
cp "$here/use_installed.sh" "$root/tmp/use_installed.sh"
# With a network of its own, and a name that it may choose.
unshare --net --uts chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C \
    /bin/sh /tmp/use_installed.sh /packages/events.so

echo "install over itself: configuration and keys stay"
echo '# changed by the administrator' >>"$root/etc/keywarden/config.daemon"
key=$(cd "$root" && ls var/lib/keywarden/store/web/server/*.key)
before=$(sha256sum "$root/$key")
# shellcheck disable=SC2046 # into words
apt --reinstall install $(packages_in_root)
grep -q 'changed by the administrator' "$root/etc/keywarden/config.daemon" || fail "the configuration was overwritten"
[ "$(sha256sum "$root/$key")" = "$before" ] || fail "a key was changed"

echo "remove: the configuration stays; purge: the keys stay"
note_what_may_stay
# shellcheck disable=SC2046 # into words
apt remove $(names_of_packages)
[ -f "$root/etc/keywarden/config.daemon" ] || fail "removing the package removed its configuration"
[ ! -e "$root/usr/sbin/keywardd" ] || fail "the daemon is still there"
purge_ours
grep 'private keys' "$root/tmp/log" || fail "the purge did not tell that keys are kept"
compare
expect_only_expected
[ -d "$root/var/lib/keywarden/store/web/server" ] || fail "a purge removed private keys"
echo "left behind, as documented: $(grep -c . "$root/tmp/left") names, /var/lib/keywarden and the administrator's own files"
