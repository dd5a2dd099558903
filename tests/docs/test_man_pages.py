#!/usr/bin/python3
"""The man pages are well-formed, and they and the programs know the same configuration keys and options.

CONFIG_KEYS names the program that prints the tables of the keys. KEYWARDCTL names the client; without it its options
are not looked at.
"""

import glob
import os
import re
import subprocess
import unittest
from dataclasses import dataclass, replace

from kwdocs.source_text import literals_of

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
MAN = f"{TOP}/docs/man"
CLIENT = os.environ.get("KEYWARDCTL", "")
# Pages of other packages that ours refer to.
FOREIGN = {("syslog", "3"), ("openssl", "1"), ("x509v3_config", "5"), ("sudo", "8")}


def read(name):
    with open(f"{MAN}/{name}", encoding="utf-8") as file:
        return file.read()


def pages():
    return sorted(os.path.basename(path) for path in glob.glob(f"{MAN}/*.[1-8]"))


@dataclass(frozen=True)
class Key:
    """A row of the program's tables. A numbered key ends in ".N"."""
    file: str
    name: str
    kind: str
    need: str
    lowest: int
    highest: int
    absent: int
    instead: str
    unit: str
    help: str


def table(file):
    """The rows of "daemon", "service" or "settings", as the program has them."""
    run = subprocess.run([os.environ["CONFIG_KEYS"]], capture_output=True, text=True, check=True)
    rows = [Key(*line.split("\t")) for line in run.stdout.splitlines()]
    return [replace(row, lowest=int(row.lowest), highest=int(row.highest), absent=int(row.absent))
            for row in rows if row.file == file]


def plain(lines):
    """What a reader sees of a few lines of a page."""
    words = []
    for line in lines:
        if re.match(r"\.(Ss|Sh|El|Bl|Pp)\b", line):
            break
        if line.startswith(".Xr "):
            line = re.sub(r"^\.Xr (\S+) (\d) ?", r"\1(\2) ", line)
        words += re.sub(r"^\.(Ic|Pa|Ql|Ar|Sx|Dq|Sq|Pq) ", "", line).replace(r"\& Ns Ar ", "").split()
    return re.sub(r" ([.,:;)])(?= |$)", r"\1", " ".join(words))


def described_keys(text):
    """The keys that the items of a page's lists describe, in their order, each with the plain text that is told of
    it. Items directly behind each other share one."""
    found, waiting = {}, []
    lines = text.split("\n")
    for number, line in enumerate(lines):
        if not line.startswith(".It Ic "):
            continue
        names = line[len(".It Ic "):].replace(r"\&", "").replace(" Ns Ar N", "N").split(" Ar ")[0]
        waiting += [word for word in re.split(r"[ ,]+", names) if word]
        if lines[number + 1].startswith(".It "):
            continue
        rest = lines[number + 1:]
        end = next(index for index, one in enumerate(rest) if one.startswith((".It ", ".El")))
        for name in waiting:
            if name in found:
                raise ValueError(f"{name} is described twice")
            found[name] = plain(rest[:end])
        waiting = []
    return found


class Form(unittest.TestCase):
    def test_there_is_a_page_for_each_program_and_file(self):
        self.assertEqual(pages(), ["keyward-callbacks.7", "keyward-service.conf.5", "keywardctl.1", "keywardd.8",
                                   "keywardd.conf.5"])

    def test_mandoc_has_nothing_to_say(self):
        run = subprocess.run(["mandoc", "-T", "lint", *(f"{MAN}/{name}" for name in pages())], capture_output=True,
                             text=True, check=False)
        # Whether other pages are installed here is looked at below.
        found = [line for line in run.stdout.splitlines() if "referenced manual not found" not in line]
        self.assertEqual(found, [])

    def test_every_page_referred_to_exists(self):
        ours = {tuple(name.rsplit(".", 1)) for name in pages()}
        for name in pages():
            for reference in re.findall(r"^\.Xr (\S+) (\d)", read(name), re.MULTILINE):
                self.assertIn(reference, ours | FOREIGN, name)


