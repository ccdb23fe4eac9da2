"""Texts in the user's language: what a catalog changes, and what it cannot break."""

import subprocess

import pytest

ENGLISH_EMPTY = "0 deployment packages in the repository.\n"
GERMAN_EMPTY = "0 Bereitstellungspakete im Repository.\n"
CATALOG = """$set 1
2 muss Administrator sein.
8 ungültiger Befehlsparameter
24 qvrepo ist mit Status [%d] fehlgeschlagen.
28 0 Bereitstellungspakete im Repository.
34 qvrepo -h | -help (Hilfe)\\n
"""


@pytest.fixture
def install_catalog(tree):
    """Compiles a catalog source and installs it for a locale."""

    def install(locale, source):
        directory = tree / "quorvelle/msg" / locale
        directory.mkdir(parents=True, exist_ok=True)
        subprocess.run(["gencat", directory / "qvrepo.cat", "-"], input=source.encode(), check=True)
        return directory / "qvrepo.cat"

    return install


@pytest.mark.parametrize("locale", ["de", "de_DE", "de_DE.UTF-8", "de_DE.UTF-8@euro", "de_AT@euro"])
def test_a_catalog_is_found_by_locale_territory_and_language(qvrepo, master, install_catalog, locale):
    install_catalog("de", CATALOG)
    assert qvrepo("-list", env={"LANG": locale}) == (GERMAN_EMPTY, "", 0)


def test_the_nearest_catalog_wins_message_by_message(qvrepo, master, install_catalog):
    install_catalog("de", CATALOG)
    install_catalog("de_AT", "$set 1\n28 Nix da.\n")
    assert qvrepo("-list", env={"LANG": "de_AT.UTF-8"}).stdout == "Nix da.\n"
    assert qvrepo("-x", env={"LANG": "de_AT.UTF-8"}).stderr == "Error: ungültiger Befehlsparameter\n"


@pytest.mark.parametrize("env, text", [
    ({"LANG": "de"}, GERMAN_EMPTY), ({"LC_MESSAGES": "de", "LANG": "C"}, GERMAN_EMPTY),
    ({"LC_ALL": "de", "LC_MESSAGES": "C"}, GERMAN_EMPTY), ({"LC_ALL": "", "LANG": "de"}, GERMAN_EMPTY),
    ({"LC_ALL": "C", "LANG": "de"}, ENGLISH_EMPTY), ({"LANG": "fr"}, ENGLISH_EMPTY), ({}, ENGLISH_EMPTY),
    ({"LANG": "POSIX"}, ENGLISH_EMPTY), ({"LC_ALL": "../../msg/de", "LANG": "de"}, ENGLISH_EMPTY),
    ({"NLSPATH": "/usr/ormex/quorvelle/msg/de/%N.cat", "LANG": "fr"}, ENGLISH_EMPTY)])
def test_the_locale_comes_from_the_first_variable_that_is_set(qvrepo, master, install_catalog, env, text):
    install_catalog("de", CATALOG)
    assert qvrepo("-list", env=env) == (text, "", 0)


def test_the_log_stays_english(qvrepo, master, install_catalog, log_records):
    install_catalog("de", CATALOG)
    qvrepo("-list", env={"LANG": "de"})
    assert log_records()[-1] == (4, "listPackagesCmd", "0 deployment packages in the repository.")


def test_help_and_general_text_are_translated(qvrepo, install_catalog):
    install_catalog("de", CATALOG)
    assert qvrepo("-h", env={"LANG": "de"}).stdout.endswith("\nqvrepo -h | -help (Hilfe)\n")
    outcome = qvrepo("-list", env={"LANG": "de"})
    assert outcome == ("", "Error: qvrepo ist mit Status [7] fehlgeschlagen.\n", 7)


@pytest.mark.parametrize("text", ["ohne Zahl", "%s", "%ld", "%d %d", "%1$d", "%n", "%*d"])
def test_a_text_with_other_conversions_is_not_used(qvrepo, install_catalog, text):
    install_catalog("de", f"$set 1\n24 {text}\n")
    assert qvrepo("-list", env={"LANG": "de"}).stderr == "Error: qvrepo operation failed with status [7].\n"


@pytest.mark.parametrize("damage", [
    lambda whole: b"", lambda whole: b"no catalog", lambda whole: whole[:20], lambda whole: whole[:-5],
    lambda whole: b"\xff" * len(whole), lambda whole: whole[:4] + b"\xff\xff\xff\x7f" + whole[8:]])
def test_a_damaged_catalog_gives_the_default_text(qvrepo, master, install_catalog, damage):
    catalog = install_catalog("de", CATALOG)
    catalog.write_bytes(damage(catalog.read_bytes()))
    assert qvrepo("-list", env={"LANG": "de"}) == (ENGLISH_EMPTY, "", 0)


def test_a_text_longer_than_its_buffer_is_cut_at_a_character(qvrepo, master, install_catalog):
    install_catalog("de", "$set 1\n28 x" + "ü" * 1000 + "\n")
    assert qvrepo("-list", env={"LANG": "de"}).stdout == "x" + "ü" * 511 + "\n"
