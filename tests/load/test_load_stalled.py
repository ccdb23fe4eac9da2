"""Clients that stall, that are not entitled, or that send too much: others are served all the same."""

import asyncio
import json
import resource
import socket
import ssl
import subprocess
import threading
import time

from clients import Client
from scale import milliseconds, now, report, scaled, seed
from record import Record
from visitor import Visitor
from world import (
    HOST,
    LONG_ITEMS,
    PACKAGES,
    PATIENCE,
    PROGRAMS,
    await_that,
    chunked_body,
    client_context,
    creation_body,
    raw_request,
    read_answers,
    read_slowly_begun,
    read_to_end,
    run_qvrepo,
    slow_client,
)

import pytest

EACH = scaled(20, 60)
VISITORS = scaled(10, 50)
MIB = 1024 * 1024
# Connections that are served at once.
MOST = 1024
# Far more than those, and than the system keeps in its queue.
SILENT = 6000


def connect(master):
    return socket.create_connection((HOST, master.port), timeout=PATIENCE)


def half_a_greeting(master):
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    with pytest.raises(ssl.SSLWantReadError):
        client_context().wrap_bio(incoming, outgoing, server_hostname=HOST).do_handshake()
    greeting = outgoing.read()
    connection = connect(master)
    connection.sendall(greeting[: len(greeting) // 2])
    return connection


def half_a_head(master):
    connection = master.open_tls()
    connection.sendall(raw_request("GET", PACKAGES)[:30])
    return connection


def half_a_body(master):
    request = raw_request("POST", PACKAGES, json.dumps(creation_body("half.sja")).encode())
    connection = master.open_tls()
    connection.sendall(request[:-20])
    return connection


def nothing_read(master):
    connection = slow_client(master)
    connection.sendall(raw_request("GET", PACKAGES))
    return connection


STALLED = [connect, half_a_greeting, half_a_head, half_a_body, nothing_read]


def visit(master, actions, first=0):
    """Lets visitors act at once, all to be answered; the times that the answers took. Visitors are numbered from
    `first` on. Whole lists are not judged, since others have packages there, too."""
    chosen, record = seed(), Record()

    async def act(visitor):
        for _ in range(actions):
            await visitor.act()
        visitor.client.close()

    async def all_of_them():
        visitors = [Visitor(Client(master.port), first + i, chosen, record) for i in range(VISITORS)]
        await asyncio.wait_for(asyncio.gather(*(act(visitor) for visitor in visitors)), PATIENCE)

    asyncio.run(all_of_them())
    record.check_ids()
    return record.latencies


@pytest.fixture
def stalled(idle_master):
    """Connections of clients that stall, which leave before the service is stopped: it would wait for them."""
    connections = []
    yield connections
    for connection in connections:
        connection.close()


def test_clients_that_stall_in_every_way_keep_nobody_waiting(idle_master, stalled):
    master = idle_master
    master.start("--timeout", "3600")
    master.register_many(1000, name="{}.sja", items=LONG_ITEMS)
    before = visit(master, 20)
    stalled += [begin(master) for begin in STALLED for _ in range(EACH)]
    during = visit(master, 20, first=VISITORS)
    assert master.sockets() >= len(stalled)
    report("stalled clients", stalled=len(stalled), others=VISITORS, requests=len(during),
           latency_ms_without_stalled=milliseconds(before), with_stalled=milliseconds(during))


def received_until_dropped(connection):
    """All that the service sends before it closes; a reset is no answer either."""
    try:
        return read_to_end(connection)
    except ConnectionResetError:
        return b""


def test_clients_that_stall_are_dropped_and_their_sockets_closed(idle_master, stalled):
    master = idle_master
    master.start("--timeout", "1")
    alone = master.sockets()
    master.register_many(1000, name="{}.sja", items=LONG_ITEMS)
    silent = [begin(master) for begin in STALLED if begin is not nothing_read for _ in range(2)]
    not_reading = [nothing_read(master) for _ in range(2)]
    stalled += silent + not_reading
    for connection in silent:
        assert not received_until_dropped(connection).startswith(b"HTTP/1.1 2")
    await_that(lambda: master.sockets() == alone, "the dropped connections are closed")
    for connection in not_reading:
        assert chunked_body(read_slowly_begun(connection)) is None
    assert len(master.packages()) == 1000


@pytest.fixture
def many_descriptors():
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 2 * SILENT), hard))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def test_a_client_beyond_the_most_that_are_served_at_once_waits_until_one_leaves(
        idle_master, stalled, many_descriptors):
    idle_master.start("--timeout", "3600")
    alone = idle_master.sockets()
    context = client_context()
    stalled += [idle_master.open_tls(context) for _ in range(MOST)]
    # The service takes none from the system's queue beyond those.
    with connect(idle_master):
        time.sleep(0.3)
        assert idle_master.sockets() == alone + MOST
    assert status_of_one_that_waits_for(idle_master, stalled[:1]) == 200


