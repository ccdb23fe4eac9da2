"""Compares a message catalog with the program's own texts."""

import re
import unicodedata

from catalog_source import read_catalog

# The program renders a text in a buffer of 1,024 bytes, and cuts what is longer.
LONGEST_TEXT = 1023
CONVERSION = re.compile(r"%%|%[-+ #0'I]*(\*|\d+)?(?:\.(\*|\d+)?)?(hh|ll|[hlqjztL])?(.?)", re.DOTALL)
KEPT = re.compile(r"(?<!\S)(?:-\w+|\|)(?!\S)|qvrepo|Quorvelle|Dunmarel|EEB|Windows")


def conversions(text):
    """The arguments that a printf format takes, in order, in the program's own way of telling them: length modifier
    and character, "d" for a '*'. None for a format that is not usable."""
    found = []
    for match in CONVERSION.finditer(text):
        if match[0] == "%%":
            continue
        width, precision, length, character = match.groups(default="")
        if character == "" or character not in "diouxXeEfFgGaAcsp":
            return None
        found += ["d" for number in (width, precision) if number == "*"]
        found.append(length + character)
    return found


def has_words(text):
    """Whether there is anything to translate: letters beside names, option words and conversions."""
    return any(c.isalpha() for c in KEPT.sub("", CONVERSION.sub("", text)))


def edges(text):
    """The white space at both ends."""
    return text[: len(text) - len(text.lstrip(" \n"))], text[len(text.rstrip(" \n")) :]


def control_characters(text):
    """Characters that do something to a terminal, or to the order of a line, and are not to be seen."""
    inside = text.strip(" \n")
    return [f"U+{ord(c):04X}" for c in inside if unicodedata.category(c) in ("Cc", "Cf", "Co", "Zl", "Zp")]


def faults_of_text(original, text):
    """What is wrong with the translation `text` of `original`."""
    if conversions(text) != conversions(original):
        yield f"has conversions {conversions(text)}, not {conversions(original)}"
    if text == original and has_words(original):
        yield "is not translated"
    if text != original and not has_words(original):
        yield "has nothing to translate, and differs"
    if sorted(KEPT.findall(text)) != sorted(KEPT.findall(original)):
        yield f"does not keep the names and option words: {' '.join(KEPT.findall(original))}"
    if edges(text) != edges(original):
        yield "does not keep the blanks and line ends at its ends"
    if found := control_characters(text):
        yield f"holds control characters: {' '.join(found)}"
    if len(text.encode()) > LONGEST_TEXT:
        yield f"is longer than {LONGEST_TEXT} bytes"


def faults_of_message(message, original):
    if message.original is None:
        yield "has no English text in the line above it"
    elif message.original != original:
        yield f"is a translation of {message.original!r}, but the English text is {original!r}"
    yield from faults_of_text(original, message.text)


def compare(content, texts):
    """What is wrong with a catalog source, given as bytes, for a program with these texts, {number: English text}."""
    messages, problems = read_catalog(content)
    for number, message in messages.items():
        if number not in texts:
            problems.append(f"line {message.line}: message {number} is none of the program")
            continue
        faults = faults_of_message(message, texts[number])
        problems += [f"line {message.line}: message {number} {fault}" for fault in faults]
    problems += [f"message {number} is missing: {texts[number]!r}" for number in sorted(texts.keys() - messages)]
    return problems
