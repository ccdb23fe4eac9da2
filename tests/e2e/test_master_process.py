"""qvmaster as a program: its words, its one line, and how it ends."""

import errno
import json
import os
import resource
import signal
import socket
import subprocess
import threading

import pytest
from world import (
    HOST,
    LONG_ITEMS,
    PACKAGES,
    PATIENCE,
    ROOT,
    TLS,
    await_that,
    chunked_body,
    creation_body,
    raw_request,
    read_answers,
    read_slowly_begun,
    read_to_end,
    run_qvmaster,
    send,
    slow_client,
)

WORDS = ["--db", str(ROOT / "db"), "--tls", str(TLS)]


def test_it_prints_one_line_when_it_accepts_connections(idle_master):
    assert idle_master.start() == "qvmaster: accepting connections on [::]:1556\n"
    assert idle_master.get().status == 200


def test_it_can_listen_on_one_address_and_another_port(idle_master):
    line = idle_master.start("--listen", "127.0.0.1", "--port", "0")
    assert line.startswith("qvmaster: accepting connections on 127.0.0.1:") and idle_master.port != 1556
    assert idle_master.get().status == 200
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("::1", idle_master.port))


@pytest.mark.parametrize("address", ["127.0.0.1", "::1"])
def test_it_is_reached_over_both_families_of_addresses(master, address):
    socket.create_connection((address, master.port)).close()


@pytest.mark.parametrize("word", ["--help", "-h"])
def test_help_tells_all_options(word):
    outcome = run_qvmaster(word)
    assert (outcome.stderr, outcome.status) == ("", 0)
    for name in ("--db", "--tls", "--listen", "--port", "--repo", "--access-log", "--timeout", "--version"):
        assert f"{name} " in outcome.stdout
    assert "--patience" not in outcome.stdout


def test_timeout_is_known_by_its_old_name(idle_master):
    idle_master.start("--patience", "1")
    with socket.create_connection((HOST, idle_master.port), timeout=PATIENCE) as silent:
        assert silent.recv(1) == b""


def test_version_is_one_line():
    outcome = run_qvmaster("--version")
    assert (outcome.stdout.split()[0], outcome.stdout.count("\n"), outcome.stderr, outcome.status) == (
        "qvmaster", 1, "", 0)  # fmt: skip


@pytest.mark.parametrize(
    "words",
    [
        [],
        WORDS[:2],
        WORDS[2:],
        [*WORDS, "--port"],
        [*WORDS, "--port", "x"],
        [*WORDS, "--port", "-1"],
        [*WORDS, "--port", "65536"],
        [*WORDS, "--timeout", "0"],
        [*WORDS, "--patience", "3601"],
        [*WORDS, "--colour", "red"],
        [*WORDS, "more"],
        [*WORDS, "--db"],
    ],
    ids=" ".join,
)
def test_usage_errors_are_refused_with_status_2(words):
    outcome = run_qvmaster(*words)
    assert (outcome.stdout, outcome.status) == ("", 2)
    assert outcome.stderr.startswith("qvmaster: ") and outcome.stderr.count("\n") == 1
    assert outcome.stderr.endswith(" (see qvmaster --help)\n")
    assert not (ROOT / "db").exists()


def test_a_taken_port_is_refused(master):
    outcome = run_qvmaster(*WORDS)
    assert outcome == ("", "qvmaster: cannot listen on :: port 1556: Address already in use\n", 1)
    assert master.get().status == 200


@pytest.mark.parametrize("address", ["192.0.2.1", "nowhere.invalid"])
def test_an_address_of_another_machine_is_refused(address):
    outcome = run_qvmaster(*WORDS, "--listen", address, "--timeout", "1")
    assert (outcome.stdout, outcome.status) == ("", 1)
    assert outcome.stderr.startswith(f"qvmaster: cannot listen on {address}") and outcome.stderr.count("\n") == 1


