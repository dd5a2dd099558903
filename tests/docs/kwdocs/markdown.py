"""The fenced code blocks of a page, and what their info strings ask for.

    sh run                 run by /bin/sh -e on the device, as root; it must end with 0
       as=USER             as that user
       exit=N              must end with N
       retry=SECONDS       run again until its output is what the page says
       aside               passed over on behalf of a page that continues this one
    sh shown               shown only: what a test device cannot do (a package manager, systemd)
    LANGUAGE file=PATH     put on the device as that file; mode=OCTAL, default 644
       example=PATH        and the same, line by line, as that file of this project
    text output            what the block before it printed. "<...>" stands for any text within a line, a line
                           "..." for any lines
    text                   and every other language without a word behind it: neither run nor compared
"""

import re
import shlex
from dataclasses import dataclass, field

# A page whose examples need a device on which another page's have been run says so in a comment.
AFTER = re.compile(r"^<!-- examples after: (\S+) -->$", re.MULTILINE)
FENCE = re.compile(r"^(?P<fence>```+)(?P<info>[^\n]*)\n(?P<body>.*?)^(?P=fence)[ \t]*$", re.MULTILINE | re.DOTALL)
KNOWN = {"run", "shown", "output", "as", "exit", "retry", "aside", "file", "mode", "example"}


@dataclass
class Block:
    line: int
    language: str
    body: str
    words: dict = field(default_factory=dict)


def blocks(text, name):
    found = []
    for match in FENCE.finditer(text):
        words = shlex.split(match["info"])
        language, options = (words[0], words[1:]) if words else ("", [])
        parsed = dict(option.partition("=")[::2] for option in options)
        line = text.count("\n", 0, match.start()) + 1
        unknown = set(parsed) - KNOWN
        if unknown:
            raise ValueError(f"{name}:{line}: unknown words {sorted(unknown)}")
        if language == "sh" and not {"run", "shown", "file"} & set(parsed):
            raise ValueError(f"{name}:{line}: a block of commands is either run or shown")
        found.append(Block(line, language, match["body"], parsed))
    return found


def output_pattern(expected):
    """A regular expression for the whole output."""
    pattern = ""
    for line in expected.rstrip("\n").split("\n"):
        if line.strip() == "...":
            pattern += r"(?:[^\n]*\n)*?"
            continue
        pieces = re.split(r"<[^<>\n]*>", line.rstrip())
        pattern += r"[^\n]*?".join(re.escape(piece) for piece in pieces) + r"[ \t]*\n"
    return re.compile(pattern)


def matches(expected, printed):
    return output_pattern(expected).fullmatch(printed.rstrip("\n") + "\n") is not None
