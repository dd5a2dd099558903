"""The device that the examples of a page are run on: namespaces of its own, the real programs, and paths as on a
device where the package has been installed. Nothing of it is left when the namespaces end."""

import ctypes
import os
import shutil
import subprocess
import time

MS_BIND, MS_REC = 4096, 16384
CLEAN_FOLDERS = ("/run", "/var/lib", "/var/log", "/srv", "/root", "/tmp", "/usr/local", "/usr/share/doc", "/opt")
DEVICES = ("null", "zero", "full", "random", "urandom", "tty")
LOG = "/var/log/messages"
PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
ADDRESS = "10.20.30.5"
OPERATOR, OPERATOR_ID = "operator", 47102
SERVER_ACCOUNTS = {"mosquitto": "/etc/mosquitto", "stunnel4": "/etc/stunnel"}
OURS = ("keyuser", "kwnotify", "kwadmin", "kwkey", "kwca", OPERATOR)

_libc = ctypes.CDLL(None, use_errno=True)


def _mount(source, target, kind, flags=0, data=None):
    arguments = [word.encode() if word is not None else None for word in (source, target, kind)]
    if _libc.mount(*arguments, ctypes.c_ulong(flags), data.encode() if data else None) != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error), target)


def run(*command):
    subprocess.run(command, check=True, stdin=subprocess.DEVNULL)


class Device:
    """To be made by a process with namespaces of its own (mounts, network, host name, processes)."""

    def __init__(self, work, programs, install):
        """`work` is an empty folder outside of the clean ones; `programs` are paths on the host by the name on the
        device; `install` lists (source, path, mode)."""
        self._work = work
        gathered = self._gather(programs, install)
        self._make_etc()
        self._make_dev()
        for folder in CLEAN_FOLDERS:
            _mount("tmpfs", folder, "tmpfs", 0, "mode=01777" if folder == "/tmp" else "mode=0755")
        if not os.path.islink("/var/run"):
            _mount("/run", "/var/run", None, MS_BIND)
        os.makedirs("/run/lock", exist_ok=True)
        for copy, path, mode in gathered:
            os.makedirs(os.path.dirname(path), exist_ok=True)
            shutil.copyfile(copy, path)
            os.chmod(path, mode)
        self._make_accounts()
        self._make_network()
        self._start_log()

    def _gather(self, programs, install):
        """Copies what the clean folders are about to hide."""
        _mount("tmpfs", self._work, "tmpfs", 0, "mode=0755")
        os.chmod(self._work, 0o755)
        wanted = [(source, f"/usr/local/{'sbin' if name.endswith('d') else 'bin'}/{name}", 0o755)
                  for name, source in programs.items()] + list(install)
        gathered = []
        for number, (source, path, mode) in enumerate(wanted):
            copy = f"{self._work}/{number}"
            shutil.copyfile(source, copy)
            gathered.append((copy, path, mode))
        return gathered

    def _make_etc(self):
        etc = self._work + "/etc"
        shutil.copytree("/etc", etc, symlinks=True, ignore=shutil.ignore_patterns("keywarden", "shadow*", "gshadow*"))
        with open(etc + "/nsswitch.conf", "w", encoding="ascii") as file:
            file.write("passwd: files\ngroup: files\nhosts: files\n")
        with open(etc + "/hosts", "w", encoding="ascii") as file:
            file.write(f"127.0.0.1 localhost\n{ADDRESS} unit42.example unit42\n")
        for name in ("passwd", "group"):
            with open(f"{etc}/{name}", encoding="utf-8") as file:
                lines = [line for line in file if line.split(":")[0] not in OURS]
            with open(f"{etc}/{name}", "w", encoding="utf-8") as file:
                file.writelines(lines)
        for path in SERVER_ACCOUNTS.values():
            os.makedirs(etc + path.removeprefix("/etc"), exist_ok=True)
        _mount(etc, "/etc", None, MS_BIND)

    def _make_dev(self):
        dev = self._work + "/dev"
        os.makedirs(dev + "/shm", 0o1777)
        for name in DEVICES:
            open(f"{dev}/{name}", "wb").close()
            _mount("/dev/" + name, f"{dev}/{name}", None, MS_BIND)
        for name, target in (("fd", "/proc/self/fd"), ("stdin", "fd/0"), ("stdout", "fd/1"), ("stderr", "fd/2")):
            os.symlink(target, f"{dev}/{name}")
        _mount(dev, "/dev", None, MS_BIND | MS_REC)

    def _make_accounts(self):
        with open("/etc/passwd", "a", encoding="utf-8") as file:
            file.write(f"{OPERATOR}:x:{OPERATOR_ID}:{OPERATOR_ID}::/home/{OPERATOR}:/bin/sh\n")
        with open("/etc/group", "a", encoding="utf-8") as file:
            file.write(f"{OPERATOR}:x:{OPERATOR_ID}:\n")
        os.makedirs("/var/lib/operator")
        os.chown("/var/lib/operator", OPERATOR_ID, OPERATOR_ID)

    def _make_network(self):
        run("hostname", "unit42")
        run("ip", "link", "set", "lo", "up")
        dummy = subprocess.run(["ip", "link", "add", "eth0", "type", "dummy"], capture_output=True, check=False)
        if dummy.returncode != 0:
            run("ip", "link", "add", "eth0", "type", "veth", "peer", "name", "peer0")
            run("ip", "link", "set", "peer0", "up")
        run("ip", "link", "set", "eth0", "up")
        run("ip", "addr", "add", ADDRESS + "/24", "dev", "eth0")

    def _start_log(self):
        subprocess.Popen(["busybox", "syslogd", "-n", "-S", "-O", LOG], stdin=subprocess.DEVNULL,
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 10
        while not os.path.exists("/dev/log"):
            if time.monotonic() > deadline:
                raise RuntimeError("the device's system log did not start")
            time.sleep(0.01)

    @staticmethod
    def put(path, content, mode):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(content)
        os.chmod(path, mode)

    def shell(self, script, user=None, timeout=30):
        """Runs a script and returns its exit status and what it printed, errors included."""
        path = self._work + "/script"
        self.put(path, script, 0o644)
        command = ["/bin/sh", "-e", path]
        if user:
            command = ["setpriv", "--reuid", user, "--regid", user, "--init-groups", "--"] + command
        # Into a file: a server that a block leaves in the background would keep a pipe open.
        with open(self._work + "/printed", "w+", encoding="utf-8", errors="backslashreplace") as printed:
            process = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=printed, stderr=subprocess.STDOUT,
                                     env={"PATH": PATH, "HOME": "/root", "LC_ALL": "C.UTF-8", "TZ": "UTC"},
                                     cwd="/tmp", timeout=timeout, check=False)
        with open(self._work + "/printed", encoding="utf-8", errors="backslashreplace") as printed:
            return process.returncode, printed.read()

    @staticmethod
    def log():
        with open(LOG, encoding="utf-8", errors="replace") as file:
            return file.read()
