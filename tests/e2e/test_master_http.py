"""How qvmaster takes HTTP that no usual client sends: it answers in JSON, stays in step, and waits for nobody."""

import json
import socket
import zlib

import pytest
from world import (
    HOST,
    MEDIA_TYPE,
    PACKAGES,
    PATIENCE,
    Reply,
    creation_body,
    raw_request,
    read_answers,
    read_to_end,
    send,
)

NOT_UNDERSTOOD = 9103
UNUSABLE = 20
LIMIT = 16 * 1024 * 1024
ACCEPT = f"Accept: {MEDIA_TYPE}\r\n".encode()


def single_answer(received):
    """The one answer that is all the service has sent."""
    head, _, body = received.partition(b"\r\n\r\n")
    lines = head.decode().split("\r\n")
    headers = {name.lower(): value for name, value in (line.split(": ", 1) for line in lines[1:])}
    assert headers["content-length"] == str(len(body)), received
    assert headers["content-type"] == MEDIA_TYPE, received
    return Reply(int(lines[0].split()[1]), headers, body)


@pytest.mark.parametrize(
    "request_line",
    [
        b"\r\n",
        b"nonsense\r\n",
        b"GET /\r\n",
        b"GET / HTTP/3.0\r\n",
        b"GET / HTTP/1.1 x\r\n",
        b"GET /a b HTTP/1.1\r\n",
        b"FETCH / HTTP/1.1\r\n",
        b"get / HTTP/1.1\r\n",
        b"GET / HTTP/1.1\n",
        b"\x16\x03\x01\r\n",
        b"\x00\xff\r\n",
    ],
)
def test_what_is_no_http_is_refused_once_and_the_connection_ends(master, request_line):
    answer = single_answer(master.send_raw(request_line + ACCEPT + b"\r\n" + raw_request("GET", PACKAGES)))
    assert answer.error == (400, NOT_UNDERSTOOD)
    assert [exchange["status"] for exchange in master.exchanges()] == [400]


@pytest.mark.parametrize(
    "length, error", [(8192, (404, NOT_UNDERSTOOD)), (8193, (414, UNUSABLE)), (60000, (414, UNUSABLE))]
)
def test_a_target_of_more_than_8_kib_is_refused(master, length, error):
    target = "/" + "x" * (length - 1)
    assert single_answer(master.send_raw(raw_request("GET", target)[:-2] + b"Connection: close\r\n\r\n")).error == error
    assert master.requests() == [("GET", target)]


def test_a_request_line_without_end_is_refused(master):
    assert single_answer(master.send_raw(b"GET /" + b"x" * 200000)).error == (414, UNUSABLE)


@pytest.mark.parametrize(
    "header",
    [b"X: " + b"y" * 200000 + b"\r\n", b"X: y\r\n" * 30000, b"X: y\r\n" * 300000],
    ids=["one long", "30000 short", "300000 short"],
)
def test_headers_of_more_than_64_kib_are_refused(master, header):
    answer = single_answer(master.send_raw(raw_request("GET", PACKAGES)[:-2] + header + b"\r\n"))
    assert answer.error == (431, UNUSABLE)


def test_a_header_line_may_be_as_long_as_the_head(master):
    head = raw_request("GET", PACKAGES)[:-2] + b"Connection: close\r\nX: "
    filled = head + b"y" * (64 * 1024 - len(head) - 4) + b"\r\n\r\n"
    assert single_answer(master.send_raw(filled)).status == 200
    assert single_answer(master.send_raw(filled.replace(b"X: ", b"X: y"))).error == (431, UNUSABLE)


@pytest.mark.parametrize(
    "framing",
    [
        b"Content-Length: x\r\n",
        b"Content-Length: -1\r\n",
        b"Content-Length: 2x\r\n",
        b"Content-Length:\r\n",
        b"Content-Length: 1, 1\r\n",
        b"Content-Length: 2\r\nContent-Length: 2\r\n",
        b"Content-Length: 2\r\nTransfer-Encoding: chunked\r\n",
        b"Transfer-Encoding: gzip, chunked\r\n",
        b"Transfer-Encoding: identity\r\n",
        b"Transfer-Encoding: Chunked\r\n",
        b"Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n",
        b"Content-Length: 2\r\n\tfolded\r\n",
        b"X: y\r\n Content-Length: 2\r\n",
        b"X: y\nContent-Length: 2\r\n",
        b"X: y\n\n",
        b"X: \x00\r\n",
        b"X : y\r\n",
        b"Host: two.example.com\r\n",
    ],
)
@pytest.mark.parametrize("method", ["GET", "POST"])
def test_a_request_whose_end_is_not_clear_is_refused_and_the_connection_ends(master, method, framing):
    answer = single_answer(master.send_raw(raw_request(method, PACKAGES)[:-2] + framing + b"\r\n{}"))
    assert answer.error == (400, NOT_UNDERSTOOD)


