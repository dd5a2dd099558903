#!/usr/bin/python3
"""Where the daemon names files by their paths: in a few places only, each with a reason.

Who may write a folder on the way of a path decides what the path leads to. So everything that others may write near is
reached through a folder that is held open, by the files that do just that; any other call with a path needs an entry
here, and an entry that no call needs any more is taken out.
"""

import collections
import os
import re
import sys
import unittest

from kwdocs.rooms import ROOMS

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))

# Functions of the C library that take a path, or say what one stands for.
FUNCTIONS = ("open", "creat", "rename", "chmod", "chown", "lchown", "unlink", "remove", "mkdir", "rmdir", "mkfifo",
             "mknod", "link", "symlink", "readlink", "truncate", "nftw", "ftw", "stat", "lstat", "fstat", "fstatat",
             "access", "opendir", "scandir", "fopen", "freopen", "utimensat", "BIO_new_file")
# Not of another class, and not a member of an object.
CALL = re.compile(r"(?:(?<![\w.>:])|(?<![\w>])::\s*|\bstd::)(" + "|".join(FUNCTIONS) + r")\s*\(\s*(?!\))")
# What makes of any call one with a path, and what opens files by itself.
WORD = re.compile(r"\b(AT_FDCWD|std::(?:i|o)?fstream|std::filesystem)\b")

# The real calls: each takes its names from a folder that is held open, or is told why it may not.
THE_PLACES = ("support/Folder.cpp", "support/FolderPath.cpp", "support/FileStatus.cpp", "support/RegularFile.cpp")

DEVICE = "a device of the system's, in a folder of root's"
AS_OWNER = "a file of root's or of the service's owner, named in a configuration that only they may write"
NOT_BY_ITSELF = "a function of the interface; the daemon, which holds its folders open, has no use for it"
OF_THE_NAME = "no call of the C library: a function of the project's with that name"

# (file, call): reason.
ALLOWED = {
    ("support/Exec.cpp", "open"): DEVICE,
    ("support/ToolsRandom.cpp", "open"): DEVICE,
    ("daemon/StartUp.cpp", "open"): DEVICE,
    ("config/ServiceList.cpp", "opendir"): AS_OWNER,
    ("callbacks/BinaryServiceCallbacks.cpp", "access"): AS_OWNER,
    ("callbacks/LibraryWrapperServiceCallbacks.cpp", "open"): OF_THE_NAME,
    ("support/Common.cpp", "rename"): NOT_BY_ITSELF,
    ("support/ToolsFiles.cpp", "std::ifstream"): NOT_BY_ITSELF,
    ("x509/X509_REQ_T.cpp", "BIO_new_file"): NOT_BY_ITSELF,
    ("x509/X509_T.cpp", "fopen"): NOT_BY_ITSELF,
    ("support/FileWriter.cpp", "remove"): OF_THE_NAME,
    ("service/ServiceChannel.cpp", "remove"): OF_THE_NAME,
    ("service/Service.cpp", "access"): AS_OWNER,
    ("daemon/Starter.cpp", "opendir"): "/proc, the kernel's",
    ("daemon/Starter.cpp", "access"): "TMPDIR, to be handed on to scripts: only asked for, not used",
    ("daemon/Starter.cpp", "open"): DEVICE,
    ("daemon/StartUp.cpp", "access"): "the network script, in the scripts folder of root's",
}


def without_comments_and_texts(source):
    """Blanks for them, line by line."""
    parts = re.compile(r'//(?:[^\n\\]|\\.|\\\n)*|/\*.*?\*/|R"([^\s()\\]{0,16})\(.*?\)\1"|"(?:[^"\\\n]|\\.)*"'
                       r"|(?<![0-9A-Fa-f])'(?:[^'\\\n]|\\.)*'", re.DOTALL)
    return parts.sub(lambda found: re.sub(r"[^\n]", " ", found[0]), source)


