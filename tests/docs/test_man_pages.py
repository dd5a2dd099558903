#!/usr/bin/python3
"""The man pages are well-formed, and they and the programs know the same configuration keys and options.

KEYWARDCTL names the client; without it its options are not looked at.
"""

import glob
import os
import re
import subprocess
import unittest

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


def keys_read_by(path, statement):
    """The literals that stand directly behind a call that looks a key up."""
    return {literal.text for literal in literals_of(f"{TOP}/{path}", path)
            if re.search(statement, literal.statement) and re.fullmatch(r"[A-Za-z0-9_.]+", literal.text)}


def documented_keys(text):
    """What the items of a page's lists describe."""
    found = set()
    for line in re.findall(r"^\.It Ic (.*)$", text, re.MULTILINE):
        line = line.replace(r"\&", "").split(" Ar ")[0].replace(" Ns", "")
        found |= {word for word in re.split(r"[ ,]+", line) if word}
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
    def test_the_daemon_file_has_these_and_no_others(self):
        parsed = keys_read_by("config/DaemonConfiguration.cpp", r"\( values ,$|values \. find \($")
        self.assertGreaterEqual(len(parsed), 11)
        self.assertEqual(documented_keys(read("keywardd.conf.5")), parsed)

    def test_a_service_file_has_these_and_no_others(self):
        parsed = keys_read_by("config/ServiceConfiguration.cpp", r"values \. \w+ \($|kKey =$")
        self.assertGreaterEqual(len(parsed), 34)
        documented = documented_keys(read("keyward-service.conf.5").split(".Sh SETTINGS FILE")[0])
        self.assertEqual({key.rstrip("N") if key.endswith(".N") else key for key in documented}, parsed)

    def test_a_settings_file_has_these_and_no_others(self):
        parsed = set()
        for path in glob.glob(f"{TOP}/cnf/*.cpp"):
            parsed |= keys_read_by(os.path.relpath(path, TOP), r"isConfigPresent \( \w+ ,$")
        self.assertGreaterEqual(len(parsed), 15)
        settings = read("keyward-service.conf.5").split(".Sh SETTINGS FILE")[1].split(".Ss Hook program")[0]
        self.assertEqual(documented_keys(settings), parsed)


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