def test_http_1_1_without_a_host_is_refused(master):
    request = raw_request("GET", PACKAGES).replace(b"Host: " + HOST.encode() + b"\r\n", b"")
    assert single_answer(master.send_raw(request)).error == (400, NOT_UNDERSTOOD)


def test_http_1_0_knows_no_chunks(master):
    request = chunked(b"{}").replace(b"HTTP/1.1", b"HTTP/1.0")
    assert single_answer(master.send_raw(request)).error == (400, NOT_UNDERSTOOD)


def test_a_body_of_16_mib_is_read_and_a_larger_one_refused(master):
    package = json.dumps(creation_body("a.sja")).encode()
    assert master.post(package + b" " * (LIMIT - len(package))).status == 201
    assert master.post(b" " * (LIMIT + 1)).error == (413, UNUSABLE)


@pytest.mark.parametrize("method", ["GET", "POST"])
@pytest.mark.parametrize("digits", [9, 18, 20, 100])
def test_a_body_far_too_large_is_refused_before_it_is_read(master, method, digits):
    with master.open_tls() as connection:
        head = raw_request(method, PACKAGES)[:-2]
        connection.sendall(head + b"Content-Length: %d\r\n\r\nthe beginning" % (10**digits - 1))
        answer = single_answer(read_to_end(connection))
    assert answer.error == (413, UNUSABLE)


def chunked(*parts):
    chunks = b"".join(b"%x\r\n%s\r\n" % (len(part), part) for part in parts)
    return raw_request("POST", PACKAGES)[:-2] + b"Transfer-Encoding: chunked\r\n\r\n" + chunks + b"0\r\n\r\n"


def test_a_body_may_come_in_chunks(master):
    body = json.dumps(creation_body("a.sja")).encode()
    assert single_answer(master.send_raw(chunked(body[:7], body[7:]))).status == 201
    assert [exchange["body"] for exchange in master.exchanges()] == [body.decode()]


def test_chunks_of_more_than_16_mib_are_refused(master):
    part = b" " * 1024 * 1024
    answer = single_answer(master.send_raw(chunked(*[part] * 17)))
    assert answer.error == (413, UNUSABLE)


@pytest.mark.parametrize("size", [b"1000001", b"f" * 16, b"1" + b"0" * 16, b"f" * 1000], ids=["one more", "64 bits", "65 bits", "4000 bits"])
@pytest.mark.parametrize("before", [b"", b"0001\r\n{\r\n"])
def test_a_chunk_far_too_large_is_refused_before_it_is_read(master, before, size):
    head = raw_request("POST", PACKAGES)[:-2] + b"Transfer-Encoding: chunked\r\n\r\n"
    assert single_answer(master.send_raw(head + before + size + b"\r\n{}")).error == (413, UNUSABLE)


@pytest.mark.parametrize(
    "chunks",
    [
        b"zz\r\n{}\r\n0\r\n\r\n",
        b"-1\r\n{}",
        b"2\n{}\r\n0\r\n\r\n",
        b"2\r\n{}0\r\n\r\n",
        b"2 \r\n{}\r\n0\r\n\r\n",
        b"0\r\nX\r\n\r\n",
        b"0\r\nContent-Length: 2\r\n\r\n",
        b"2;" + b"x" * 70000,
    ],
)
def test_broken_chunks_are_refused(master, chunks):
    head = raw_request("POST", PACKAGES)[:-2] + b"Transfer-Encoding: chunked\r\n\r\n"
    answer = single_answer(master.send_raw(head + chunks))
    assert answer.error[0] == 400
    assert master.packages() == []