def test_an_address_that_comes_a_little_later_is_waited_for(idle_master):
    waiting = threading.Thread(target=lambda: idle_master.start("--listen", "192.0.2.1", "--timeout", "3600"))
    waiting.start()
    # The database is there before the service begins to listen.
    await_that(idle_master.database.exists, "a database")
    subprocess.run(["ip", "address", "add", "192.0.2.1/32", "dev", "lo"], check=True)
    waiting.join(PATIENCE)
    socket.create_connection(("192.0.2.1", idle_master.port), timeout=PATIENCE).close()
    subprocess.run(["ip", "address", "delete", "192.0.2.1/32", "dev", "lo"], check=True)


def test_systemd_is_told_of_the_start_of_a_reload_and_of_the_end(idle_master, monkeypatch, tmp_path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as systemd:
        systemd.bind(str(tmp_path / "notify"))
        systemd.settimeout(PATIENCE)
        monkeypatch.setenv("NOTIFY_SOCKET", str(tmp_path / "notify"))
        idle_master.start()
        assert systemd.recv(100) == b"READY=1"
        idle_master.process.send_signal(signal.SIGHUP)
        assert [systemd.recv(100), systemd.recv(100)] == [b"RELOADING=1", b"READY=1"]
        assert idle_master.stop() == 0
        assert systemd.recv(100) == b"STOPPING=1"


def test_a_service_that_cannot_start_does_not_tell_systemd_that_it_is_ready(master, monkeypatch, tmp_path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as systemd:
        systemd.bind(str(tmp_path / "notify"))
        monkeypatch.setenv("NOTIFY_SOCKET", str(tmp_path / "notify"))
        assert run_qvmaster(*WORDS).status == 1
        with pytest.raises(BlockingIOError):
            systemd.recv(100, socket.MSG_DONTWAIT)


def test_lines_for_the_journal_begin_with_their_priority(idle_master, monkeypatch):
    idle_master.errors.touch()
    status = idle_master.errors.stat()
    monkeypatch.setenv("JOURNAL_STREAM", f"{status.st_dev}:{status.st_ino}")
    idle_master.access_log.symlink_to("/dev/full")
    idle_master.start()
    idle_master.get()
    with socket.create_connection((HOST, idle_master.port)) as connection:
        connection.sendall(b"GET / HTTP/1.1\r\n")
        failure, refusal = idle_master.await_problems(2)
    assert failure == "<3>qvmaster: cannot write the access log: No space left on device"
    assert refusal.startswith("<4>qvmaster: refused the TLS client ")
    idle_master.access_log.unlink()


def test_lines_for_a_file_have_no_priority_though_the_journal_is_elsewhere(monkeypatch):
    monkeypatch.setenv("JOURNAL_STREAM", "1:2")
    assert run_qvmaster(*WORDS, "--port", "x").stderr.startswith("qvmaster: ")


def test_sighup_opens_the_access_log_again(master):
    master.get()
    master.access_log.rename(ROOT / "rotated")
    master.get()
    assert len((ROOT / "rotated").read_text().splitlines()) == 2
    master.process.send_signal(signal.SIGHUP)
    await_that(master.access_log.exists, "a new access log")
    master.get()
    assert len(master.exchanges()) == 1
    assert master.access_log.stat().st_mode & 0o777 == 0o640


def test_after_sighup_without_a_new_access_log_the_old_one_goes_on(master):
    master.access_log.rename(ROOT / "rotated")
    master.access_log.mkdir()
    master.process.send_signal(signal.SIGHUP)
    assert master.await_problems() == [
        f"qvmaster: cannot open the access log {master.access_log}: Is a directory; going on in the file that was open"]
    master.get()
    assert len((ROOT / "rotated").read_text().splitlines()) == 1


ACCEPT_ERRORS = [
    "EAGAIN", "ECONNABORTED", "EHOSTUNREACH", "EINVAL", "EMFILE", "ENETDOWN", "ENFILE", "ENOBUFS", "ENOMEM", "ENOPROTOOPT",
    "EOPNOTSUPP", "EPERM", "EPROTO", "ETIMEDOUT",
]  # fmt: skip


@pytest.mark.parametrize("error", ACCEPT_ERRORS)
def test_no_error_of_accept_ends_the_service(master, error):
    inject = ["--trace=accept,accept4", f"--inject=accept,accept4:error={error}:when=1..3"]
    with subprocess.Popen(["strace", "--output=/dev/null", *inject, "--attach", str(master.process.pid)],
                          stderr=subprocess.PIPE, text=True) as strace:
        assert "attached" in strace.stderr.readline()
        assert master.get().status == 200
        strace.terminate()
    # EAGAIN is none: the client has left again.
    expected = set() if error == "EAGAIN" else {f"qvmaster: cannot accept a connection: {os.strerror(getattr(errno, error))}"}
    assert set(master.problems()) == expected


def test_an_access_log_that_cannot_be_opened_is_refused():
    outcome = run_qvmaster(*WORDS, "--access-log", str(ROOT / "missing/log"))
    assert outcome == (
        "", f"qvmaster: cannot open the access log {ROOT}/missing/log: No such file or directory\n", 1
    )  # fmt: skip


def test_a_full_access_log_is_reported_and_stops_nothing(idle_master):
    idle_master.access_log.symlink_to("/dev/full")
    idle_master.start()
    assert idle_master.get().status == 200
    assert idle_master.problems() == ["qvmaster: cannot write the access log: No space left on device"]
    idle_master.access_log.unlink()


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_a_stop_signal_ends_it_with_status_0(master, number):
    master.register("a.sja")
    master.process.send_signal(number)
    assert master.wait() == 0
    assert not (ROOT / "qvmaster.db-wal").exists()


def test_idle_clients_do_not_delay_the_end(idle_master):
    idle_master.start("--timeout", "3600")
    idle, silent = idle_master.connect(), socket.create_connection((HOST, idle_master.port))
    send(idle, "GET", PACKAGES)
    assert idle_master.stop() == 0
    idle.close()
    silent.close()


def test_it_may_open_as_many_files_as_the_system_allows_it(idle_master):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(100, hard - 1), hard))
    try:
        idle_master.start()
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    assert resource.prlimit(idle_master.process.pid, resource.RLIMIT_NOFILE) == (hard, hard)


