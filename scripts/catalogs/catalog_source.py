"""Reads the source of a message catalog, msg/LANGUAGE.msg.

gencat takes many forms and passes over what it does not know; here only one form is taken, so that nothing is lost
in silence. The first line names the character set. After `$quote "` and `$set 1` each message is two lines, the
English text as a comment and the translation:

    $ "no master server found."
    4 "Es wurde kein Master-Server gefunden."

Other comments ("$ ...") and empty lines may stand anywhere but between those two.
"""

import re
from typing import NamedTuple

HEADER = "$ codeset=UTF-8"
ORIGINAL = re.compile(r'\$ "(.*)"')
MESSAGE = re.compile(r'([1-9][0-9]{0,3}) "(.*)"')
QUOTED = re.compile(r'(?:[^\\"]|\\[n"\\])*')
ESCAPE = re.compile(r"\\(.)")


class Message(NamedTuple):
    """One message: its English text and its translation, escapes resolved; `original` is None without one."""

    line: int
    original: str | None
    text: str


def resolve(quoted):
    """What the inside of a pair of quotes stands for; None where it holds a bare quote or an unknown escape."""
    if not QUOTED.fullmatch(quoted):
        return None
    return ESCAPE.sub(lambda escape: "\n" if escape[1] == "n" else escape[1], quoted)


class _Reader:
    def __init__(self):
        self.messages = {}
        self.problems = []
        self._original = None
        self._directives = []

    def read(self, lines):
        if lines[0] != HEADER:
            self._complain(1, f"does not begin with {HEADER}")
        for number, line in enumerate(lines, 1):
            self._read_line(number, line)

    def _complain(self, number, what):
        self.problems.append(f"line {number}: {what}")

    def _read_line(self, number, line):
        original, self._original = self._original, None
        if match := ORIGINAL.fullmatch(line):
            self._original = self._resolve(number, match[1])
        elif match := MESSAGE.fullmatch(line):
            self._read_message(number, int(match[1]), original, self._resolve(number, match[2]))
        elif line in ('$quote "', "$set 1"):
            self._directives.append(line)
        elif line and not line.startswith("$ "):
            self._complain(number, f"cannot be read: {line}")

    def _resolve(self, number, quoted):
        text = resolve(quoted)
        if text is None:
            self._complain(number, f"bare quote or unknown escape: {quoted}")
        return text

    def _read_message(self, number, message, original, text):
        if self._directives != ['$quote "', "$set 1"]:
            self._complain(number, f"message {message} does not stand in the one set 1, after $quote")
        if message in self.messages:
            self._complain(number, f"message {message} is there twice")
        elif text is not None:
            self.messages[message] = Message(number, original, text)


def read_catalog(content):
    """The messages of a source given as bytes, {number: Message}, and what is wrong with its form, ["line N: ..."].
    What is not UTF-8 is not read any further."""
    try:
        lines = content.decode().split("\n")
    except UnicodeDecodeError as error:
        line = content.count(b"\n", 0, error.start) + 1
        return {}, [f"line {line}: is not UTF-8"]
    reader = _Reader()
    reader.read(lines)
    return reader.messages, reader.problems
