"""The catalogs that come with the program: what an administrator reads in each language.

The expected texts are read from the catalogs' sources, not from what the program or the compiled catalogs say.
"""

import os
import random
import re
import shutil
import subprocess
import sys

import pytest
from packages import SINGLE, make_single
from program_options import column
from scripted_service import ScriptedService, answer
from test_command_line import HELP, INVALID
from test_delete import PROMPT
from world import PROGRAMS, SOURCES

sys.path.insert(0, str(SOURCES / "scripts/catalogs"))

from catalogs import read_catalog

BUILT = PROGRAMS.parent / "msg"
LOCALES = {"de": "de_DE.UTF-8", "es": "es_ES.UTF-8", "fr": "fr_FR.UTF-8", "ja": "ja_JP.UTF-8", "zh_CN": "zh_CN.UTF-8"}
IN_ENGLISH = (HELP, INVALID, 20)
# Which message a status has; all others have the general one.
GENERAL_MESSAGE = 24
MESSAGE_OF_STATUS = {
    20: 8, 104: 22, 110: 3, 111: 4, 117: 6, 118: 6, 132: 2, 153: 5, 5761: 35, 5930: 6, 7214: 18, 7215: 16, 7216: 17,
    7217: 13, 7218: 9, 7219: 20, 7220: 10, 7221: 21, 7225: 12, 7235: 15, 7236: 11, 7237: 14, 7252: 19, 7264: 37,
    7265: 38, 7266: 39, 7267: 40, 8000: 6, 9103: 7, 1: 24, 55: 24, 7263: 24}


class Language:
    """One language: its `locale`, its texts by number, and qvrepo run in it."""

    def __init__(self, name, qvrepo):
        self.name = name
        self.locale = LOCALES[name]
        messages, problems = read_catalog((SOURCES / f"msg/{name}.msg").read_bytes())
        assert problems == []
        self.texts = {number: message.text for number, message in messages.items()}
        self._qvrepo = qvrepo

    def run(self, *arguments, **how):
        return self._qvrepo(*arguments, env={"LANG": self.locale}, **how)

    @property
    def help(self):
        return "".join(self.texts[number] for number in range(29, 35))

    def line(self, number, *arguments):
        return (self.texts[number] % arguments if arguments else self.texts[number]) + "\n"


@pytest.fixture(autouse=True)
def catalogs(tree):
    """All built catalogs, installed."""
    for name in LOCALES:
        shutil.copytree(BUILT / name, tree / "quorvelle/msg" / name)
    return tree / "quorvelle/msg"


@pytest.fixture(params=LOCALES)
def language(request, qvrepo):
    return Language(request.param, qvrepo)


@pytest.fixture
def one_package(master):
    master.register("dunmarel_qvclient_8.3_redhat_x64.sja", type="qvclient")
    return master


# The catalogs as files

def test_each_source_has_its_catalog_and_each_catalog_its_source():
    assert sorted(file.parent.name for file in BUILT.glob("*/qvrepo.cat")) == sorted(LOCALES)
    assert sorted(file.stem for file in (SOURCES / "msg").glob("*.msg")) == sorted(LOCALES)


@pytest.mark.parametrize("locale", ["C", "de_DE.UTF-8", "ja_JP.eucJP"])
def test_the_same_source_gives_the_same_bytes_in_any_locale(tmp_path, locale):
    for name in LOCALES:
        made = tmp_path / f"{name}.cat"
        subprocess.run(["gencat", made, SOURCES / f"msg/{name}.msg"], env={**os.environ, "LC_ALL": locale}, check=True)
        assert made.read_bytes() == (BUILT / name / "qvrepo.cat").read_bytes(), name


def test_the_program_asks_for_the_messages_of_its_table_and_no_other():
    identifiers = re.findall(rb"TqlRpo\d{4}N(?=\0)", (PROGRAMS / "qvrepo").read_bytes())
    assert {identifier.decode() for identifier in identifiers} == set(column("message"))


# The program in each language

def test_help_and_an_unknown_option(language):
    assert language.run("-h") == (language.help, "", 0)
    assert language.run("-lists") == (language.help, "Error: " + language.line(8), 20)
    assert language.run("-list", "-name", "x") == (language.help, "Error: " + language.line(8), 20)


def test_an_empty_list(language, master, log_records):
    assert language.run("-list") == (language.line(28), "", 0)
    assert log_records()[-1] == (4, "listPackagesCmd", "0 deployment packages in the repository.")


