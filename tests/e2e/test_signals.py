"""Ctrl-C, a lost terminal, a stopped session, a reader that went away: an add is complete or takes
itself back, a deletion is completed."""

import json
import os
import pty
import signal
import subprocess
import time

import pytest
from packages import INNER, SINGLE, make_bundle, make_single
from scripted_service import ScriptedService, answer
from world import PACKAGES, PATIENCE, PROGRAMS, REPOSITORY

ADDING = "Adding package to the repository. This may take a few minutes...\n"
PROMPT = "qvrepo: delete package ID 1 [y/n]? (n) "
ENDINGS = [signal.SIGINT, signal.SIGTERM, signal.SIGHUP]
POST, TAKEN_BACK = f"POST {PACKAGES} HTTP/1.1", f"DELETE {PACKAGES}/12 HTTP/1.1"
REGISTERED = answer(201, json.dumps({"data": {"id": "12", "attributes": {
    "packageName": "x", "packageFileName": SINGLE, "packageItemFilePaths": [f"{REPOSITORY}/{SINGLE}"],
    "packageType": "qvclient", "os": "redhat_x64", "version": "8.3", "size": 1, "createdDateTimeUTC": "",
    "lastModifiedDateTimeUTC": "", "lastValidatedUTC": ""}}}))
GONE = answer(404, '{"errorCode": 227, "errorMessage": "gone"}')


def begin(*words, **how):
    return subprocess.Popen([PROGRAMS / "qvrepo", *words], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, **how)


def ending(process, stdin=""):
    with process:
        stdout, stderr = process.communicate(stdin, PATIENCE)
    return stdout, stderr, process.returncode


def wait_for(state, what):
    deadline = time.monotonic() + PATIENCE
    while not state():
        assert time.monotonic() < deadline, what
        time.sleep(0.01)


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
        wait_for(lambda: service.requests, "the registration did not come")
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
        wait_for(lambda: len(service.requests) == 2, "the registration was not taken back")
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


@pytest.fixture
def bundle(qvrepo, master, tmp_path):
    """Package 1, a bundle of two files, in the repository."""
    assert qvrepo("-add", make_bundle(tmp_path)).status == 0
    return master


@pytest.mark.parametrize("kind", ENDINGS)
def test_a_deletion_ended_at_its_question_changes_nothing(bundle, repository, kind):
    process = begin("-delete", "1")
    assert process.stdout.read(len(PROMPT)) == PROMPT
    process.send_signal(kind)
    assert ending(process) == ("", "", -kind)
    assert (len(bundle.packages()), repository()) == (1, sorted(INNER))
