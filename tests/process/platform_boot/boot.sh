#!/bin/sh
# Boots a real systemd in namespaces of its own, on a copy in memory of this machine, with keywardd installed.
#
#   boot.sh SOURCE PROGRAM WORK CGROUP      run by unshare --mount --pid --net --uts --ipc --fork
#
# It must not reach the machine: /dev is its own, /sys and /proc/sys are read-only, and its control groups are all
# below the one that its caller has put it in.
set -eu

source=$1
program=$2
work=$3
root=$work/root

mount --make-rprivate /
mount -t tmpfs -o mode=0755 tmpfs "$work"
mkdir "$work/upper" "$work/scratch" "$root"
mount -t overlay -o "lowerdir=/,upperdir=$work/upper,workdir=$work/scratch" overlay "$root"

mount -t proc proc "$root/proc"
mount --bind "$root/proc/sys" "$root/proc/sys"
mount -o remount,bind,ro "$root/proc/sys"
if [ -e "$root/proc/sysrq-trigger" ]; then
    mount --bind "$root/proc/sysrq-trigger" "$root/proc/sysrq-trigger"
    mount -o remount,bind,ro "$root/proc/sysrq-trigger"
fi
mount -t sysfs -o ro sysfs "$root/sys"
mount -t cgroup2 cgroup2 "$root/sys/fs/cgroup"
mount -t tmpfs -o mode=0755 tmpfs "$root/run"
mount -t tmpfs -o mode=1777 tmpfs "$root/tmp"

mount -t tmpfs -o mode=0755 tmpfs "$root/dev"
mkdir -m 1777 "$root/dev/shm"
mkdir "$root/dev/pts" "$root/dev/mqueue" "$root/dev/hugepages"
mount -t devpts -o newinstance,ptmxmode=0666 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"
for device in 'null 1 3' 'zero 1 5' 'full 1 7' 'random 1 8' 'urandom 1 9' 'tty 5 0'; do
    # shellcheck disable=SC2086 # into words
    set -- $device
    mknod -m 0666 "$root/dev/$1" c "$2" "$3"
done
for link in fd stdin:fd/0 stdout:fd/1 stderr:fd/2; do
    ln -s "/proc/self/${link#*:}" "$root/dev/${link%:*}"
done

# Nothing is to start but what is under test, and the journal.
rm -rf "$root/etc/systemd/system" "$root/etc/keywarden"
mkdir -p "$root/etc/systemd/system" "$root/etc/keywarden"
: >"$root/etc/fstab"
mkdir -p "$root/etc/systemd/journald.conf.d"
printf '[Journal]\nStorage=volatile\nRateLimitBurst=0\n' >"$root/etc/systemd/journald.conf.d/test.conf"
for unit in systemd-udevd.service systemd-udev-trigger.service systemd-udevd-control.socket \
    systemd-udevd-kernel.socket systemd-sysctl.service systemd-binfmt.service proc-sys-fs-binfmt_misc.automount \
    systemd-modules-load.service systemd-random-seed.service systemd-update-utmp.service dev-hugepages.mount \
    dev-mqueue.mount sys-kernel-config.mount sys-kernel-debug.mount sys-kernel-tracing.mount \
    sys-fs-fuse-connections.mount systemd-timesyncd.service systemd-firstboot.service; do
    ln -s /dev/null "$root/etc/systemd/system/$unit"
done
printf '[Unit]\nRequires=basic.target\nAfter=basic.target\nAllowIsolate=yes\n' >"$root/etc/systemd/system/default.target"
# A web server under another account.
printf '[Service]\nExecStart=/bin/sleep infinity\nExecReload=/bin/touch /run/nginx-was-reloaded\n' \
    >"$root/etc/systemd/system/nginx.service"

rm -f "$root/usr/sbin/keywardd"
cp "$program" "$root/usr/sbin/keywardd"
"$source/platform/install.sh" "$root" systemd
cp "$source/platform/systemd/keyward-reload-nginx.path" "$source/platform/systemd/keyward-reload-nginx.service" \
    "$root/etc/systemd/system"
cp -r "$source/examples/etc/keywarden/." "$root/etc/keywarden"
mkdir -p "$root/etc/keywarden/scripts"
cp "$source/platform/network.sh" "$root/etc/keywarden/scripts"
chmod -R u=rwX,go=rX "$root/etc/keywarden"
chmod 0755 "$root/etc/keywarden/owner.sh" "$root/etc/keywarden/scripts/network.sh"
chroot "$root" systemd-sysusers
chroot "$root" systemctl enable --quiet keyward-time.path keyward-time.timer keyward-reload-nginx.path

hostname unit42
ip link set lo up
ip link add eth0 type dummy 2>/dev/null || ip tuntap add dev eth0 mode tap
ip addr add 10.20.30.5/24 dev eth0

exec env -i container=other PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C \
    chroot "$root" /lib/systemd/systemd --log-target=journal --show-status=no