def test_table_and_details_are_the_same_in_every_language(language, one_package):
    created = one_package.packages()[0]["createdDateTimeUTC"][:19].replace("T", " ")
    assert language.run("-list") == (
        "ID Type     Version OS         File Name                           \n"
        "-- -------- ------- ---------- ------------------------------------\n"
        "1  client   8.3     redhat_x64 dunmarel_qvclient_8.3_redhat_x64.sja\n", "", 0)
    assert language.run("-pkgDetails", "1") == (
        "                  Package ID: 1\n"
        "           Package File Name: dunmarel_qvclient_8.3_redhat_x64.sja\n"
        "                Package Type: client\n"
        "            Operating System: redhat_x64\n"
        "             Release Version: 8.3\n"
        "                Installables: qvclient_8.3\n"
        "                Package Size: 1,000.00 B\n"
        f"     Created Date/Time (UTC): {created}\n", "", 0)


def test_an_unknown_id(language, master, log_records):
    assert language.run("-pkgDetails", "7") == ("", "Error: " + language.line(10), 7220 & 0xFF)
    assert log_records()[-2:] == [(16, "main", "Deployment package is not found in the repository."),
                                  (4, "main", "qvrepo exit status: [7220]")]


def test_a_canceled_deletion(language, one_package, log_records):
    assert language.run("-delete", "1", stdin="n\n") == (PROMPT, language.line(21), 7221 & 0xFF)
    assert log_records()[-2:] == [(16, "main", "Package delete operation was canceled."),
                                  (4, "main", "qvrepo exit status: [7221]")]


def test_adding_and_deleting(language, master, tmp_path, log_records):
    assert language.run("-add", make_single(tmp_path)) == (language.line(25) + language.line(26, "1"), "", 0)
    added = log_records()[-1]
    assert language.run("-delete", "1", stdin="y\n") == (PROMPT + language.line(27, "1"), "", 0)
    assert [added, log_records()[-1]] == [
        (4, "addPackagesCmd", "Successfully added deployment package ID: 1 to the repository."),
        (4, "deletePackageCmd", "Package ID 1 has been deleted from the repository.")]


def test_every_status(language):
    bodies = [f'{{"errorCode": {status}, "errorMessage": "x"}}' for status in MESSAGE_OF_STATUS]
    with ScriptedService(*[answer(400, body) for body in bodies]):
        for status, number in MESSAGE_OF_STATUS.items():
            arguments = [status] if number == GENERAL_MESSAGE else []
            # A deletion that the user canceled is not an error.
            prefix = "" if status == 7221 else "Error: "
            expected = ("", prefix + language.line(number, *arguments), status & 0xFF)
            assert language.run("-list") == expected, status


def test_a_session_in_german(qvrepo, master, tmp_path):
    def run(*arguments, stdin=None):
        return qvrepo(*arguments, stdin=stdin, env={"LANG": "de_DE.UTF-8"})

    assert run("-h").stdout == (
        "\nVerwendung: Dienstprogramm für das Quorvelle-Paket-Repository\n\n"
        "qvrepo -a | -add <Paketpfad>\n"
        "qvrepo -d | -delete <Paket-ID>\n"
        "qvrepo -l | -list\n"
        "qvrepo -p | -pkgDetails <Paket-ID>\n"
        "qvrepo -h | -help\n")
    assert run("-add", make_single(tmp_path)) == (
        "Das Paket wird zum Repository hinzugefügt. Dies kann einige Minuten dauern ...\n"
        "Das Bereitstellungspaket mit der ID 1 wurde erfolgreich zum Repository hinzugefügt.\n", "", 0)
    assert run("-add", tmp_path / SINGLE) == (
        "Das Paket wird zum Repository hinzugefügt. Dies kann einige Minuten dauern ...\n",
        "Error: Das Paket ist im Repository bereits vorhanden.\n", 7218 & 0xFF)
    assert run("-delete", "1") == (PROMPT, "Das Löschen des Pakets wurde abgebrochen.\n", 7221 & 0xFF)
    assert run("-delete", "1", stdin="y\n") == (
        PROMPT + "Das Paket mit der ID 1 wurde aus dem Repository gelöscht.\n", "", 0)
    assert run("-list") == ("0 Bereitstellungspakete im Repository.\n", "", 0)
    assert run("-pkgDetails", "x") == ("", "Error: Ungültige Paket-ID.\n", 7219 & 0xFF)
    master.stop()
    assert run("-list") == ("", "Error: Der qvrepo-Vorgang ist mit Status [7] fehlgeschlagen.\n", 7)


