#!/usr/bin/python3
"""Links of the documentation lead somewhere: to a file, and to a heading of it. The index names every page."""

import glob
import os
import re
import unittest

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
PAGES = ["README.md", "CONTRIBUTING.md"] + sorted(os.path.relpath(path, TOP) for path in glob.glob(f"{TOP}/docs/*.md"))
LINK = re.compile(r"\[[^\]]*\]\(([^)\s]+)\)")


def text_of(page):
    with open(f"{TOP}/{page}", encoding="utf-8") as file:
        return re.sub(r"^```.*?^```", "", file.read(), flags=re.MULTILINE | re.DOTALL)


def anchors(page):
    """As the usual viewers make them from headings."""
    headings = re.findall(r"^#+ (.*)$", text_of(page), re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


class Links(unittest.TestCase):
    def test_every_link_leads_to_a_file_and_a_heading(self):
        dead = []
        for page in PAGES:
            for link in LINK.findall(text_of(page)):
                if "://" in link:
                    continue
                path, _, anchor = link.partition("#")
                target = os.path.normpath(os.path.join(os.path.dirname(page), path)) if path else page
                if not os.path.exists(f"{TOP}/{target}"):
                    dead.append(f"{page}: {link}")
                elif anchor and anchor not in anchors(target):
                    dead.append(f"{page}: {link}, no such heading")
        self.assertEqual(dead, [])

    def test_the_index_has_every_page(self):
        linked = {link.partition("#")[0] for link in LINK.findall(text_of("docs/README.md"))}
        pages = {os.path.basename(page) for page in PAGES if page.startswith("docs/")} - {"README.md"}
        pages |= {"man/" + os.path.basename(path) for path in glob.glob(f"{TOP}/docs/man/*")}
        self.assertEqual(sorted(pages - linked), [])

    def test_the_first_page_leads_to_the_index(self):
        self.assertIn("docs/README.md", LINK.findall(text_of("README.md")))


if __name__ == "__main__":
    unittest.main()