def calls_in(source):
    """(line, call) of everything in a source text that reaches a file by its path."""
    code = without_comments_and_texts(source)
    # What a preprocessor line includes is declared, not called.
    code = re.sub(r"(?m)^[ \t]*#.*$", "", code)
    found = [(match.start(1), match[1]) for pattern in (CALL, WORD) for match in pattern.finditer(code)]
    return [(code.count("\n", 0, place) + 1, call) for place, call in sorted(found)]


def sources():
    for room in ROOMS:
        for name in sorted(os.listdir(f"{TOP}/{room}")):
            if name.endswith(".cpp"):
                yield f"{room}/{name}"


def calls_of_the_daemon():
    """The lines of each call, by (file, call)."""
    found = collections.defaultdict(list)
    for path in sources():
        with open(f"{TOP}/{path}", encoding="utf-8") as file:
            for line, call in calls_in(file.read()):
                found[path, call].append(line)
    return found


class Daemon(unittest.TestCase):
    def test_reaches_files_by_their_paths_only_where_a_reason_is_given(self):
        unexplained = [f"{path}:{line}: {call}" for (path, call), lines in calls_of_the_daemon().items()
                       if path not in THE_PLACES and (path, call) not in ALLOWED for line in lines]
        self.assertEqual(len(unexplained), 0, f"{len(unexplained)} calls with a path and no reason:\n" +
                         "\n".join(unexplained))

    def test_has_a_call_for_each_reason(self):
        found = calls_of_the_daemon()
        stale = [f"{path}: {call}" for path, call in ALLOWED if (path, call) not in found]
        stale += [path for path in THE_PLACES if path not in {path for path, _ in found}]
        self.assertEqual(stale, [], "entries that no call needs")


class Scanner(unittest.TestCase):
    """What the search finds and what it passes over."""

    FOUND = {
        "x = ::open(path.c_str(), O_RDONLY);": ["open"],
        "open(path);": ["open"],
        "return ::stat (path, &info);": ["stat"],
        "if (::stat(path.c_str(), &info) == 0)": ["stat"],
        "std::remove(path.c_str())": ["remove"],
        "UniqueFd end(::open(path));": ["open"],
        "!::rename(a, b)": ["rename"],
        "const BioPtr bio(BIO_new_file(path, mode));": ["BIO_new_file"],
        "::openat(AT_FDCWD, name, 0)": ["AT_FDCWD"],
        "std::ifstream file(path);": ["std::ifstream"],
        "std::ofstream file;": ["std::ofstream"],
        "std::filesystem::exists(path)": ["std::filesystem"],
        "const char c = '\"'; ::chmod(path, mode); // \"": ["chmod"],
        "/* one */ ::mkdir(a, 1); /* two */": ["mkdir"],
        'trace("a \\" b"); ::lchown(a, 1, 2);': ["lchown"],
        "1'000'000; ::rmdir(a);": ["rmdir"],
        "::fstat(\n    descriptor, &info)": ["fstat"],
    }
    PASSED_OVER = (
        "// ::open(path)", "/* ::open(path)\n ::stat(path) */", 'log("::open(path)");', 'R"(::open(path))"',
        "reader.open(path)", "reader->open(path)", "Log::open()", "FifoReader::open(path)", "journal_.remove(name);",
        "bool Journal::remove(int step) const {", "struct stat info {};", "reader.open();", "return open();",
        "::openat(folder, name, 0)", "::unlinkat(folder, name, 0)", "reopen(path)", "open_(path)", "#include <fstream>",
        "zlk::rename(a, b)",
    )

    def test_finds_calls(self):
        for code, calls in self.FOUND.items():
            with self.subTest(code=code):
                self.assertEqual([call for _, call in calls_in(code)], calls)

    def test_passes_over_what_only_looks_like_one(self):
        for code in self.PASSED_OVER:
            with self.subTest(code=code):
                self.assertEqual(calls_in(code), [])

    def test_knows_the_line(self):
        self.assertEqual(calls_in("/* a\n b */\n\n#include <x>\n\n::open(path);\n"), [(6, "open")])

    def test_reads_every_room(self):
        self.assertGreater(len(list(sources())), 80)


if __name__ == "__main__":
    sys.exit(unittest.main())
