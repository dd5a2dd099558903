"""A root folder in which a daemon finds a device of its own and from which it cannot touch the host.

The folder is the daemon's root in either of two ways. Usually it stands in a mount namespace of the test
process: /usr is bound into it and everything else is a file system in memory, gone with the process. Where
namespaces are refused, the folder is filled with copies of what the daemon needs.
"""

import ctypes
import os
import re
import shutil
import stat
import subprocess
import sys
import tempfile

from .settings import SETTINGS

CLONE_NEWNS = 0x00020000
MS_BIND, MS_REC, MS_PRIVATE = 4096, 16384, 1 << 18
MNT_DETACH = 2

_libc = ctypes.CDLL(None, use_errno=True)
_libc.mount.argtypes = (ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_ulong, ctypes.c_char_p)

DEVICES = {"null": (1, 3), "zero": (1, 5), "full": (1, 7), "random": (1, 8), "urandom": (1, 9), "tty": (5, 0)}
SHELL_TOOLS = ("sh", "cat", "cp", "dd", "echo", "head", "ls", "mkdir", "mv", "readlink", "rm", "sleep", "touch",
               "yes")


def _checked(result):
    if result != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


def _mount(source, target, kind, flags, data=None):
    encode = lambda text: text.encode() if text is not None else None
    _checked(_libc.mount(encode(source), encode(target), encode(kind), flags, encode(data)))


class Isolation:
    """How this process keeps its devices from the host; made once, before the first thread."""

    def __init__(self, wanted):
        self.namespace = wanted != "chroot"
        if not self.namespace:
            self._announce("asked for")
            return
        try:
            _checked(_libc.unshare(CLONE_NEWNS))
            _mount("none", "/", None, MS_REC | MS_PRIVATE)
        except OSError as refused:
            self.namespace = False
            self._announce(f"a mount namespace was refused: {refused.strerror}")

    @staticmethod
    def _announce(reason):
        line = "*" * 78
        print(f"{line}\n*** NO MOUNT NAMESPACE ({reason}).\n*** The daemon runs in a chroot with copied files.\n"
              f"{line}", file=sys.stderr, flush=True)

    def make_root(self, programs):
        return Root(self.namespace, programs)


class Root:
    """The folder; `programs` maps a path inside to the file outside that stands there."""

    def __init__(self, namespace, programs):
        self.namespace = namespace
        self.path = tempfile.mkdtemp(prefix="kw")
        os.chmod(self.path, 0o755)
        self._mounts = []
        try:
            if namespace:
                self._mount("tmpfs", self.path, "tmpfs", 0, "mode=0755")
            self._make_devices()
            for folder, mode in (("/etc", 0o755), ("/proc", 0o555), ("/run", 0o755), ("/tmp", 0o1777)):
                self.make_folder(folder, mode)
            if namespace:
                self._bind_system()
            else:
                self._copy_system(programs)
            self._copy_settings()
            for inside, outside in programs.items():
                self._place_program(inside, outside)
        except BaseException:
            self.close()
            raise

    def host(self, path):
        """The path outside of a path inside."""
        return self.path + path

    def make_folder(self, path, mode=0o755):
        os.makedirs(self.host(path), exist_ok=True)
        os.chmod(self.host(path), mode)

    def bind_folder(self, path):
        """The folder of the host, at the same path; without namespaces an empty one of its own."""
        self.make_folder(path)
        if self.namespace:
            self._mount(path, self.host(path), None, MS_BIND)

    def close(self):
        for target in reversed(self._mounts):
            _libc.umount2(target.encode(), MNT_DETACH)
        self._mounts.clear()
        shutil.rmtree(self.path, ignore_errors=True)

    def _mount(self, source, target, kind, flags, data=None):
        _mount(source, target, kind, flags, data)
        self._mounts.append(target)

    def _make_devices(self):
        self.make_folder("/dev")
        self.make_folder("/dev/shm", 0o1777)
        for name, numbers in DEVICES.items():
            path = self.host("/dev/" + name)
            try:
                os.mknod(path, stat.S_IFCHR | 0o666, os.makedev(*numbers))
                os.chmod(path, 0o666)
            except PermissionError:
                open(path, "wb").close()
                self._mount("/dev/" + name, path, None, MS_BIND)

    def _bind_system(self):
        self.bind_folder("/usr")
        for name in ("bin", "sbin", "lib", "lib32", "lib64", "libx32"):
            if os.path.islink("/" + name):
                os.symlink(os.readlink("/" + name), self.host("/" + name))
            elif os.path.isdir("/" + name):
                self.bind_folder("/" + name)
        self._mount("/proc", self.host("/proc"), None, MS_BIND | MS_REC)
        if SETTINGS.coverage:
            self.bind_folder(SETTINGS.coverage)

    def _copy_system(self, programs):
        for program in programs.values():
            for library in shared_libraries(program):
                self._copy(library)
        busybox = shutil.which("busybox")
        if busybox is None or shared_libraries(busybox):
            raise RuntimeError("the chroot needs a statically linked busybox (package busybox-static)")
        self.make_folder("/bin")
        shutil.copy(busybox, self.host("/bin/busybox"))
        for tool in SHELL_TOOLS:
            os.symlink("busybox", self.host("/bin/" + tool))
        self.make_folder("/usr")
        os.symlink("../bin", self.host("/usr/bin"))

    def _copy_settings(self):
        for path in ("/etc/ld.so.cache", "/etc/ld.so.conf", "/etc/ssl/openssl.cnf"):
            if os.path.isfile(path):
                self._copy(path)

    def _copy(self, path):
        if not os.path.exists(self.host(path)):
            self.make_folder(os.path.dirname(path))
            shutil.copy(path, self.host(path))

    def _place_program(self, inside, outside):
        self.make_folder(os.path.dirname(inside))
        if self.namespace:
            open(self.host(inside), "wb").close()
            self._mount(outside, self.host(inside), None, MS_BIND)
        else:
            shutil.copy(outside, self.host(inside))
            os.chmod(self.host(inside), 0o755)


def shared_libraries(program):
    """Everything the loader maps for a program, the loader included; empty for a static one."""
    listing = subprocess.run(["ldd", program], capture_output=True, text=True, check=False).stdout
    return sorted(set(re.findall(r"(?:=> |^\s+)(/\S+) \(0x", listing, re.MULTILINE)))