# Which catalog a locale gets

@pytest.mark.parametrize("locale, name", [
    ("de_AT.UTF-8", "de"), ("de_CH", "de"), ("de", "de"), ("fr_CA.UTF-8", "fr"), ("es_MX.UTF-8", "es"),
    ("ja_JP.eucJP", "ja"), ("zh_CN", "zh_CN"), ("zh_CN.GB18030", "zh_CN")])
def test_a_country_or_character_set_without_a_catalog_gets_that_of_the_language(qvrepo, locale, name):
    expected = Language(name, qvrepo)
    assert qvrepo("-x", env={"LANG": locale}) == (expected.help, "Error: " + expected.line(8), 20)


@pytest.mark.parametrize("env", [
    {"LANG": "pt_BR"}, {"LANG": "pt_BR.UTF-8"}, {"LANG": "zh_TW.UTF-8"}, {"LANG": "zh"}, {"LANG": "en_US.UTF-8"},
    {"LANG": "xx_YY.UTF-8"}, {"LANG": "DE_DE"}, {"LANG": "deu"}, {"LANG": "d"}, {"LANG": "C.UTF-8"}, {},
    {"LC_ALL": "C", "LANG": "de_DE.UTF-8"}, {"LC_ALL": "POSIX", "LANG": "de_DE.UTF-8"},
    {"LC_MESSAGES": "C", "LANG": "de_DE.UTF-8"}, {"LC_ALL": "pt_BR.UTF-8", "LANG": "de_DE.UTF-8"},
    # LANGUAGE belongs to another kind of catalogs.
    {"LANG": "en_US.UTF-8", "LANGUAGE": "de"}])
def test_a_locale_without_a_catalog_gets_english(qvrepo, env):
    assert qvrepo("-x", env=env) == IN_ENGLISH


# Damaged catalogs

def in_german(qvrepo):
    return qvrepo("-x", env={"LANG": "de_DE.UTF-8"})


def test_a_catalog_that_is_cut_anywhere_is_not_used(qvrepo, catalogs):
    catalog = catalogs / "de/qvrepo.cat"
    whole = catalog.read_bytes()
    last_texts = [place + 1 for place, byte in enumerate(whole[:-1]) if byte == 0][-8:]
    for size in sorted({*range(0, 64, 4), *range(64, len(whole), 100), *last_texts, len(whole) - 1}):
        catalog.write_bytes(whole[:size])
        assert in_german(qvrepo) == IN_ENGLISH, size


def test_a_catalog_of_random_bytes_is_not_used(qvrepo, catalogs):
    catalog = catalogs / "de/qvrepo.cat"
    header = catalog.read_bytes()[:12]
    for seed in range(20):
        noise = random.Random(seed).randbytes(4096)
        for content in (noise, header + noise + b"\0"):
            catalog.write_bytes(content)
            assert in_german(qvrepo) == IN_ENGLISH, seed


@pytest.mark.parametrize("put", [
    lambda path: shutil.rmtree(path.parent), lambda path: None, lambda path: path.mkdir(), os.mkfifo,
    lambda path: path.symlink_to("/dev/zero"), lambda path: path.symlink_to("missing"),
    lambda path: path.symlink_to(path), lambda path: path.write_bytes(b""),
    lambda path: path.write_text("$set 1\n8 x\n")],
    ids=["no directory", "missing", "directory", "pipe", "device", "dangling link", "link to itself", "empty", "source"])
def test_a_file_that_is_not_a_catalog_counts_as_missing(qvrepo, catalogs, put):
    catalog = catalogs / "de/qvrepo.cat"
    catalog.unlink()
    put(catalog)
    assert in_german(qvrepo) == IN_ENGLISH


def test_a_text_with_other_conversions_is_replaced_alone(qvrepo, catalogs):
    source = (SOURCES / "msg/de.msg").read_text()
    assert source.count("[%d] fehlgeschlagen") == 1
    subprocess.run(["gencat", "--new", catalogs / "de/qvrepo.cat", "-"], check=True,
                   input=source.replace("[%d] fehlgeschlagen", "[%s] fehlgeschlagen").encode())
    german = Language("de", qvrepo)
    assert german.run("-list").stderr == "Error: qvrepo operation failed with status [7].\n"
    assert german.run("-x") == (german.help, "Error: " + german.line(8), 20)
