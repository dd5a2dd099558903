#!/usr/bin/python3
"""What the page on security says that somebody can or cannot do names, sentence by sentence, a test that there is."""

import os
import re
import unittest

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
PAGE = "docs/security.md"
SECTIONS = ("What a hostile requester can do", "What root still does")
COMMENT = re.compile(r"<!-- test: (.*?) -->", re.DOTALL)


def read(path):
    with open(f"{TOP}/{path}", encoding="utf-8") as file:
        return file.read()


def items_of(section):
    """The items of the lists, each as one line."""
    text = section.split("\n")
    items, inside = [], False
    for line in text:
        if line.startswith("- "):
            items.append(line[2:])
            inside = True
        elif inside and line.startswith("  "):
            items[-1] += " " + line.strip()
        else:
            inside = False
    return items


def sentences_of(item):
    """(sentence, the test named behind it or None). What stands in backquotes has no end of a sentence."""
    tests = COMMENT.findall(item)
    plain = re.sub(r"`[^`]*`", lambda match: match[0].replace(".", "_"), COMMENT.sub("\0", item))
    found = []
    for sentence in re.split(r"(?<=\.)\s+(?!\s*\0)|(?<=\0)\s*", plain):
        if sentence.strip("\0 "):
            found.append((sentence.strip("\0 "), tests.pop(0) if sentence.endswith("\0") else None))
    return found


def claims():
    page = read(PAGE)
    for name in SECTIONS:
        section = re.split(r"\n## ", page.split(f"\n## {name}\n")[1])[0]
        for item in items_of(section):
            yield from sentences_of(item)


def all_unit_tests():
    folder = f"{TOP}/tests/unit"
    found = set()
    for path, _, names in os.walk(folder):
        for name in names:
            if name.endswith(".cpp"):
                source = read(os.path.relpath(f"{path}/{name}", TOP))
                found |= {f"{suite}.{case}" for suite, case in
                          re.findall(r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", source, re.MULTILINE)}
    return found


def has_process_test(program, case):
    """`program` as CTest names it, without its prefix; `case` is <class>.<method>."""
    path = f"tests/process/test_{program}.py"
    if not os.path.isfile(f"{TOP}/{path}") or not re.search(rf"\b{program}\b", read("tests/process/CMakeLists.txt")):
        return False
    name, _, method = case.partition(".")
    body = re.search(rf"^class {name}\(.*?(?=^class |\Z)", read(path), re.MULTILINE | re.DOTALL)
    return bool(body and re.search(rf"^    def {method}\(self\)", body[0], re.MULTILINE))


class Claims(unittest.TestCase):
    maxDiff = None

    def test_each_names_its_test(self):
        found = list(claims())
        self.assertGreater(len(found), 30)
        self.assertEqual([sentence for sentence, test in found if test is None], [])

    def test_each_test_named_is_there(self):
        units = all_unit_tests()
        self.assertGreater(len(units), 500)
        missing = []
        for sentence, tests in claims():
            for test in re.split(r",\s+", tests or ""):
                process = re.fullmatch(r"process\.(\w+) (\w+\.test_\w+)", test)
                if not (has_process_test(*process.groups()) if process else test in units):
                    missing.append(f"{test}: {sentence}")
        self.assertEqual(missing, [])


class Scanner(unittest.TestCase):
    def test_finds_sentences_and_their_tests(self):
        self.assertEqual(sentences_of("read `a.b. C`. <!-- test: A.B --> Not this. And that. <!-- test: C.D, E.F -->"),
                         [("read `a_b_ C`.", "A.B"), ("Not this.", None), ("And that.", "C.D, E.F")])

    def test_takes_items_together(self):
        self.assertEqual(items_of("can\n\n- one\n  two\n- three\n\nno\n  item\n"), ["one two", "three"])

    def test_knows_a_missing_test(self):
        self.assertTrue(has_process_test("rights", "OtherUsers.test_a_stranger_cannot_ask"))
        self.assertFalse(has_process_test("rights", "Files.test_a_stranger_cannot_ask"))
        self.assertFalse(has_process_test("wrongs", "OtherUsers.test_a_stranger_cannot_ask"))


if __name__ == "__main__":
    unittest.main()
