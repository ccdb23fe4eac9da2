"""The program with other seam units linked in their place: callers follow whatever T answers."""

import subprocess

import pytest
from test_startup import NOT_ADMINISTRATOR
from world import PROGRAMS, ROOT

COMMANDS = [["-list"], ["-pkgDetails", "1"], ["-delete", "1"]]
NO_REPOSITORY = ("", "Error: Package repository location does not exist.\n", 7217 & 0xFF)


def run(program, *arguments):
    done = subprocess.run([PROGRAMS / "swapped" / program, *arguments], capture_output=True, text=True, check=False)
    return done.stdout, done.stderr, done.returncode


@pytest.mark.parametrize("arguments", COMMANDS)
def test_where_no_path_exists_a_command_finds_no_repository_though_it_is_there(arguments):
    assert (ROOT / "var/global/repo").is_dir()
    assert run("qvrepo_without_repository", *arguments) == NO_REPOSITORY


def test_where_no_path_exists_the_file_to_add_is_missing(tmp_path):
    (tmp_path / "a.sja").write_bytes(b"JANK")
    assert run("qvrepo_without_repository", "-add", tmp_path / "a.sja") == (
        "", "Error: A required file or directory was not found. Input file path does not exist.\n", 7225 & 0xFF)


@pytest.mark.parametrize("arguments", [*COMMANDS, ["-add", "/tmp/a.sja"]])
def test_where_nobody_is_administrator_no_command_runs(arguments):
    assert run("qvrepo_without_administrator", *arguments) == NOT_ADMINISTRATOR


@pytest.mark.parametrize("arguments", [["-list", "x"], ["-pkgDetails"], ["-delete"], ["-add"]])
def test_where_nobody_is_administrator_wrong_arguments_are_still_reported_first(arguments):
    stdout, stderr, status = run("qvrepo_without_administrator", *arguments)
    assert stdout.startswith("\nUsage: ") and (stderr, status) == ("Error: invalid command parameter\n", 20)
