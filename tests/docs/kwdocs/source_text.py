"""The string literals of the daemon's sources, each with the statement that it stands in."""

import glob
import os
import re
from dataclasses import dataclass

from .rooms import ROOMS


TOKEN = re.compile(
    r"//[^\n]*|/\*.*?\*/"  # comments
    r'|R"([^()\\ ]{0,16})\((.*?)\)\1"'  # raw strings
    r'|"((?:[^"\\\n]|\\.)*)"'
    r"|'(?:[^'\\\n]|\\.)+'"
    r"|#[^\n]*(?:\\\n[^\n]*)*"  # preprocessor lines
    r"|[A-Za-z_][A-Za-z0-9_:]*|[0-9][0-9A-Za-z']*|\s+|.",
    re.DOTALL)
ESCAPES = {"n": "\n", "t": "\t", "r": "\r", "0": "\0", '"': '"', "\\": "\\", "'": "'"}


@dataclass(frozen=True)
class Literal:
    file: str
    line: int
    text: str
    statement: str  # the words of the statement before the literal


def unescape(text):
    return re.sub(r"\\(.)", lambda match: ESCAPES.get(match[1], match[1]), text)


def literals_of(path, name):
    """Adjacent literals are one. A statement begins after ";", "{" or "}"."""
    with open(path, encoding="utf-8") as file:
        text = file.read()
    found, statement, line, last = [], [], 1, False
    for match in TOKEN.finditer(text):
        token = match[0]
        begin = line
        line += token.count("\n")
        if token.isspace() or token.startswith(("//", "/*")):
            continue
        if token.startswith("#") and not statement:
            continue
        if match[3] is not None or match[2] is not None:
            value = unescape(match[3]) if match[3] is not None else match[2]
            if last:
                old = found.pop()
                found.append(Literal(name, old.line, old.text + value, old.statement))
            else:
                found.append(Literal(name, begin, value, " ".join(statement)))
            last = True
            continue
        last = False
        if token in ";{}":
            statement = []
        else:
            statement.append(token)
    return found


def all_literals(root):
    found = []
    for room in ROOMS:
        for path in sorted(glob.glob(os.path.join(root, room, "*.cpp")) + glob.glob(os.path.join(root, room, "*.h"))):
            found += literals_of(path, os.path.relpath(path, root))
    return found


# Statements whose texts go to nobody who looks for a fault: traces, what the compiler says, and the rows of the
# keys with what the manual says.
HARMLESS = re.compile(r"\bdebugTrace \(|\bstatic_assert \(|Log::write \( Severity(?:Notice|Info)\b|"
                      r"\b(?:text|path|onOff|number) \( (?:Daemon|Service|Settings)Key::")
FAILURE = re.compile(r"Severity(?:Error|Warning|Emergency)|\bthrow\b|exitDaemon|essage \(|\bfail|refuse|noText|"
                     r"logged \(")
WORD = r"[A-Za-z]{2,}"


def normal(text):
    return " ".join(text.split())


def failure_texts(root):
    """The pieces of what the daemon can log as a failure or answer to a requester: of at least two words, or of one
    in a statement that reports a failure."""
    found = []
    for literal in all_literals(root):
        if HARMLESS.search(literal.statement):
            continue
        words = re.findall(WORD, literal.text)
        sentence = len(words) >= 2 and " " in literal.text.strip()
        if sentence or (words and " " in literal.text and FAILURE.search(literal.statement)):
            found.append(literal)
    return found
