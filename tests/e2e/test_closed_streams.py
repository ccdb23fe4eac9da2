"""Programs whose caller has closed standard input, output or error: no file that they open takes the place of these."""

import signal
import socket
import sqlite3
import subprocess
import time

import pytest
from packages import INNER, SIGNING_KEY, SINGLE, archive, make_bundle, make_single, signed
from world import HOST, PATIENCE, PORT, PROGRAMS, REPOSITORY, TLS

CLOSINGS = ["<&-", ">&-", "2>&-", ">&- 2>&-", "<&- >&- 2>&-"]


def run(closing, program, *arguments, **how):
    """Runs a program with some of its streams closed: standard output, standard error, and status."""
    command = f'"$0" "$@" {closing}'
    done = subprocess.run(["sh", "-c", command, PROGRAMS / program, *arguments], capture_output=True, text=True,
                          timeout=PATIENCE, check=False, **how)
    return done.stdout, done.stderr, done.returncode


@pytest.mark.parametrize("closing", CLOSINGS)
def test_what_is_printed_does_not_reach_the_log(master, log_records, closing):
    for arguments in (["-list"], ["-pkgDetails", "1"], ["-pkgDetails", "x"], ["-add", "/missing"]):
        run(closing, "qvrepo", *arguments)
    assert {function for _, function, _ in log_records()} > {"initialize", "listPackagesCmd"}
    assert master.requests()[0][0] == "GET"


@pytest.mark.parametrize("closing", CLOSINGS)
def test_a_package_is_added_whole(master, log_records, tmp_path, closing):
    package = make_single(tmp_path)
    assert run(closing, "qvrepo", "-add", package)[2] == 0
    assert (REPOSITORY / SINGLE).read_bytes() == package.read_bytes()
    assert run(closing, "qvrepo", "-add", make_bundle(tmp_path))[2] == 0
    assert [(REPOSITORY / name).read_bytes() for name in INNER] == [b"inner client\n", b"inner server\n"]
    assert len(master.packages()) == 2
    log_records()


@pytest.mark.parametrize("closing", ["<&-", "<&- >&-", "<&- >&- 2>&-"])
def test_without_standard_input_nobody_has_agreed_to_a_deletion(master, repository, tmp_path, closing):
    assert run("", "qvrepo", "-add", make_single(tmp_path))[2] == 0
    declined = run("", "qvrepo", "-delete", "1", stdin=subprocess.DEVNULL)
    stdout, stderr, status = run(closing, "qvrepo", "-delete", "1")
    assert status == declined[2] != 0
    assert stdout == ("" if ">&-" in closing else declined[0])
    assert stderr == ("" if "2>&-" in closing else declined[1])
    assert repository() == [SINGLE]


@pytest.mark.parametrize("closing", CLOSINGS)
def test_sjapack_makes_the_same_archive(tmp_path, closing):
    (tmp_path / "a").write_bytes(b"text")
    (tmp_path / "a").chmod(0o644)
    status = run(closing, "sjapack", "create", "out.sja", "a", "--key", SIGNING_KEY, cwd=tmp_path)[2]
    # The status tells that the summary could not be printed.
    assert (status != 0) == (closing in (">&-", ">&- 2>&-", "<&- >&- 2>&-"))
    assert (tmp_path / "out.sja").read_bytes() == signed(archive(("a", b"text")))


def connect_when_listening(process):
    deadline = time.monotonic() + PATIENCE
    while True:
        assert process.poll() is None and time.monotonic() < deadline, "the service does not listen"
        try:
            return socket.create_connection((HOST, PORT))
        except ConnectionRefusedError:
            time.sleep(0.01)


@pytest.mark.parametrize("closing", CLOSINGS)
def test_the_services_line_does_not_reach_its_database_or_its_access_log(idle_master, closing):
    master = idle_master
    command = f'exec "$0" "$@" {closing}'
    arguments = ["--db", master.database, "--tls", TLS, "--access-log", master.access_log]
    with subprocess.Popen(["sh", "-c", command, PROGRAMS / "qvmaster", *arguments], stdout=subprocess.DEVNULL) as service:
        connect_when_listening(service).close()
        assert master.register("a.sja")["id"] == "1"
        service.send_signal(signal.SIGTERM)
        assert service.wait(PATIENCE) == 0
    assert master.requests() == [("POST", "/quorvelle/deployment/packages")]
    database = sqlite3.connect(master.database)
    assert database.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
    database.close()