def test_thousands_of_silent_connections_keep_nobody_waiting(idle_master, stalled, many_descriptors):
    idle_master.start("--timeout", "3600")
    stalled += [connect(idle_master) for _ in range(SILENT)]
    began = now()
    latencies = visit(idle_master, 10)
    assert run_qvrepo("-list").status == 0
    report("silent connections", silent=SILENT, others=VISITORS, requests=len(latencies),
           seconds=f"{now() - began:.1f}", latency_ms=milliseconds(latencies))


@pytest.mark.skipif(b"__ubsan_" in (PROGRAMS / "qvmaster").read_bytes(),
                    reason="the sanitizers' own check of an object opens a pipe, and takes a failure for a bad object")
def test_a_service_that_ran_out_of_descriptors_serves_on_when_clients_leave(idle_master, stalled):
    idle_master.start("--timeout", "3600")
    subprocess.run(["prlimit", "--pid", str(idle_master.process.pid), "--nofile=40:40"], check=True)
    stalled += [connect(idle_master) for _ in range(60)]
    await_that(lambda: idle_master.sockets() > 20, "connections are held")
    assert status_of_one_that_waits_for(idle_master, stalled) == 200
    assert set(idle_master.problems()) == {"qvmaster: cannot accept a connection: Too many open files"}


def status_of_one_that_waits_for(master, leaving):
    """The status that a client is answered which comes before the clients `leaving` go."""
    plain = connect(master)
    answers = []

    def ask():
        with client_context().wrap_socket(plain, server_hostname=HOST) as connection:
            connection.sendall(raw_request("GET", PACKAGES))
            answers.extend(read_answers(connection, 1))

    thread = threading.Thread(target=ask)
    thread.start()
    for connection in leaving:
        connection.close()
    thread.join(PATIENCE)
    (answer,) = answers
    return answer.status


def test_among_many_clients_none_without_a_certificate_is_answered(master):
    received, kinds = [], []

    def intrude():
        context = client_context(certificate=None)
        try:
            with master.open_tls(context) as connection:
                connection.sendall(raw_request("DELETE", f"{PACKAGES}/1"))
                received.append(read_to_end(connection))
        except (ssl.SSLError, ConnectionError) as refused:
            kinds.append(type(refused).__name__)

    intruders = [threading.Thread(target=intrude) for _ in range(EACH)]
    for thread in intruders:
        thread.start()
    latencies = visit(master, 10)
    for thread in intruders:
        thread.join(PATIENCE)
    assert len(received) + len(kinds) == EACH
    assert [answer for answer in received if answer] == []
    assert len(master.exchanges()) == len(latencies)
    assert all("peer did not return a certificate" in problem for problem in master.problems())
    report("intruders without a certificate", intruders=EACH, answered=0, others_requests=len(latencies))


def oversized(declared):
    """A creation of 17 MiB, its length told (and then only begun) or in chunks."""
    head = raw_request("POST", PACKAGES)[:-2]
    if declared:
        return head + b"Content-Length: %d\r\n\r\nthe beginning" % (17 * MIB)
    chunk = b"%x\r\n%s\r\n" % (MIB, b" " * MIB)
    return head + b"Transfer-Encoding: chunked\r\n\r\n" + chunk * 17 + b"0\r\n\r\n"


def peak_memory(master):
    """The most that the service ever had in memory, in MiB."""
    with open(f"/proc/{master.process.pid}/status") as status:
        (line,) = [line for line in status if line.startswith("VmHWM:")]
    return int(line.split()[1]) // 1024


def test_bodies_beyond_the_limit_are_refused_from_many_clients_at_once(master):
    errors = []

    def send(declared):
        with master.open_tls() as connection:
            connection.sendall(oversized(declared))
            answer = read_answers(connection, 1)[0]
            errors.append(answer.error)

    count = scaled(4, 40)
    senders = [threading.Thread(target=send, args=(declared,)) for declared in [True, False] for _ in range(count)]
    for thread in senders:
        thread.start()
    latencies = visit(master, 10)
    for thread in senders:
        thread.join(PATIENCE)
    assert errors == [(413, 20)] * (2 * count)
    report("bodies beyond the limit", senders=len(senders), refused=len(errors), others_requests=len(latencies),
           others_latency_ms=milliseconds(latencies), peak_memory_mib=peak_memory(master))
