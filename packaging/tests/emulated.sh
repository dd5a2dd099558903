#!/bin/sh
# Looks into the packages for 32-bit ARM, unpacks them in a clean Debian of this machine's architecture and starts
# their programs there under qemu-arm. Needs root and a mount and process namespace of its own, which build.sh gives
# it.
#
#   emulated.sh ROOT.tar SYSROOT PACKAGE.deb ...
set -eu

archive=$1
sysroot=$2
shift 2
here=$(CDPATH='' cd -- "$(dirname -- "$0")" && pwd)
root=/mnt

fail() {
    echo "emulated.sh: $1" >&2
    exit 1
}

# --- What is in the packages ------------------------------------------------------------------------------------

expect_dependency() {
    case " $(dpkg-deb -f "$1" Depends)," in
        *" $2 "*) ;;
        *) fail "$1 does not depend on $2" ;;
    esac
}

look_into() {
    for package in "$@"; do
        [ "$(dpkg-deb -f "$package" Architecture)" = armhf ] || fail "$package is not for armhf"
        case $package in
            *keywardd_* | *keywardctl_*)
                for library in libc6 libcxxtools10 libssl3 'libstdc++6'; do
                    expect_dependency "$package" "$library"
                done
                ;;
        esac
        echo "$(dpkg-deb -f "$package" Package): $(dpkg-deb -f "$package" Depends)"
    done
}

expect_arm() {
    description=$(file -b "$root$1")
    case $description in
        *'ELF 32-bit LSB pie executable, ARM, EABI5'*ld-linux-armhf.so.3*) echo "$1: ${description%%,\ dynamic*}" ;;
        *) fail "$1 is: $description" ;;
    esac
}

# --- The root ---------------------------------------------------------------------------------------------------

# The emulator and its own libraries, in a folder apart from the root's.
copy_emulator() {
    mkdir "$root/qemu"
    emulator=$(command -v qemu-arm)
    cp "$emulator" "$root/qemu/qemu-arm"
    ldd "$emulator" | sed -n 's/.*=> \(\/[^ ]*\) .*/\1/p; s/^[[:space:]]*\(\/[^ ]*\) .*/\1/p' |
        while read -r library; do cp -L "$library" "$root/qemu"; done
    cat >"$root/qemu/run" <<'END'
#!/bin/sh
exec /qemu/ld-linux-x86-64.so.2 --library-path /qemu /qemu/qemu-arm -0 "$1" "$@"
END
    chmod 755 "$root/qemu/run"
}

fill_root() {
    mount -t tmpfs -o mode=755 tmpfs "$root"
    tar -x -C "$root" -f "$archive"
    mount -t proc proc "$root/proc"
    for folder in lib/arm-linux-gnueabihf usr/lib/arm-linux-gnueabihf; do
        mkdir -p "$root/$folder"
        cp -a "$sysroot/$folder/." "$root/$folder"
    done
    ln -s arm-linux-gnueabihf/ld-linux-armhf.so.3 "$root/lib/ld-linux-armhf.so.3"
    for package in "$@"; do
        # Through the links: /lib of the root is /usr/lib.
        dpkg-deb --fsys-tarfile "$package" | tar -x -C "$root" --keep-directory-symlink
    done
    copy_emulator
}

# By hand, because the packages are not installed: the root's package manager is of another architecture.
add_accounts() {
    {
        echo 'keyuser:x:900:'
        gid=901
        for group in kwnotify kwadmin kwkey kwca; do
            echo "$group:x:$gid:keyuser"
            gid=$((gid + 1))
        done
    } >>"$root/etc/group"
    echo 'keyuser:x:900:900::/nonexistent:/usr/sbin/nologin' >>"$root/etc/passwd"
    for folder in var/lib/keywarden var/log/keywarden run/keywarden run/ready; do
        install -d -o 900 -g 900 "$root/$folder"
    done
}

look_into "$@"
fill_root "$@"
expect_arm /usr/sbin/keywardd
expect_arm /usr/bin/keywardctl
add_accounts
cp "$here/use_emulated.sh" "$root/tmp/use_emulated.sh"
chroot "$root" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C /bin/sh /tmp/use_emulated.sh
