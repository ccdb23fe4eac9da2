"""Reads the sources of message catalogs, msg/LANGUAGE.msg and msg/qvcheck/LANGUAGE.msg, and compares them with the
texts of their program.

gencat takes many forms and passes over what it does not know; here only one form is taken, so that nothing is lost
in silence. The first line names the character set. After `$quote "` and `$set 1`, or `$set 2` for qvcheck, each message
is two lines, the English text as a comment and the translation:

    $ "no master server found."
    4 "Es wurde kein Master-Server gefunden."

Other comments ("$ ...") and empty lines may stand anywhere but between those two.
"""

import re
import subprocess
import unicodedata
from collections import namedtuple

HEADER = "$ codeset=UTF-8"
QVREPO_SET, QVCHECK_SET = 1, 2
ORIGINAL = re.compile(r'\$ "(.*)"')
MESSAGE = re.compile(r'([1-9][0-9]{0,3}) "(.*)"')
QUOTED = re.compile(r'(?:[^\\"]|\\[n"\\])*')
# The program renders a text in a buffer of 1,024 bytes, and cuts what is longer.
MAX_TEXT = 1023
CONVERSION = re.compile(r"%%|%[-+ #0'I]*(\*|\d+)?(?:\.(\*|\d+)?)?(hh|ll|[hlqjztL])?(.?)", re.DOTALL)
KEPT = re.compile(r"(?<!\S)(?:-\w+|\|)(?!\S)|qvrepo|qvcheck|Quorvelle|Dunmarel|EEB|Windows")
# The English text (None without one) and the translation, escapes resolved.
Message = namedtuple("Message", "line original text")


def texts_of_program(tables):
    """The program's texts, {number: English text}, from the program `tables` that prints them."""
    printed = subprocess.run([tables], capture_output=True, text=True, check=True).stdout
    rows = re.findall(r"^message\tTqlRpo(\d{4})N\t(.*)$", printed, re.MULTILINE)
    return {int(number): text.replace("\\n", "\n") for number, text in rows}


def texts_of_qvcheck(sources):
    """The texts of qvcheck, {number: English text}, from its sources in the directory `sources`, where each stands
    beside its identifier."""
    code = "".join(file.read_text() for file in sorted(sources.glob("*.*")))
    rows = re.findall(r'\{\s*"TqlChk(\d{4})N",\s*((?:"(?:[^"\\]|\\.)*"\s*)+)\}', code)
    assert len(rows) == code.count('"TqlChk'), "a message of qvcheck was not understood"
    return {int(number): "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', text)) for number, text in rows}


def read_catalog(content, number_of_set=QVREPO_SET):
    """The messages of a source given as bytes, {number: Message}, and what is wrong with its form, ["line N: ..."].
    What is not UTF-8 is not read any further."""
    try:
        lines = content.decode().split("\n")
    except UnicodeDecodeError as error:
        return {}, [f"line {content.count(bytes([10]), 0, error.start) + 1}: is not UTF-8"]
    wanted = ['$quote "', f"$set {number_of_set}"]
    messages, directives, original = {}, [], None
    problems = [] if lines[0] == HEADER else [f"line 1: does not begin with {HEADER}"]

    def resolve(quoted):
        if QUOTED.fullmatch(quoted):
            return re.sub(r"\\(.)", lambda escape: "\n" if escape[1] == "n" else escape[1], quoted)
        problems.append(f"line {number}: bare quote or unknown escape: {quoted}")
        return None

    for number, line in enumerate(lines, 1):
        line_above, original = original, None
        if match := ORIGINAL.fullmatch(line):
            original = resolve(match[1])
        elif match := MESSAGE.fullmatch(line):
            message, text = int(match[1]), resolve(match[2])
            if directives != wanted:
                problems.append(f"line {number}: message {message} does not stand in the one set {number_of_set}, after $quote")
            if message in messages:
                problems.append(f"line {number}: message {message} is there twice")
            elif text is not None:
                messages[message] = Message(number, line_above, text)
        elif line in wanted:
            directives.append(line)
        elif line and not line.startswith("$ "):
            problems.append(f"line {number}: cannot be read: {line}")
    return messages, problems


def conversions(text):
    """The arguments that a printf format takes, in order, as the program itself describes them: length modifier
    and character, "d" for a '*'. None for a format that is not usable."""
    found = []
    for match in CONVERSION.finditer(text):
        if match[0] == "%%":
            continue
        width, precision, length, character = match.groups(default="")
        if character == "" or character not in "diouxXeEfFgGaAcsp":
            return None
        found += ["d" for number in (width, precision) if number == "*"] + [length + character]
    return found


def faults_of(message, original):
    """What is wrong with a translation of the English text `original`."""
    text = message.text
    # Letters beside names, options and conversions are there to be translated.
    has_letters = any(c.isalpha() for c in KEPT.sub("", CONVERSION.sub("", original)))
    ends = [[t[: len(t) - len(t.lstrip(" \n"))], t[len(t.rstrip(" \n")) :]] for t in (original, text)]
    controls = [c for c in text.strip(" \n") if unicodedata.category(c) in ("Cc", "Cf", "Co", "Zl", "Zp")]
    if message.original is None:
        yield "has no English text in the line above it"
    elif message.original != original:
        yield f"is a translation of {message.original!r}, but the English text is {original!r}"
    if conversions(text) != conversions(original):
        yield f"has conversions {conversions(text)}, not {conversions(original)}"
    if (text == original) == has_letters:
        yield "is not translated" if has_letters else "has nothing to translate, and differs"
    if sorted(KEPT.findall(text)) != sorted(KEPT.findall(original)):
        yield f"does not keep the names and options: {' '.join(KEPT.findall(original))}"
    if ends[0] != ends[1]:
        yield "does not keep the blanks and line ends at its ends"
    if controls:
        yield f"holds control characters: {' '.join(f'U+{ord(c):04X}' for c in controls)}"
    if len(text.encode()) > MAX_TEXT:
        yield f"is longer than {MAX_TEXT} bytes"


def compare(content, texts, number_of_set=QVREPO_SET):
    """What is wrong with a catalog source, given as bytes, for a program with these texts, {number: English text}."""
    messages, problems = read_catalog(content, number_of_set)
    for number, message in messages.items():
        faults = faults_of(message, texts[number]) if number in texts else ["is not a message of the program"]
        problems += [f"line {message.line}: message {number} {fault}" for fault in faults]
    return problems + [f"message {number} is missing: {texts[number]!r}" for number in sorted(texts.keys() - messages)]
