"""Ctrl-C, a lost terminal, a stopped session, a reader that went away, a limit on file sizes: an add is complete or takes
itself back, a deletion is completed."""

import os
import pty
import resource
import signal
import subprocess
import time

import pytest
from hostile_answers import GOOD_PACKAGE
from packages import INNER, SIGNING_KEY, SINGLE, make_single
from scripted_service import ScriptedService, answer
from test_add import ADDING
from test_delete import PROMPT, bundle  # noqa: F401 (a fixture)
from world import PACKAGES, PATIENCE, PROGRAMS, ROOT, await_that

ENDINGS = [signal.SIGINT, signal.SIGTERM, signal.SIGHUP]
POST, TAKEN_BACK = f"POST {PACKAGES} HTTP/1.1", f"DELETE {PACKAGES}/7 HTTP/1.1"
REGISTERED = answer(201, GOOD_PACKAGE)
GONE = answer(404, '{"errorCode": 227, "errorMessage": "gone"}')

# Bytes, fewer than the packages of these tests have.
LITTLE = 100_000


def begin(*arguments, **how):
    return subprocess.Popen([PROGRAMS / "qvrepo", *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, **how)


def ending(process, stdin=""):
    with process:
        stdout, stderr = process.communicate(stdin, PATIENCE)
    return stdout, stderr, process.returncode


def requests_of(service):
    return [line for line, _, _ in service.requests]


@pytest.mark.parametrize("kind", ENDINGS)
def test_an_add_ended_during_its_registration_takes_it_back(tree, repository, tmp_path, kind):
    def interrupted(connection):
        process.send_signal(kind)
        time.sleep(0.1)  # the program waits for this answer, and goes on waiting
        connection.sendall(REGISTERED)

    with ScriptedService(interrupted, GONE) as service:
        process = begin("-add", make_single(tmp_path))
        assert ending(process) == (ADDING, "", -kind)
        assert requests_of(service) == [POST, TAKEN_BACK]
    assert repository() == []


def test_a_second_signal_ends_an_add_whose_service_does_not_answer(tree, tmp_path):
    with ScriptedService(lambda connection: connection.recv(1)) as service:
        process = begin("-add", make_single(tmp_path))
        await_that(lambda: service.requests, "the registration")
        process.send_signal(signal.SIGINT)
        with pytest.raises(subprocess.TimeoutExpired):
            process.wait(0.5)
        process.send_signal(signal.SIGINT)
        assert ending(process) == (ADDING, "", -signal.SIGINT)


def test_an_add_under_nohup_outlives_its_terminal(tree, repository, tmp_path):
    def interrupted(connection):
        process.send_signal(signal.SIGHUP)
        connection.sendall(REGISTERED)

    with ScriptedService(interrupted) as service:
        process = begin("-add", make_single(tmp_path),
                        preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))
        assert ending(process)[1:] == ("", 0)
        assert requests_of(service) == [POST]
    assert repository() == [SINGLE]


def test_an_add_whose_terminal_is_lost_takes_its_registration_back(tree, repository, tmp_path):
    # The kernel and the shell signal it, one after the other.
    def lose_the_terminal(connection):
        os.close(terminal)
        time.sleep(0.5)
        connection.sendall(REGISTERED)

    package = make_single(tmp_path)
    with ScriptedService(lose_the_terminal, GONE) as service:
        shell, terminal = pty.fork()
        if shell == 0:
            os.execlp("bash", "bash", "--norc", "-i")
        os.write(terminal, f"'{PROGRAMS}/qvrepo' -add '{package}'\n".encode())
        await_that(lambda: len(service.requests) == 2, "the registration is taken back")
        os.waitpid(shell, 0)
        assert requests_of(service) == [POST, TAKEN_BACK]
    assert repository() == []


def test_an_add_whose_output_nobody_reads_any_more_is_completed(tree, repository, tmp_path):
    def stop_reading(connection):
        process.stdout.close()
        connection.sendall(REGISTERED)

    with ScriptedService(stop_reading):
        process = begin("-add", make_single(tmp_path))
        assert process.wait(PATIENCE) == 0
    assert repository() == [SINGLE]


@pytest.mark.parametrize("kind", ENDINGS)
def test_a_deletion_ended_at_its_question_changes_nothing(bundle, repository, kind):
    process = begin("-delete", "1")
    assert process.stdout.read(len(PROMPT)) == PROMPT
    process.send_signal(kind)
    assert ending(process) == ("", "", -kind)
    assert (len(bundle.packages()), repository()) == (1, sorted(INNER))


# A limit on the size of files


def limited():
    resource.setrlimit(resource.RLIMIT_FSIZE, (LITTLE, LITTLE))


def test_an_add_that_a_size_limit_stops_takes_its_registration_back(master, repository, tmp_path):
    stdout, stderr, status = ending(begin("-add", make_single(tmp_path, data=b"x" * 2 * LITTLE), preexec_fn=limited))
    assert (stdout, stderr, status) == (
        ADDING, "Error: Failed to copy the specified file. Could not copy package to repository.\n", 7214 & 0xFF)
    assert (master.packages(), repository()) == ([], [])


def test_a_log_that_has_reached_a_size_limit_ends_nothing(qvrepo, master):
    qvrepo("-list")
    (log,) = (ROOT / "quorvelle/logs/qvrepo").iterdir()
    os.truncate(log, LITTLE)
    assert ending(begin("-list", preexec_fn=limited)) == ("0 deployment packages in the repository.\n", "", 0)


def test_sjapack_tells_of_a_size_limit_and_leaves_no_archive(tmp_path):
    (tmp_path / "payload").write_bytes(b"x" * 2 * LITTLE)
    created = subprocess.run([PROGRAMS / "sjapack", "create", "out.sja", "payload", "--key", SIGNING_KEY], cwd=tmp_path,
                             capture_output=True, text=True, preexec_fn=limited, check=False)
    assert (created.stdout, created.stderr, created.returncode) == (
        "", "sjapack: cannot write out.sja: File too large\n", 1)
    assert not (tmp_path / "out.sja").exists()


def test_the_service_outlives_a_size_limit(master):
    resource.prlimit(master.process.pid, resource.RLIMIT_FSIZE, (0, 0))
    assert master.get().status == 200
    master.problems()
