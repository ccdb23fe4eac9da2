"""A service that sends too slowly, too little, or breaks off, and one that does not listen to the end."""

import socket
import struct

import pytest
from hostile_answers import GOOD_LIST, GOOD_TABLE
from hostile_ways import ADD, DELETE, LIST, NAMES, check_refused, error_line, run
from packages import archive, make_single, signed
from scripted_service import ScriptedService, answer
from world import REPOSITORY, read_log_records, run_qvrepo

CANNOT_SEND, CANNOT_RECEIVE, HALF_AN_ANSWER = 55, 56, 18
EVERY_WAY = [pytest.param(way, id=name) for name, way in NAMES.items()]


@pytest.fixture
def package_file(tmp_path):
    return make_single(tmp_path)


def reset(connection):
    """Resets the connection."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def test_an_answer_that_comes_byte_by_byte_is_taken(package_file):
    def drip(connection):
        for byte in answer(200, GOOD_LIST):
            connection.sendall(bytes([byte]))

    assert run(LIST, drip, package_file).outcome == (GOOD_TABLE, "", 0)


@pytest.mark.parametrize("way", EVERY_WAY)
def test_a_service_that_resets_instead_of_answering_fails_with_56(way, package_file):
    check_refused(way, reset, CANNOT_RECEIVE, [
        *way.no_exchange_records(CANNOT_RECEIVE), *way.request_records(CANNOT_RECEIVE)], package_file)


@pytest.mark.parametrize("way", EVERY_WAY)
@pytest.mark.parametrize("share", [1, 50, 99])
def test_a_service_that_closes_in_the_middle_of_a_body_fails_with_18(way, share, package_file):
    body = b"x" * 100000
    reply = answer(200, body[:len(body) * share // 100], length=len(body))
    check_refused(way, reply, HALF_AN_ANSWER, [
        *way.no_exchange_records(HALF_AN_ANSWER), *way.request_records(HALF_AN_ANSWER)], package_file)


@pytest.mark.parametrize("way", EVERY_WAY)
def test_a_service_that_closes_in_the_middle_of_the_head_gives_no_package(way, package_file):
    """The status line counts as soon as it is whole; for what lacks its blank line there is no body."""
    http_code = way.expected if way is not DELETE else 500
    result = run(way, b"HTTP/1.1 %d Whatever\r\nContent-Type: app" % http_code, package_file)
    assert result.outcome[:2] == (way.stdout, error_line(9103))
    assert (2, "curlSendRequest", "Http response body: ") in result.records


class DeafService(ScriptedService):
    """Reads the beginning of a request, and resets."""

    def _serve_one(self, connection):
        connection.recv(1000)
        reset(connection)


def test_a_service_that_resets_in_the_middle_of_a_long_request_does_not_kill_the_program(tmp_path):
    # The listing keeps half of so many entries, which makes a request of 5 MB.
    package = tmp_path / "dunmarel_qv_8.3_redhat_x64.sja"
    package.write_bytes(signed(archive(*((f"{i:06}{'n' * 245}.sja", b"") for i in range(32767)))))
    with DeafService(b""):
        outcome = run_qvrepo("-add", package)
    assert outcome.status in (CANNOT_SEND, CANNOT_RECEIVE), "as the reset meets sending or receiving"
    assert outcome[:2] == (ADD.stdout, error_line(outcome.status))
    (sent,) = [text for _, _, text in read_log_records() if text.startswith("Request body: ")]
    assert len(sent) > 4000000
    assert list(REPOSITORY.iterdir()) == []
