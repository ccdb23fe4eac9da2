"""The checks that every repository command makes first, seen from outside."""

import json
import os
import subprocess
import re

import pytest
from world import PACKAGES, PROGRAMS

NOT_ADMINISTRATOR = ("", "Error: must be administrator.\n", 132)
NO_CONFIGURATION = ("", "Error: failed to read master config.\n", 110)
NO_MASTER = ("", "Error: no master server found.\n", 111)
OTHER_MACHINE = ("", "Error: the operation is only supported on master server.\n", 153)
COMMANDS = [["-list"], ["-pkgDetails", "1"], ["-delete", "1"], ["-add", "/tmp/x.sja"]]


def configure(tree, text):
    (tree / "quorvelle/master.json").write_text(text)


@pytest.mark.parametrize("arguments", COMMANDS)
def test_only_an_administrator_may_run_a_command(tree, log_records, arguments):
    # In a user namespace of its own no user is root.
    run = subprocess.run(["unshare", "--user", PROGRAMS / "qvrepo", *arguments], capture_output=True, text=True, check=False)
    assert (run.stdout, run.stderr, run.returncode) == NOT_ADMINISTRATOR
    assert log_records() == []


@pytest.mark.parametrize("arguments", COMMANDS)
def test_without_a_configuration_no_command_runs(qvrepo, tree, log_records, arguments):
    (tree / "quorvelle/master.json").unlink()
    assert qvrepo(*arguments) == NO_CONFIGURATION
    assert log_records() == [(4, "main", "qvrepo exit status: [110]")]


@pytest.mark.parametrize("text", [
    "", "{", "[]", '"master.example.com"', '{"servers": "master.example.com"}', '{"servers": {"0": "x"}}',
    '{"servers": [7]}', '{"servers": ["master.example.com", null]}', '{"servers": ["master.example.com"]} x',
    '{"servers": ["master.example.com\\u0000"]}', '{"servers": ["\xff"]}',
    pytest.param('{"servers": ["master.example.com"], "fill": "' + "x" * (1 << 20) + '"}', id="over 1 MiB")])
def test_a_malformed_configuration_is_not_read(qvrepo, tree, text):
    (tree / "quorvelle/master.json").write_bytes(text.encode("latin-1"))
    assert qvrepo("-list") == NO_CONFIGURATION


def test_a_configuration_that_is_a_directory_is_not_read(qvrepo, tree):
    (tree / "quorvelle/master.json").unlink()
    (tree / "quorvelle/master.json").mkdir()
    assert qvrepo("-list") == NO_CONFIGURATION


@pytest.mark.parametrize("text", ["{}", '{"servers": []}', '{"servers": [""]}', '{"servers": ["", "master.example.com"]}'])
def test_a_configuration_without_a_master_server_ends_with_111(qvrepo, tree, log_records, text):
    configure(tree, text)
    assert qvrepo("-list") == NO_MASTER
    assert log_records() == [(4, "main", "qvrepo exit status: [111]")]


@pytest.mark.parametrize("name", ["other.example.com", "xmaster.example.com", "192.0.2.1", "-", "a b"])
def test_on_another_machine_no_command_runs(qvrepo, tree, log_records, name):
    configure(tree, json.dumps({"servers": [name]}))
    assert qvrepo("-list") == OTHER_MACHINE
    assert log_records() == [
        (16, "main", "the operation is only supported on master server."),
        (4, "main", "qvrepo exit status: [153]")]


@pytest.mark.parametrize("name", ["master.example.com", "MASTER.Example.COM", "localhost", "127.0.0.1", "::1"])
def test_the_master_server_is_recognized_by_name_alias_and_address(qvrepo, tree, master, name):
    configure(tree, json.dumps({"servers": [name, "other.example.com"], "further": 1}))
    assert qvrepo("-list") == ("0 deployment packages in the repository.\n", "", 0)
    assert master.requests() == [("GET", PACKAGES)]


def test_a_missing_repository_directory_is_found_before_any_request(qvrepo, tree, master, log_records):
    (tree / "var/global/repo").rmdir()
    for arguments, function in [(["-list"], "listPackagesCmd"), (["-pkgDetails", "abc"], "getPackageDetailsCmd"),
                            (["-delete", "abc"], "deletePackageCmd")]:
        assert qvrepo(*arguments) == ("", "Error: Package repository location does not exist.\n", 7217 & 0xFF)
        assert log_records()[-3:] == [
            (16, function, "Package repository location does not exist: [/usr/ormex/var/global/repo]."),
            (16, "main", "Package repository location does not exist."),
            (4, "main", "qvrepo exit status: [7217]")]
    assert master.requests() == []
    # The space cannot be queried then, and no record says so.
    assert not any("volume hosting" in text for _, _, text in log_records())


def test_start_up_logs_the_free_space_and_the_master_server(qvrepo, master, log_records):
    qvrepo("-list")
    space, initialized = log_records()[:2]
    assert re.fullmatch(
        r"The volume hosting \[/usr/ormex/var/global/repo\] has \[\d+\] MB space available, \[\d+\.\d{6}\] percent of "
        r"the disk\.", space[2])
    assert space[:2] == (4, "initialize")
    assert initialized == (4, "initialize", "Initialized qvrepo on master server master.example.com.")


@pytest.fixture
def small_volume(tree):
    """Mounts a tmpfs of a number of pages over the repository, with some of them used."""
    repository = tree / "var/global/repo"
    mounted = []

    def mount(pages, used):
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={pages * 4096}", "small", repository], check=True)
        mounted.append(repository)
        (repository / "filler").write_bytes(b"x" * (used * 4096))

    yield mount
    for place in mounted:
        subprocess.run(["umount", place], check=True)


def test_exactly_one_percent_free_is_enough(qvrepo, master, small_volume):
    small_volume(1000, 990)
    assert qvrepo("-list") == ("0 deployment packages in the repository.\n", "", 0)


def test_less_than_one_percent_free_refuses_to_run(qvrepo, master, small_volume, log_records):
    small_volume(1000, 991)
    assert qvrepo("-list") == ("", "Error: qvrepo operation failed with status [7263].\n", 7263 & 0xFF)
    assert log_records() == [
        (4, "initialize", "The volume hosting [/usr/ormex/var/global/repo] has [0] MB space available, [0.900000] "
                          "percent of the disk."),
        (16, "initialize", "A minimum of one percent of the disk must be free to manage the repo."),
        (16, "main", "status code 7263"),
        (4, "main", "qvrepo exit status: [7263]")]
    assert master.requests() == []


def test_without_the_log_directory_nothing_is_logged_and_all_else_is_the_same(qvrepo, master, tree):
    master.register("a.sja")
    with_log = qvrepo("-list")
    for file in (tree / "quorvelle/logs/qvrepo").iterdir():
        file.unlink()
    (tree / "quorvelle/logs/qvrepo").rmdir()
    assert qvrepo("-list") == with_log
    assert list((tree / "quorvelle/logs").iterdir()) == []


def test_the_log_is_created_readable_by_all_and_writable_by_root_alone(qvrepo, master, tree):
    os.umask(0)
    qvrepo("-list")
    (log,) = (tree / "quorvelle/logs/qvrepo").iterdir()
    assert re.fullmatch(r"qvrepo\.\d{4}-\d\d-\d\d\.log", log.name)
    assert log.stat().st_mode & 0o7777 == 0o644
