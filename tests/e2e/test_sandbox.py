"""scripts/sandbox: a private master server, from the command line."""

import shutil
import subprocess

import pytest
from world import SOURCES

SANDBOX = SOURCES / "scripts/sandbox"
QVREPO = '"$QV_BIN"/qvrepo'
EMPTY = "0 deployment packages in the repository.\n"


def sandbox(*arguments, **how):
    done = subprocess.run([SANDBOX, *arguments], capture_output=True, text=True, check=False, **how)
    return done.stdout, done.stderr, done.returncode


@pytest.fixture
def kept(template_tree, tmp_path):
    """kept(*arguments) runs a command in a sandbox on a kept tree, whose keys are made already: making them takes long."""
    shutil.copytree(template_tree, tmp_path / "root")

    def run(*arguments, **how):
        return sandbox("--keep", tmp_path / "root", *arguments, **how)

    run.root = tmp_path / "root"
    return run


def test_a_sandbox_has_all_that_a_master_server_needs_and_leaves_nothing():
    listing = (
        "id -u && cd /usr/ormex && ls quorvelle quorvelle/tls var/global/dunmarel publisher && "
        "stat -c %a publisher/signing.key quorvelle/tls/*.key && ls -d quorvelle/logs/qvrepo && "
        f"{QVREPO} -list && echo x >note")
    stdout, stderr, status = sandbox("sh", "-c", listing)
    assert (stderr, status) == ("", 0)
    assert stdout.startswith("0\n") and stdout.endswith("600\n600\n600\n600\nquorvelle/logs/qvrepo\n" + EMPTY)
    for name in ["master.json", "ca.pem", "master.pem", "host.pem", "host.key", "pubkey.pem", "signing.key"]:
        assert name in stdout.split()
    assert sandbox("--bare", "test", "-e", "/usr/ormex/note")[2] == 1


def test_a_kept_sandbox_has_a_running_service(kept):
    assert kept("sh", "-c", f"{QVREPO} -list") == (EMPTY, "", 0)


def test_the_commands_status_and_output_come_through(kept):
    assert kept("sh", "-c", "echo out; echo err >&2; exit 49") == ("out\n", "err\n", 49)


def test_standard_input_reaches_the_command(kept):
    assert kept("cat", input="typed") == ("typed", "", 0)


def test_a_kept_tree_is_found_again_as_it_was(kept):
    before = (kept.root / "publisher/signing.key").read_bytes()
    assert kept("sh", "-c", "echo kept >/usr/ormex/note") == ("", "", 0)
    assert kept("cat", "/usr/ormex/note") == ("kept\n", "", 0)
    assert (kept.root / "publisher/signing.key").read_bytes() == before


def test_a_kept_tree_is_made_where_there_is_none(tmp_path):
    assert sandbox("--keep", tmp_path / "new/root", "--bare", "true")[2] == 0
    assert (tmp_path / "new/root").is_dir()


def test_sandboxes_run_side_by_side(template_tree, tmp_path):
    runs = []
    for name in ("one", "two", "three"):
        shutil.copytree(template_tree, tmp_path / name)
        command = [SANDBOX, "--keep", tmp_path / name, "sh", "-c", f"{QVREPO} -list"]
        runs.append(subprocess.Popen(command, stdout=subprocess.PIPE, text=True))
    assert {run.communicate()[0] for run in runs} == {EMPTY}


def test_the_service_is_stopped_in_good_order_with_the_sandbox(kept):
    kept("sh", "-c", f"{QVREPO} -list")
    assert not (kept.root / "qvmaster.db-wal").exists(), "a service that was killed leaves this"


@pytest.mark.parametrize("arguments", [[], ["--bogus", "true"], ["--keep"]])
def test_wrong_arguments_print_the_usage(arguments):
    stdout, stderr, status = sandbox(*arguments)
    assert (stdout, status) == ("", 2)
    assert "Usage: scripts/sandbox" in stderr


def test_a_bare_sandbox_is_empty():
    assert sandbox("--bare", "ls", "-A", "/usr/ormex") == ("", "", 0)
