"""Tests that take too long for every run: a service that falls silent, and answers of 512 MiB. run-hostile-long runs this
and shows the figures that it measures."""

import resource
import socket
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import pytest
from hostile_answers import GOOD_LIST, package, text_of
from hostile_ways import DETAILS, LIST, LITTLE_MEMORY, error_line
from scripted_service import ScriptedService
from test_hostile_memory import BOMBS, LONG_ONES, MB, long_answer, no_log  # noqa: F401 (a fixture)
from world import INSTRUMENTED, PORT, run_measured

TIMED_OUT = 28
CONNECT_SECONDS, STANDSTILL_SECONDS = 30, 300
LATENESS = 15  # seconds, on a busy machine
MAX_SECONDS = 400


def processor_seconds():
    """Of all programs that have ended so far."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def run_timed(what, *arguments):
    began, processor = time.monotonic(), processor_seconds()
    outcome, peak = run_measured(*arguments, timeout=MAX_SECONDS)
    seconds, processor = time.monotonic() - began, processor_seconds() - processor
    figures = f"{seconds:6.1f} s, processor {processor:5.1f} s, {peak:7.1f} MB"
    print(f"\n  {what:50} status {outcome.status:3} {figures}", end="")
    return outcome, seconds, peak


def check_times_out(what, arguments, timeout):
    outcome, seconds, peak = run_timed(what, *arguments)
    assert outcome == ("", error_line(TIMED_OUT), TIMED_OUT)
    assert timeout <= seconds < timeout + LATENESS
    assert INSTRUMENTED or peak < LITTLE_MEMORY


# A service that falls silent


def test_a_service_that_does_not_answer_the_greeting_times_out_after_30_seconds():
    with socket.create_server(("127.0.0.1", PORT)):
        check_times_out("silent before TLS", ["-list"], CONNECT_SECONDS)


def test_a_service_that_accepts_no_connection_times_out_after_30_seconds():
    with socket.create_server(("127.0.0.1", PORT), backlog=0):
        waiting = [socket.socket() for _ in range(4)]
        for one in waiting:
            one.setblocking(False)
            one.connect_ex(("127.0.0.1", PORT))
        check_times_out("silent before the connection", ["-list"], CONNECT_SECONDS)
        for one in waiting:
            one.close()


class SilentService(ScriptedService):
    """Serves many clients at once and, for each, falls silent where the ID that it asks for says."""

    BEGINNINGS = {
        "1": b"", "2": b"HTTP/1.1 200 OK\r\nContent-Type: app", "3": b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n",
        "4": b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n" + b"x" * 50,
        "5": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nabcde\r\n"}

    def __init__(self):
        super().__init__(b"")
        self.over = threading.Event()

    def _serve(self):
        while True:
            try:
                plain, _ = self._listener.accept()
            except OSError:
                return
            threading.Thread(target=self._fall_silent, args=[plain], daemon=True).start()

    def _fall_silent(self, plain):
        with self._context.wrap_socket(plain, server_side=True) as connection:
            head, _ = self._read_request(connection)
            connection.sendall(self.BEGINNINGS[head.split()[1].decode().rsplit("/", 1)[1]])
            self.over.wait()


def test_a_service_that_falls_silent_in_its_answer_times_out_after_300_seconds():
    places = {"1": "silent before the head", "2": "silent in the head", "3": "silent after the head",
              "4": "silent in the body", "5": "silent between chunks"}
    with SilentService() as service, ThreadPoolExecutor(len(places)) as pool:
        runs = [pool.submit(check_times_out, place, ["-pkgDetails", number], STANDSTILL_SECONDS)
                for number, place in places.items()]
        for run in runs:
            run.result()
        service.over.set()


# Answers of 512 MiB

SIZE = 512 * MB


def longest(start, block, end=b""):
    count = (SIZE - len(start) - len(end)) // len(block)
    return long_answer(start, block, count, end)


def check_longest(what, way, reply, most):
    with ScriptedService(reply):
        outcome, _, peak = run_timed(what, *way.arguments)
    assert INSTRUMENTED or peak < most
    return outcome


LONG_BOMBS = [pytest.param(way, start, block * (MB // len(block)), end, id=f"{name}: {sentence}")
                 for name, way in (("list", LIST), ("pkgDetails", DETAILS))
                 for sentence, start, block, end in [*BOMBS, *LONG_ONES]]


@pytest.mark.usefixtures("no_log")
@pytest.mark.parametrize("way, start, block, end", LONG_BOMBS)
def test_an_answer_of_512_mib_takes_less_than_600_mb_whatever_it_holds(way, start, block, end, request):
    outcome = check_longest(request.node.callspec.id, way, longest(start, block, end), 600)
    assert outcome == ("", error_line(9103), 9103 & 0xFF)


def test_with_a_log_the_longest_answer_takes_less_than_1200_mb():
    blank = b" " * MB
    outcome = check_longest("list, with a log: blanks after it", LIST, longest(GOOD_LIST, blank), 1200)
    assert (outcome.stderr, outcome.status) == ("", 0)


@pytest.mark.usefixtures("no_log")
@pytest.mark.parametrize("count", [100000, 500000, 1000000])
def test_a_list_takes_less_than_four_times_its_length(count):
    record = text_of(package()) + b","
    reply = long_answer(b'{"data": [', record * 1000, count // 1000 - 1, record * 999 + record[:-1] + b"]}")
    length = len(record) * count / MB
    outcome = check_longest(f"list of {count:,} packages, {length:.0f} MB", LIST, reply, 4 * length + LITTLE_MEMORY)
    assert (outcome.stderr, outcome.status) == ("", 0)