def test_a_body_that_is_called_multipart_is_a_body_all_the_same(master):
    kind = {"Content-Type": "multipart/form-data; boundary=x"}
    assert master.post(creation_body("a.sja"), headers=kind).status == 201
    assert master.exchanges()[0]["contentType"] == kind["Content-Type"]


@pytest.mark.parametrize("encoding", ["gzip", "deflate", "br", "identity", ""])
def test_a_body_with_a_content_encoding_is_refused(master, encoding):
    body = zlib.compress(json.dumps(creation_body("a.sja")).encode())
    assert master.post(body, headers={"Content-Encoding": encoding}).error == (415, NOT_UNDERSTOOD)


def test_a_creation_without_any_body_is_answered_at_once(master):
    answer = single_answer(master.send_raw(raw_request("POST", PACKAGES)[:-2] + b"Connection: close\r\n\r\n"))
    assert answer.error == (400, UNUSABLE)


def test_a_client_that_asks_first_is_told_to_send_its_body(master):
    body = json.dumps(creation_body("a.sja")).encode()
    head = raw_request("POST", PACKAGES)[:-2] + b"Expect: 100-continue\r\nConnection: close\r\n"
    with master.open_tls() as connection:
        connection.sendall(head + b"Content-Length: %d\r\n\r\n" % len(body))
        assert connection.recv(1000) == b"HTTP/1.1 100 Continue\r\n\r\n"
        connection.sendall(body)
        assert single_answer(read_to_end(connection)).status == 201


def test_many_requests_go_over_one_connection(master):
    connection = master.connect()
    statuses = [send(connection, "POST", PACKAGES, creation_body(f"{i}.sja")).status for i in range(200)]
    statuses += [send(connection, "DELETE", f"{PACKAGES}/{i + 1}").status for i in range(200)]
    connection.close()
    assert statuses == [201] * 200 + [204] * 200


def test_requests_sent_at_once_are_answered_in_order(master):
    targets = [f"{PACKAGES}/0", PACKAGES, "/nowhere", f"{PACKAGES}/9"]
    with master.open_tls() as connection:
        connection.sendall(b"".join(raw_request("GET", target) for target in targets))
        assert [answer.status for answer in read_answers(connection, 4)] == [400, 200, 404, 404]


@pytest.mark.parametrize("method, accept", [("POST", "text/html"), ("PUT", MEDIA_TYPE), ("GET", MEDIA_TYPE)])
def test_a_body_that_nobody_reads_is_never_taken_for_a_request(master, method, accept):
    inner = raw_request("DELETE", f"{PACKAGES}/1")
    master.register("a.sja")
    single_answer(master.send_raw(raw_request(method, PACKAGES, inner, accept)))
    assert len(master.packages()) == 1
    assert [exchange["method"] for exchange in master.exchanges()] == ["POST", method]


def test_a_client_that_hangs_up_in_the_middle_disturbs_nobody(master):
    whole = raw_request("POST", PACKAGES, json.dumps(creation_body("a.sja")).encode())
    for length in range(0, len(whole), 7):
        with master.open_tls() as connection:
            connection.sendall(whole[:length])
    assert master.get().json == {"data": []}


def test_an_http_1_0_client_gets_a_long_list_without_chunks(master):
    master.register_many(1000)
    request = raw_request("GET", PACKAGES).replace(b"HTTP/1.1", b"HTTP/1.0")
    head, _, body = master.send_raw(request).partition(b"\r\n\r\n")
    assert b"Transfer-Encoding" not in head
    assert len(json.loads(body)["data"]) == 1000


def test_a_client_that_falls_silent_is_dropped(idle_master):
    idle_master.start("--timeout", "1")
    with socket.create_connection(("localhost", idle_master.port), timeout=PATIENCE) as silent:
        assert silent.recv(1) == b""
    for beginning in (b"", b"GET /", raw_request("GET", PACKAGES)[:-2]):
        with idle_master.open_tls() as connection:
            connection.sendall(beginning)
            assert read_to_end(connection) == b""
    assert idle_master.exchanges() == []


@pytest.mark.parametrize("ranges", ["bytes=0-3", "bytes=0-1,4-5", "bytes=x-y"])
def test_a_range_is_ignored(master, ranges):
    reply = master.get(headers={"Range": ranges})
    assert (reply.status, reply.body) == (200, b'{"data": []}')