class Keys(unittest.TestCase):
    """The keys of each page are those of the program's table, and what the page says of one is what its row says."""

    # The table that a page or a part of one describes.
    def parts(self):
        service = read("keyward-service.conf.5").split(".Sh SETTINGS FILE")
        return {"daemon": read("keywardd.conf.5"), "service": service[0],
                "settings": service[1].split(".Ss Hook program")[0]}

    def every_row(self):
        for file, text in self.parts().items():
            told = described_keys(text)
            for key in table(file):
                yield key, told.get(key.name, "")

    def test_a_page_describes_every_key_and_no_other(self):
        for file, text in self.parts().items():
            with self.subTest(file=file):
                self.assertGreater(len(table(file)), 10)
                self.assertEqual(sorted(described_keys(text)), sorted(key.name for key in table(file)))

    def test_an_item_begins_with_the_help_of_its_key(self):
        for key, told in self.every_row():
            with self.subTest(file=key.file, key=key.name):
                self.assertEqual(told[:len(key.help)], key.help)

    def test_every_default_is_told(self):
        for key, told in self.every_row():
            with self.subTest(file=key.file, key=key.name):
                if key.instead:
                    self.assertIn(f"Without this key, or with another value (which is logged), {key.instead}", told)
                elif key.kind in ("switch", "number"):
                    default = "no" if key.kind == "switch" else str(key.absent)
                    self.assertRegex(told, rf"The default (is )?{default}(?![0-9a-z])")

    def test_every_range_is_told(self):
        ranges = 0
        for key, told in self.every_row():
            # Where it is not just what a number can be.
            if key.kind == "number" and key.highest < 2**31 - 1:
                ranges += 1
                with self.subTest(file=key.file, key=key.name):
                    self.assertRegex(told, rf"(?<![0-9]){key.lowest} to {key.highest}(?![0-9])")
        self.assertGreater(ranges, 4)

    def test_every_required_key_is_told_to_be(self):
        daemon = [key.name for key in table("daemon") if key.need == "required"]
        self.assertIn("The first eight are required.", self.parts()["daemon"])
        self.assertEqual(sorted(list(described_keys(self.parts()["daemon"]))[:8]), sorted(daemon))
        for key, told in self.every_row():
            if key.file != "daemon" and key.need == "required":
                with self.subTest(file=key.file, key=key.name):
                    self.assertRegex(told, r"\bRequired\b")


    def test_no_reader_of_settings_asks_by_a_text_of_its_own(self):
        own = [literal for path in glob.glob(f"{TOP}/cnf/*.cpp") for literal in literals_of(path, path)
               if re.search(r"isConfigPresent \( \w+ ,$", literal.statement)]
        self.assertEqual(own, [])


class Interface(unittest.TestCase):
    def test_the_page_shows_the_operations_of_the_header(self):
        with open(f"{TOP}/callbacks/ServiceCallbacks.h", encoding="utf-8") as file:
            header = re.sub(r"//[^\n]*", "", file.read())
        wanted = [" ".join(operation.split()) for operation in re.findall(r"virtual [^;]*;", header)]
        shown = [" ".join(operation.split()).replace("( ", "(")
                 for operation in re.findall(r"virtual [^;]*;", read("keyward-callbacks.7"))]
        self.assertEqual(shown, wanted)


@unittest.skipUnless(CLIENT, "KEYWARDCTL is not set: this build has no client")
class Options(unittest.TestCase):
    """Every command with its options and arguments, as the client's own help tells them, against the list items of
    the page."""

    def help_of(self, *command):
        run = subprocess.run([CLIENT, *command, "--help"], capture_output=True, text=True, check=True)
        return run.stdout

    @staticmethod
    def words_of(text):
        """Options, arguments and sub-commands of a help text."""
        sections = dict(re.findall(r"^(\w+):\n((?:[ \t]+\S.*\n|\n)+)", text + "\n", re.MULTILINE))
        options = set(re.findall(r"(?<![\w-])(--[a-z][a-z-]*)", sections.get("Options", "")))
        arguments = [name.lower() for name in re.findall(r"^  (\S+)", sections.get("Positionals", ""), re.MULTILINE)]
        commands = re.findall(r"^  (\S+)", sections.get("Subcommands", ""), re.MULTILINE)
        return options, arguments, commands

    def told_by_client(self):
        found, waiting = {}, [()]
        while waiting:
            command = waiting.pop()
            options, arguments, commands = self.words_of(self.help_of(*command))
            waiting += [command + (name,) for name in commands]
            if not commands or not command:
                found[" ".join(command)] = options, arguments
        return found

    def told_by_page(self):
        text = read("keywardctl.1").split(".Ss Reading")
        general = "\n".join(re.findall(r"^\.It Fl.*$", text[0], re.MULTILINE))
        found = {"": (self.options_in(general), [])}
        for item in re.findall(r"^\.It Cm (.*)$", text[1], re.MULTILINE):
            command = re.match(r"[a-z ]+?(?= (?:Ar|Oo|Op|Fl)\b|$)", item)[0]
            # An option's value is no argument of the command.
            rest = re.sub(r"(?:Fl \w+ , )?Fl Fl [a-z-]+(?: Ar [a-z]+)?", "", item[len(command):])
            arguments = [word for words in re.findall(r"Ar ((?:[a-z]+ ?)+)", rest) for word in words.split()]
            found[command] = self.options_in(item), arguments
        return found

    @staticmethod
    def options_in(text):
        return {"--" + option for option in re.findall(r"Fl Fl ([a-z-]+)", text)}

    def test_the_page_has_every_command_option_and_argument_and_no_others(self):
        client, page = self.told_by_client(), self.told_by_page()
        self.assertGreater(len(client), 15)
        general = client[""][0] | {"--help"}
        self.assertEqual(sorted(client), sorted(page))
        for command, (options, arguments) in client.items():
            with self.subTest(command=command):
                self.assertEqual(page[command][0], options if command == "" else options - general)
                self.assertEqual(page[command][1], arguments)


if __name__ == "__main__":
    unittest.main()
