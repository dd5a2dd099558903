#!/usr/bin/python3
"""The page for troubleshooting has every text that the daemon can log as a failure or answer to a requester, and none
that it has not."""

import os
import re
import unittest

from kwdocs import source_text
from kwdocs.source_text import normal

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
PAGE = "docs/troubleshooting.md"

# Literals that look like texts and are none: values, commands, and parts of texts that go to debug traces or to other
# severities only.
NO_TEXTS = {
    "config/ConfigKeys.cpp": {"Country (two letters), state, city, organisation and unit.",
                              "Extensions, as values of x509v3_config(5).",
                              # No file brings these about.
                              "' is asked for without a number", "' is asked for, a key without numbers"},
    "cnf/CCertificateData.cpp": {"Self Signed Certificate"},
    "cnf/CDistinguishedName.cpp": {"Zelkor Corporation", "Electrical Division"},
    "server/ServerRenewal.cpp": {"server expireFrom"},
    "service/ServiceDispatch.cpp": {"for service '"},
    "service/ServiceTimer.cpp": {"The service ", " is starting his timer..."},
    "stores/ExternalCertificatesStorage.cpp": {"Add certificate", "PRIVATE KEY-----"},
    "stores/ExternalCertificatesStorageRebuild.cpp": {"Update file ", " system for ", "Check certificate "},
    "support/ToolsFiles.cpp": {"-----BEGIN CERTIFICATE-----", "-----END CERTIFICATE-----"},
    "support/Journal.cpp": {"keyward journal 1"},
    "daemon/Exit.cpp": {"touch /var/run/ready/%d", "rm -f /var/run/ready/%d", "Stopping with the code %d%s%s..."},
    "daemon/Privileges.cpp": {" -> Set Groups done.", " -> Set main group done.", " -> Set user done."},
}


def rows():
    """The texts of the tables below "The texts", and what is said about them."""
    with open(f"{TOP}/{PAGE}", encoding="utf-8") as file:
        page = file.read().split("\n## The texts\n")[1]
    for line in page.splitlines():
        if line.startswith("| `"):
            texts, _, remedy = line.strip("| ").partition(" | ")
            yield re.findall(r"`([^`]+)`", texts), remedy.strip()


def pieces_of(text):
    """The constant parts of a text with <placeholders>."""
    return [piece for piece in re.split(r"<[^<>]*>", normal(text)) if re.search(r"\w", piece)]


def is_made_of(text, literals):
    """Whether the text is a sequence of literals."""
    reached = {0}
    for begin in range(len(text)):
        if begin in reached:
            reached |= {begin + len(literal) for literal in literals if text.startswith(literal, begin)}
    return len(text) in reached


class Troubleshooting(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.rows = list(rows())
        cls.texts = [text for texts, _ in cls.rows for text in texts]

    def test_every_text_of_the_sources_is_told(self):
        told = "\n".join(normal(text) for text in self.texts)
        required = source_text.failure_texts(TOP)
        self.assertGreater(len(required), 400)
        missing = [f"{literal.file}:{literal.line}: {literal.text!r}" for literal in required
                   if literal.text not in NO_TEXTS.get(literal.file, ()) and normal(literal.text) not in told]
        self.assertEqual(missing, [])

    def test_every_text_told_is_in_the_sources(self):
        literals = set()
        for literal in source_text.all_literals(TOP):
            spaced = re.sub(r"\s+", " ", literal.text)
            literals |= {spaced, spaced.strip(), spaced.lstrip(), spaced.rstrip()}
        literals.discard("")
        gone = [text for text in self.texts for piece in pieces_of(text)
                if not is_made_of(piece, literals) and not is_made_of(piece.strip(), literals)]
        self.assertEqual(gone, [])

    def test_every_text_has_a_cause(self):
        self.assertGreater(len(self.rows), 100)
        self.assertEqual([texts for texts, remedy in self.rows if len(remedy) < 8], [])

    def test_what_is_excepted_is_still_there(self):
        found = {}
        for literal in source_text.failure_texts(TOP):
            found.setdefault(literal.file, set()).add(literal.text)
        for file, texts in NO_TEXTS.items():
            self.assertLessEqual(texts, found.get(file, set()), file)


if __name__ == "__main__":
    unittest.main()
