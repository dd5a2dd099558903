#!/usr/bin/python3
"""Runs the examples of one page of the documentation, from its top to its end, on a device of their own.

usage: KEYWARDD=PROGRAM KEYWARDCTL=PROGRAM run_examples.py PAGE   (as root)

What a block asks for is told in kwdocs/markdown.py.
"""

import os
import subprocess
import sys
import tempfile
import time

from kwdocs import markdown
from kwdocs.device import Device

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
ISOLATED = "--isolated"


class Failed(Exception):
    pass


DOCUMENTATION = "/usr/share/doc/keywardd"


def installed_files():
    """What the packages put on a device beside the programs. (/usr/local takes what they put into /usr: that folder
    is the host's.)"""
    found = [(f"{TOP}/platform/network.sh", "/etc/keywarden/scripts/network.sh", 0o755),
             (f"{TOP}/callbacks/ServiceCallbacks.h", "/usr/local/include/keywarden/ServiceCallbacks.h", 0o644)]
    found += [(source, f"{DOCUMENTATION}-dev/examples/plugin/{name}", 0o644)
              for name, source in files_below(f"{TOP}/examples/plugin")]
    for name, source in files_below(f"{TOP}/examples/etc/keywarden"):
        if name == "config.daemon":
            found.append((source, "/etc/keywarden/config.daemon", 0o644))
        else:
            found.append((source, f"{DOCUMENTATION}/examples/etc/keywarden/{name}", 0o755 if name.endswith(".sh") else 0o644))
    return found


def files_below(folder):
    for inside, _, names in os.walk(folder):
        for name in names:
            path = os.path.join(inside, name)
            yield os.path.relpath(path, folder), path


def put_file(device, block, example):
    if example is not None and example != block.body:
        raise Failed(f"the block and {block.words['example']} differ")
    device.put(block.words["file"], block.body, int(block.words.get("mode", "644"), 8))


def run_block(device, block, expected):
    wanted = int(block.words.get("exit", "0"))
    deadline = time.monotonic() + float(block.words.get("retry", "0"))
    while True:
        status, printed = device.shell(block.body, block.words.get("as"))
        right = status == wanted and (expected is None or markdown.matches(expected.body, printed))
        if right:
            return
        if time.monotonic() >= deadline:
            break
        time.sleep(0.05)
    wish = f"\n--- expected\n{expected.body}" if expected else ""
    raise Failed(f"exit status {status}, expected {wanted}\n--- commands\n{block.body}{wish}--- printed\n{printed}")


def output_of(blocks, index):
    following = blocks[index + 1] if index + 1 < len(blocks) else None
    return following if following and "output" in following.words else None


def run_page(device, name, blocks, examples):
    ran = 0
    for index, block in enumerate(blocks):
        try:
            if "file" in block.words:
                put_file(device, block, examples.get(block.line))
            elif "run" in block.words:
                run_block(device, block, output_of(blocks, index))
                ran += 1
        except (Failed, subprocess.TimeoutExpired, OSError) as failure:
            print(f"{name}:{block.line}: {failure}\n--- log of the device\n{device.log()}", file=sys.stderr)
            return 1
    print(f"{name}: {ran} examples run")
    return 0


def read_page(path):
    """Name and blocks of the page and of the one that it continues."""
    name = os.path.relpath(path, TOP)
    with open(path, encoding="utf-8") as file:
        text = file.read()
    earlier = markdown.AFTER.search(text)
    pages = read_page(os.path.join(os.path.dirname(path), earlier[1])) if earlier else []
    pages = [(page, without_asides(blocks)) for page, blocks in pages]
    pages.append((name, markdown.blocks(text, name)))
    if not any("run" in block.words for block in pages[-1][1]):
        sys.exit(f"{name} has no example to run")
    return pages


def without_asides(blocks):
    kept, last = [], None
    for block in blocks:
        if "output" in block.words and last is not None and "aside" in last.words:
            continue
        last = block
        if "aside" not in block.words:
            kept.append(block)
    return kept


def example_texts(blocks):
    """The files of the project that blocks show, by the block's line. Read before the device hides them."""
    texts = {}
    for block in blocks:
        if "example" in block.words:
            with open(f"{TOP}/{block.words['example']}", encoding="utf-8") as file:
                texts[block.line] = file.read()
    return texts


def isolated(page, work):
    pages = [(name, blocks, example_texts(blocks)) for name, blocks in read_page(page)]
    programs = {program: os.environ[program.upper()] for program in ("keywardd", "keywardctl")}
    # The first process of the namespace reaps what daemons leave behind; the work is another's.
    child = os.fork()
    if child == 0:
        device = Device(work, programs, installed_files())
        os._exit(next((1 for continued in pages if run_page(device, *continued) != 0), 0))
    while True:
        pid, status = os.wait()
        if pid == child:
            return os.waitstatus_to_exitcode(status)


def main():
    if sys.argv[1] == ISOLATED:
        sys.exit(isolated(*sys.argv[2:]))
    page = os.path.abspath(sys.argv[1])
    # What the device writes there is in a file system of its own, gone with the namespace.
    with tempfile.TemporaryDirectory(prefix="kwdocs", dir="/var/tmp") as work:
        command = ["unshare", "--mount", "--net", "--uts", "--pid", "--fork", "--kill-child", "--mount-proc",
                   "--propagation", "private", sys.executable, os.path.abspath(__file__), ISOLATED, page, work]
        status = subprocess.run(command, check=False).returncode
    sys.exit(status)


if __name__ == "__main__":
    main()
