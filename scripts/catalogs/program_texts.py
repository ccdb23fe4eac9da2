"""Collects the program's own messages, identifiers and English texts, from its sources.

They stand where they are used: in calls of mxgetmsg, and in tables whose rows are given to mxgetmsg one by one. What
cannot be read with certainty is an error, so a message in a new form cannot be missed.
"""

import re
from typing import NamedTuple

FOLDERS = ("cli", "model", "files", "seam")
LOOKUP = "mxgetmsg"
IDENTIFIER = re.compile(r"TqlRpo(\d{4})N")
TOKEN = re.compile(
    r"""(?P<skipped> \s+ | //[^\n]* | /\*.*?\*/ )
      | (?P<string> "(?:[^"\\\n]|\\.)*" )
      | (?P<other> '(?:[^'\\\n]|\\.)+' | \w+ | -> | . )""",
    re.VERBOSE | re.DOTALL,
)
ESCAPES = {"n": "\n", "t": "\t", '"': '"', "\\": "\\"}


class UnreadableSource(Exception):
    """A place at which the program's texts cannot be told."""


class Token(NamedTuple):
    kind: str  # "string" or "other"
    text: str  # of a string, what stands between its quotes
    line: int


def tokens_of(source):
    """The tokens of C++ `source`, without comments; literals that stand side by side are one."""
    tokens, line = [], 1
    for match in TOKEN.finditer(source):
        kind, text = match.lastgroup, match[0]
        if kind == "string":
            _append_string(tokens, text[1:-1], line)
        elif kind == "other":
            tokens.append(Token(kind, text, line))
        line += text.count("\n")
    return tokens


def _append_string(tokens, text, line):
    last = tokens[-1] if tokens else Token("other", "", 0)
    if last.kind == "other" and last.text.endswith("R"):
        raise UnreadableSource(f"line {line}: raw string")
    if last.kind == "string":
        tokens[-1] = Token("string", last.text + text, last.line)
    else:
        tokens.append(Token("string", text, line))


def _value(string):
    """What a string token stands for."""
    unknown = [escape for escape in re.findall(r"\\(.)", string.text) if escape not in ESCAPES]
    if unknown:
        raise UnreadableSource(f"line {string.line}: escapes in {string.text}")
    return re.sub(r"\\(.)", lambda escape: ESCAPES[escape[1]], string.text)


def _arguments(tokens, start):
    """The arguments of the call whose opening parenthesis is at `start`, each a list of tokens."""
    arguments, depth = [[]], 0
    for token in tokens[start:]:
        if token.kind == "other":
            depth += (token.text in "([{") - (token.text in ")]}")
            if depth == 0:
                return arguments
            if token.text in "([{" and depth == 1:
                continue
            if token.text == "," and depth == 1:
                arguments.append([])
                continue
        arguments[-1].append(token)
    raise UnreadableSource(f"line {tokens[start].line}: call without end")


class _Collector:
    def __init__(self, tokens):
        self.tokens = tokens
        self.texts = {}
        self._read_in_calls = set()
        self._has_rows = False
        self._reads_rows = False

    def collect(self):
        for i, token in enumerate(self.tokens):
            if (token.kind, token.text) == ("other", LOOKUP):
                self._read_call(i)
        for i, token in enumerate(self.tokens):
            if token.kind == "string" and "TqlRpo" in token.text and token not in self._read_in_calls:
                self._read_row(i)
        if self._has_rows != self._reads_rows:
            raise UnreadableSource("a table of messages and the call that reads it are not in one file")
        return self.texts

    def _read_call(self, i):
        line = self.tokens[i].line
        if self._text_at(i + 1) != "(":
            raise UnreadableSource(f"line {line}: {LOOKUP} without a call")
        arguments = _arguments(self.tokens, i + 1)
        if len(arguments) < 8:
            raise UnreadableSource(f"line {line}: {LOOKUP} with {len(arguments)} arguments")
        identifier, text = arguments[0], arguments[7]
        if [token.kind for token in identifier + text] == ["string", "string"]:
            self._read_in_calls.add(identifier[0])
            self._add(identifier[0], text[0])
        elif _is_member(identifier, "id") and _is_member(text, "text") and _words(identifier[:-1]) == _words(text[:-1]):
            self._reads_rows = True
        else:
            raise UnreadableSource(f"line {line}: {LOOKUP} of {' '.join(_words(identifier))}")

    def _read_row(self, i):
        """A row of a table ends in identifier and text."""
        identifier = self.tokens[i]
        before, comma, end = (self._text_at(i + offset) for offset in (-1, 1, 3))
        if before not in ("{", ",") or comma != "," or end != "}" or self.tokens[i + 2].kind != "string":
            raise UnreadableSource(f"line {identifier.line}: {identifier.text} in no call or row")
        self._has_rows = True
        self._add(identifier, self.tokens[i + 2])

    def _text_at(self, i):
        return self.tokens[i].text if 0 <= i < len(self.tokens) else None

    def _add(self, identifier, text):
        match = IDENTIFIER.fullmatch(identifier.text)
        if not match:
            raise UnreadableSource(f"line {identifier.line}: {identifier.text} is no identifier")
        add_text(self.texts, int(match[1]), _value(text))


def _words(tokens):
    return [token.text for token in tokens]


def _is_member(tokens, name):
    return len(tokens) == 3 and tokens[1].text in (".", "->") and tokens[2].text == name


def add_text(texts, number, text):
    """Adds message `number` to `texts`; one that is there already must have the same text."""
    if texts.setdefault(number, text) != text:
        raise UnreadableSource(f"message {number} has two texts: {texts[number]!r} and {text!r}")


def texts_of_source(source):
    """The messages in one C++ source: {number: English text}."""
    return _Collector(tokens_of(source)).collect()


def texts_of_program(root):
    """The messages in all sources of the program below `root`."""
    texts = {}
    files = sorted(file for folder in FOLDERS for file in (root / folder).glob("*.*") if file.suffix in (".h", ".cpp"))
    for file in files:
        try:
            for number, text in texts_of_source(file.read_text()).items():
                add_text(texts, number, text)
        except UnreadableSource as error:
            raise UnreadableSource(f"{file.relative_to(root)}: {error}") from None
    return texts
