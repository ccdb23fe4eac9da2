"""scripts/check-catalogs: what it finds in catalogs that are not right."""

import os
import subprocess
import sys
from pathlib import Path

import pytest

SOURCES = Path(__file__).resolve().parents[3]
sys.path.insert(0, str(SOURCES / "scripts/catalogs"))

from catalogs import compare, conversions, read_catalog, texts_of_program, texts_of_qvcheck

TABLES = Path(os.environ["QV_BIN"]).parent / "tests/program_tables"
LANGUAGES = sorted(file.stem for file in (SOURCES / "msg").glob("*.msg"))
TEXTS = {2: "must be administrator.", 24: "failed with status [%d].", 26: "added ID: %s.", 29: "\nUsage: it\n\n",
         32: "qvrepo -l | -list\n"}
GOOD = r"""$ codeset=UTF-8
$ Any comment.

$quote "
$set 1

$ "must be administrator."
2 "Sie müssen Administrator sein."
$ "failed with status [%d]."
24 "mit Status [%d] fehlgeschlagen."
$ "added ID: %s."
26 "ID %s hinzugefügt."
$ "\nUsage: it\n\n"
29 "\nAufruf: es\n\n"
$ "qvrepo -l | -list\n"
32 "qvrepo -l | -list\n"
"""


def changed(old, new):
    """The good catalog with one change, as bytes."""
    assert GOOD.count(old) == 1, old
    return GOOD.replace(old, new).encode()


def check_catalogs(*files):
    return subprocess.run([SOURCES / "scripts/check-catalogs", *files], capture_output=True, text=True)


# The catalogs of this project

def test_every_catalog_of_the_project_agrees_with_the_program():
    texts = texts_of_program(TABLES)
    problems = {name: compare((SOURCES / f"msg/{name}.msg").read_bytes(), texts) for name in LANGUAGES}
    assert problems == {name: [] for name in ["de", "es", "fr", "ja", "zh_CN"]}


def test_the_command_tells_how_many_catalogs_agree():
    run = check_catalogs()
    texts = texts_of_program(TABLES)
    assert (run.returncode, run.stderr) == (0, "")
    number_of_qvcheck = len(texts_of_qvcheck(SOURCES / "check"))
    assert run.stdout == f"catalogs: {2 * len(LANGUAGES)}, texts of qvrepo: {len(texts)}, of qvcheck: {number_of_qvcheck}\n"


def test_the_command_names_file_and_fault_and_fails(tmp_path):
    catalog = tmp_path / "xx.msg"
    german = (SOURCES / "msg/de.msg").read_text()
    catalog.write_text(german.replace('4 "Es wurde kein Master-Server gefunden."', '4 "no master server found."'))
    line = german.split("\n").index('4 "Es wurde kein Master-Server gefunden."') + 1
    run = check_catalogs(catalog, tmp_path / "none.msg")
    assert (run.returncode, run.stdout) == (1, "")
    assert run.stderr == (f"{catalog}: line {line}: message 4 is not translated\n"
                          f"{tmp_path}/none.msg: No such file or directory\n")


# What is compared

def test_a_good_catalog_has_no_fault():
    assert compare(GOOD.encode(), TEXTS) == []


@pytest.mark.parametrize("old, new, problems", [
    ('26 "ID %s hinzugefügt."\n', "", ["message 26 is missing: 'added ID: %s.'"]),
    ('$ "added ID', '3 "drei"\n$ "added ID', ["line 11: message 3 is not a message of the program"]),
    ('$ "added ID', '$ "x"\n24 "mit [%d]"\n$ "added ID', ["line 12: message 24 is there twice"]),
    ("$ \"must be administrator.\"\n", "", ["line 7: message 2 has no English text in the line above it"]),
    ('2 "Sie', '\n2 "Sie', ["line 9: message 2 has no English text in the line above it"]),
    ('$ "must be', '$ "must not be', ["line 8: message 2 is a translation of 'must not be administrator.', but the "
                                       "English text is 'must be administrator.'"]),
    ("Sie müssen Administrator sein.", "must be administrator.", ["line 8: message 2 is not translated"]),
    ("mit Status [%d]", "mit Status [%s]", ["line 10: message 24 has conversions ['s'], not ['d']"]),
    ("mit Status [%d]", "mit Status [%ld]", ["line 10: message 24 has conversions ['ld'], not ['d']"]),
    ("mit Status [%d]", "mit Status [%1$d]", ["line 10: message 24 has conversions None, not ['d']"]),
    ("mit Status [%d]", "mit Status [%*d]", ["line 10: message 24 has conversions ['d', 'd'], not ['d']"]),
    ("ID %s hinzugefügt.", "ID hinzugefügt.", ["line 12: message 26 has conversions [], not ['s']"]),
    ("ID %s hinzugefügt.", "ID %s %s hinzugefügt.", ["line 12: message 26 has conversions ['s', 's'], not ['s']"]),
    ("Sie müssen", "Sie % müssen", ["line 8: message 2 has conversions None, not []"]),
    ("Sie müssen", "Sie \x1b[1mmüssen", ["line 8: message 2 holds control characters: U+001B"]),
    ("Sie müssen", "Sie\tmüssen", ["line 8: message 2 holds control characters: U+0009"]),
    ("Sie müssen", "Sie\\nmüssen", ["line 8: message 2 holds control characters: U+000A"]),
    ("Sie müssen", "Sie \u202emüssen", ["line 8: message 2 holds control characters: U+202E"]),
    ("\\nAufruf: es\\n\\n", "\\nAufruf: es\\n",
     ["line 14: message 29 does not keep the blanks and line ends at its ends"]),
    ("Administrator sein.", "Administrator sein. ",
     ["line 8: message 2 does not keep the blanks and line ends at its ends"]),
    ('32 "qvrepo -l | -list', '32 "qvrepo -l | -liste',
     ["line 16: message 32 has nothing to translate, and differs",
      "line 16: message 32 does not keep the names and options: qvrepo -l | -list"]),
    ("Sie müssen", "x" * 1001 + " müssen", ["line 8: message 2 is longer than 1023 bytes"])])