def refuses_connections(master):
    try:
        socket.create_connection((HOST, master.port)).close()
    except (ConnectionRefusedError, ConnectionResetError):
        return True
    return False


def test_a_list_under_way_is_finished_before_the_end(master):
    master.register_many(1000, name="{}.sja", items=LONG_ITEMS)
    with slow_client(master) as client:
        client.sendall(raw_request("GET", PACKAGES))
        beginning = client.recv(1000)
        master.terminate()
        await_that(lambda: refuses_connections(master), "connections are refused")
        packages = json.loads(chunked_body(beginning + read_slowly_begun(client)))["data"]
    assert len(packages) == 1000
    assert master.wait() == 0


def test_a_creation_under_way_is_finished_before_the_end(master):
    request = raw_request("POST", PACKAGES, json.dumps(creation_body("a.sja")).encode())
    with master.open_tls() as client:
        client.sendall(raw_request("GET", PACKAGES) + request[:-20])
        read_answers(client, 1)
        master.terminate()
        await_that(lambda: refuses_connections(master), "connections are refused")
        client.sendall(request[-20:])
        (answer,) = read_answers(client, 1)
        assert read_to_end(client) == b""
    assert answer.status == 201
    assert master.wait() == 0
    assert [package["packageFileName"] for package in master.packages()] == ["a.sja"]


def test_half_open_clients_do_not_keep_others_waiting(idle_master):
    idle_master.start("--timeout", "3600")
    silent = [socket.create_connection((HOST, idle_master.port)) for _ in range(300)]
    stalled = [idle_master.open_tls() for _ in range(50)]
    for client in stalled:
        client.sendall(raw_request("POST", PACKAGES)[:-2] + b"Content-Length: 10\r\n\r\n{")
    assert idle_master.register("a.sja")["id"] == "1"
    assert idle_master.get().status == 200
    for client in silent + stalled:
        client.close()


def test_two_hundred_clients_at_once_are_all_served(master):
    clients = [master.open_tls() for _ in range(200)]
    for i, client in enumerate(clients):
        client.sendall(raw_request("POST", PACKAGES, json.dumps(creation_body(f"{i}.sja")).encode()))
    statuses = [read_answers(client, 1)[0].status for client in clients]
    for client in clients:
        client.close()
    assert statuses == [201] * 200
    assert [package["id"] for package in master.packages()] == list(range(1, 201))
