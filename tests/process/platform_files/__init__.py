"""Puts the platform files on a test's device, whose shell and tools are BusyBox's when asked."""

import os
import pathlib
import shutil
import subprocess

from kwtest.device import PROGRAM
from kwtest.process import limit

SOURCE = pathlib.Path(__file__).resolve().parents[3]
BUSYBOX_FOLDER = "/opt/busybox"


def install(device, kind, busybox=False):
    """With files of its own below /usr, over those of this machine."""
    root = device.root
    for folder in ("upper", "scratch"):
        root.make_folder(f"/srv/usr/{folder}")
    root._mount("overlay", root.host("/usr"), "overlay", 0,
                f"lowerdir=/usr,upperdir={root.host('/srv/usr/upper')},workdir={root.host('/srv/usr/scratch')}")
    subprocess.run([SOURCE / "platform/install.sh", root.path, kind], check=True)
    program = device.host("/usr/sbin/keywardd")
    if os.path.lexists(program):
        os.unlink(program)
    os.symlink(PROGRAM, program)
    if busybox:
        _use_busybox(device)


def _use_busybox(device):
    found = shutil.which("busybox")
    device.root.make_folder(BUSYBOX_FOLDER)
    listing = subprocess.run([found, "--list"], check=True, capture_output=True, text=True).stdout
    for applet in listing.split():
        os.symlink("/usr/bin/busybox", device.host(f"{BUSYBOX_FOLDER}/{applet}"))
    shell = device.host("/usr/bin/sh")
    os.unlink(shell)
    os.symlink("busybox", shell)


def run(device, *command, user=None, seconds=30.0, **environment):
    """Runs a program on the device; BusyBox's tools come first where the device has them."""
    path = f"{BUSYBOX_FOLDER}:/usr/sbin:/usr/bin:/sbin:/bin"
    prefix = ["chroot"] + ([f"--userspec={user}"] if user else []) + [device.root.path]
    return subprocess.run(prefix + list(command), env={"PATH": path, **environment}, text=True, check=False,
                          capture_output=True, stdin=subprocess.DEVNULL, timeout=limit(seconds), cwd="/")