def test_a_fault_is_found_and_named(old, new, problems):
    assert compare(changed(old, new), TEXTS) == problems


def test_a_text_as_long_as_the_buffer_is_taken():
    text = "x" * 1023
    assert compare(changed("Sie müssen Administrator sein.", text), TEXTS) == []


@pytest.mark.parametrize("format, expected", [
    ("", []), ("100%%", []), ("%%%d", ["d"]), ("%5%%d", None), ("%-08.3lld %s", ["lld", "s"]),
    ("%*.*f", ["d", "d", "f"]), ("%", None), ("%n", None), ("%l", None), ("%.s", ["s"]), ("%hhu%zd", ["hhu", "zd"])])
def test_conversions_are_those_that_the_program_tells(format, expected):
    assert conversions(format) == expected


# The form of a catalog's source

@pytest.mark.parametrize("old, new, problems", [
    ("$ codeset=UTF-8\n", "", ["line 1: does not begin with $ codeset=UTF-8"]),
    ("$ codeset=UTF-8\n", "$ codeset=ISO-8859-1\n", ["line 1: does not begin with $ codeset=UTF-8"]),
    ("$ Any comment.", "$", ["line 2: cannot be read: $"]),
    ("$ Any comment.", "$delset 1", ["line 2: cannot be read: $delset 1"]),
    ("$ Any comment.", "2", ["line 2: cannot be read: 2"]),
    ("$ Any comment.", "Any comment.\r", ["line 2: cannot be read: Any comment.\r"]),
    ("2 \"Sie", "2  \"Sie", ["line 8: cannot be read: 2  \"Sie müssen Administrator sein.\""]),
    ("sein.\"", "sein.\\", ["line 8: cannot be read: 2 \"Sie müssen Administrator sein.\\"]),
    ("Sie müssen", "Sie \"müssen", ["line 8: bare quote or unknown escape: Sie \"müssen Administrator sein."]),
    ("Sie müssen", "Sie \\tmüssen", ["line 8: bare quote or unknown escape: Sie \\tmüssen Administrator sein."])])
def test_a_line_that_gencat_could_take_otherwise_is_a_fault(old, new, problems):
    assert read_catalog(changed(old, new))[1] == problems


@pytest.mark.parametrize("directives", [
    "", '$quote "\n', "$set 1\n", '$set 1\n$quote "\n', '$quote "\n$set 1\n$set 1\n'])
def test_messages_stand_in_set_one_with_quotes(directives):
    source = f'$ codeset=UTF-8\n{directives}$ "a"\n2 "b"\n'
    line = source.count("\n")
    assert read_catalog(source.encode())[1] == [
        f"line {line}: message 2 does not stand in the one set 1, after $quote"]


@pytest.mark.parametrize("directive", ["$set 2", "$quote '", "$quote"])
def test_another_set_or_quote_is_a_fault(directive):
    assert read_catalog(changed("$ Any comment.", directive))[1] == [f"line 2: cannot be read: {directive}"]


@pytest.mark.parametrize("bad", [b"\xfc", b"\xc3", b"\xed\xa0\x80", b"\xff\xfe"])
def test_what_is_not_utf_8_is_a_fault_and_read_no_further(bad):
    content = GOOD.encode().replace("ü".encode(), bad, 1)
    assert read_catalog(content) == ({}, ["line 8: is not UTF-8"])


def test_escapes_are_resolved():
    messages, problems = read_catalog(changed("Sie müssen Administrator sein.", r"a \"b\" \\n c\n"))
    assert (messages[2].text, problems) == ('a "b" \\n c\n', [])
