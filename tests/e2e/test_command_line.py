"""The command line: help, unknown options, placeholders, and how a status is seen by a shell."""

import re
import subprocess

import pytest
from world import PROGRAMS

HELP = (
    "\nUsage: Quorvelle package repository utility\n\n"
    "qvrepo -a | -add <package_path>\n"
    "qvrepo -d | -delete <package_identifier>\n"
    "qvrepo -l | -list\n"
    "qvrepo -p | -pkgDetails <package_identifier>\n"
    "qvrepo -h | -help\n"
)
INVALID = "Error: invalid command parameter\n"
FAILED_WITH_1 = "Error: qvrepo operation failed with status [1].\n"


def test_without_arguments_the_help_is_printed_and_the_status_is_1_without_an_error_line(qvrepo):
    assert qvrepo() == (HELP, "", 1)


@pytest.mark.parametrize("option", ["-h", "-help"])
def test_the_help_option_prints_the_help(qvrepo, option):
    assert qvrepo(option) == (HELP, "", 0)
    assert qvrepo(option, "-list") == (HELP, "", 0)


@pytest.mark.parametrize("option", ["-HELP", "--help", "help", "-x", "", "-lis", "-listt", "-List", " -list", "-add "])
def test_an_unknown_option_prints_the_help_and_then_the_error(qvrepo, option):
    assert qvrepo(option) == (HELP, INVALID, 20)


@pytest.mark.parametrize("arguments, error", [
    (["-x"], INVALID), (["-list", "-os"], INVALID), (["-pkgDetails"], INVALID), (["-add"], INVALID),
    (["-delete"], INVALID), (["-getPkg"], FAILED_WITH_1)])
def test_the_help_comes_before_the_error_line(arguments, error):
    run = subprocess.run([PROGRAMS / "qvrepo", *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    assert run.stdout == HELP + error


def test_only_the_first_argument_is_looked_at(qvrepo):
    assert qvrepo("-x", "-list") == (HELP, INVALID, 20)


def test_an_unknown_option_writes_no_log_though_the_directory_is_there(qvrepo, log_records):
    qvrepo("-x")
    assert log_records() == []


@pytest.mark.parametrize("option", ["-validate", "-v"])
def test_validate_is_not_yet_implemented(qvrepo, option):
    assert qvrepo(option) == ("qvrepo -validate is not yet implemented.\n", "", 0)


@pytest.mark.parametrize("option", ["-validate", "-v"])
def test_validate_with_arguments_prints_an_address_the_help_and_status_1(qvrepo, option):
    outcome = qvrepo(option, "x")
    assert re.fullmatch(r"0x[0-9a-f]+\n", outcome.stdout.removesuffix(HELP))
    assert outcome.stdout.endswith(HELP)
    assert (outcome.stderr, outcome.status) == (FAILED_WITH_1, 1)


@pytest.mark.parametrize("option", ["-getPkg", "-g"])
def test_get_package_is_not_yet_implemented(qvrepo, option):
    assert qvrepo(option, "42", "-dest", "/tmp") == (
        "qvrepo -getPkg 42 -dest /tmp is not yet implemented.\n", "", 0)


@pytest.mark.parametrize("arguments", [[], ["42"], ["42", "-dest"], ["42", "-to", "/tmp"], ["42", "-dest", "/tmp", "x"]])
def test_get_package_with_other_arguments_prints_the_help_and_status_1(qvrepo, arguments):
    assert qvrepo("-getPkg", *arguments) == (HELP, FAILED_WITH_1, 1)


@pytest.mark.parametrize("arguments", [
    ["-list", "-os"], ["-l", "x"], ["-list", "-os", "linux", "-type", "qv"], ["-list", "-name", "x"],
    ["-pkgDetails"], ["-p", "1", "2"], ["-add"], ["-a", "x", "y"], ["-delete"], ["-d", "1", "2"]])
def test_wrong_arguments_of_a_command_print_the_help_before_any_check(qvrepo, log_records, tree, arguments):
    (tree / "quorvelle/master.json").unlink()
    assert qvrepo(*arguments) == (HELP, INVALID, 20)
    assert log_records() == []


@pytest.mark.parametrize("option, arguments", [
    ("-list", []), ("-l", []), ("-pkgDetails", ["1"]), ("-p", ["1"]), ("-delete", ["1"]), ("-d", ["1"]),
    ("-add", ["/x"]), ("-a", ["/x"])])
def test_every_option_reaches_its_command(qvrepo, tree, option, arguments):
    (tree / "quorvelle/master.json").unlink()
    assert qvrepo(option, *arguments) == ("", "Error: failed to read master config.\n", 110)


def test_a_shell_sees_the_low_eight_bits_of_a_status(qvrepo, tree):
    (tree / "var/global/repo").rmdir()
    assert qvrepo("-list").status == 7217 & 0xFF == 49


def test_closed_output_does_not_hide_the_status(tree):
    run = subprocess.run(["sh", "-c", f"{PROGRAMS}/qvrepo -x >&- 2>&-"], check=False)
    assert run.returncode == 20
