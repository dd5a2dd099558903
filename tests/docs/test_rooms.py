#!/usr/bin/python3
"""What each room includes is what the table of docs/architecture.md lets it include, and no arrow runs back up."""

import glob
import os
import re
import unittest

from kwdocs.rooms import ROOMS, TOP

INCLUDE = re.compile(r'(?m)^\s*#\s*include\s+"([^"]+)"')
ROW = re.compile(r"(?m)^\| `([a-z0-9]+)/` \|[^|]*\|([^|]*)\|$")
PROGRAMS = ("ctl",)


def table():
    """What each room may include, as the page says it."""
    with open(f"{TOP}/docs/architecture.md", encoding="utf-8") as file:
        return {room: set(re.findall(r"`([a-z0-9]+)`", may)) for room, may in ROW.findall(file.read())}


def includes_of(room):
    """(file, included file) of everything with quotation marks."""
    for path in sorted(glob.glob(f"{TOP}/{room}/**/*", recursive=True)):
        if path.endswith((".cpp", ".h")):
            with open(path, encoding="utf-8") as file:
                for included in INCLUDE.findall(file.read()):
                    yield os.path.relpath(path, TOP), included


class Rooms(unittest.TestCase):
    def test_the_table_has_every_room_and_no_other(self):
        self.assertEqual(sorted(table()), sorted(ROOMS + PROGRAMS))

    def test_the_table_has_no_arrow_back_up(self):
        floors = ROOMS + PROGRAMS
        for room, may in table().items():
            below = floors[:floors.index(room)]
            self.assertLessEqual(may, set(below), f"{room}/ stands below what it may include")

    def test_every_include_is_in_the_table(self):
        wrong = []
        for room, may in table().items():
            for file, included in includes_of(room):
                if included.split("/")[0] not in may | {room}:
                    wrong.append(f"{file} includes {included}")
        self.assertEqual(wrong, [])

    def test_every_included_room_is_needed(self):
        for room, may in table().items():
            used = {included.split("/")[0] for _, included in includes_of(room)}
            self.assertEqual(may - used, set(), f"{room}/ has no use for what it may include")

    def test_an_include_names_its_room(self):
        nameless = [f"{file} includes {included}" for room in ROOMS + PROGRAMS
                    for file, included in includes_of(room) if not os.path.exists(f"{TOP}/{included}")]
        self.assertEqual(nameless, [])


if __name__ == "__main__":
    unittest.main()
