"""How much memory a very long answer takes: what has to be received is held once, and nothing made of it is large.

The figures are of runs without a log, as most administrators have it; a record of the log holds the answer once more.
"""

import zlib

import pytest
from hostile_answers import GOOD_LIST, GOOD_TABLE, LIST_PARSER, TextBeginning, package, text_of
from hostile_ways import ADD, DELETE, DELETE_LOOK, DETAILS, LIST, LITTLE_MEMORY, error_line
from packages import make_single
from scripted_service import ScriptedService, answer
from world import INSTRUMENTED, REPOSITORY, ROOT, read_log_records, run_measured

MB = 1 << 20
LOG_DIRECTORY = ROOT / "quorvelle/logs/qvrepo"
TOO_LONG = 23

# Enough for more than a million values, the most that are parsed. Instrumented programs are not measured.
BOMB_SIZE = 2 if INSTRUMENTED else 8  # MB

not_instrumented = pytest.mark.skipif(INSTRUMENTED, reason="instrumented, it takes many times the memory and time")


def of_blocks(head, start, block, count, end):
    """An answer too long to be made at once: `count` times `block` between `start` and `end`."""
    def send(connection):
        connection.sendall(head + b"\r\n" + start)
        for _ in range(count):
            connection.sendall(block)
        connection.sendall(end)

    return send


def long_answer(start, block, count, end=b"", code=200):
    length = len(start) + len(block) * count + len(end)
    return of_blocks(b"HTTP/1.1 %d X\r\nContent-Length: %d\r\n" % (code, length), start, block, count, end)


def endless_answer(start, block, count):
    return of_blocks(b"HTTP/1.1 200 X\r\nConnection: close\r\n", start, block, count, b"")


def packed_answer(megabytes):
    """An answer that unpacks to so many megabytes of zeros, a thousand times what is sent."""
    packer = zlib.compressobj()
    head = packer.compress(b"0" * MB) + packer.flush(zlib.Z_FULL_FLUSH)
    # After a full flush the same bytes pack the same way.
    block = packer.compress(b"0" * MB) + packer.flush(zlib.Z_FULL_FLUSH)
    return of_blocks(b"HTTP/1.1 200 X\r\nConnection: close\r\nContent-Encoding: deflate\r\n", head, block,
                     megabytes - 1, b"")


@pytest.fixture
def no_log():
    LOG_DIRECTORY.rmdir()


def measure(way, reply, directory):
    arguments = [*way.arguments, make_single(directory)] if way is ADD else way.arguments
    with ScriptedService(*way.before, reply):
        return run_measured(*arguments, stdin=way.stdin)


def check_refused(way, reply, directory, most, status=9103):
    outcome, peak = measure(way, reply, directory)
    assert outcome == (way.stdout, error_line(status), status & 0xFF)
    assert INSTRUMENTED or peak < most
    assert list(REPOSITORY.iterdir()) == []


@not_instrumented
@pytest.mark.parametrize("reply", [
    pytest.param(endless_answer(b'{"data": [', b" " * MB, 600), id="sent as it is"),
    pytest.param(packed_answer(600), id="packed")])
def test_an_answer_that_turns_out_longer_than_512_mib_is_refused_and_held_once(reply, tmp_path):
    check_refused(LIST, reply, tmp_path, 512 + LITTLE_MEMORY, TOO_LONG)
    (explanation,) = [text for _, function, text in read_log_records() if function == "QVClientCURL"]
    assert explanation.endswith(": the answer is longer than 536870912 bytes")


@pytest.mark.parametrize("way", [LIST, DETAILS, DELETE_LOOK, DELETE, ADD],
                         ids=["list", "pkgDetails", "delete-look", "delete", "add"])
def test_an_answer_that_announces_more_than_512_mib_is_refused_by_its_head(way, tmp_path):
    check_refused(way, long_answer(b"", b" " * MB, 513), tmp_path, LITTLE_MEMORY, 63)


# Each of these takes many times its length when it is parsed: a start, a block to repeat, and an end.
BOMBS = [
    ("numbers", b'{"data": [0', b",0", b"]}"),
    ("numbers in a package", b'{"data": [{"id": [0', b",0", b"]}]}"),
    ("numbers outside the data", b'{"more": [0', b",0", b'], "data": []}'),
    ("empty objects", b'{"data": {"id": [{}', b",{}", b"]}}"),
    ("empty texts", b'{"data": {"id": [""', b',""', b"]}}"),
    ("members of one name", b'{"a": {"b": 0', b',"b":0', b"}}"),
    ("not JSON", b"<html>", b"x", b"</html>"),
    ("opening brackets", b"", b"[", b""),
]
LONG_ONES = [("one text", b'{"data": "', b"x", b'"}'), ("one number", b'{"data": 1', b"0", b"}")]
WAYS = [("list", LIST, 200), ("list, refused", LIST, 500), ("pkgDetails", DETAILS, 200),
        ("delete-look", DELETE_LOOK, 200), ("delete", DELETE, 500), ("add", ADD, 201)]


def bombs(ways, table, megabytes):
    for name, way, code in ways:
        for sentence, start, block, end in table:
            reply = long_answer(start, block * (MB // len(block)), megabytes, end, code)
            yield pytest.param(way, reply, id=f"{name}: {sentence}")


@pytest.mark.usefixtures("no_log")
@pytest.mark.parametrize("way, reply", [*bombs(WAYS[:3], BOMBS, BOMB_SIZE), *bombs(WAYS[3:], BOMBS[1:4], BOMB_SIZE)])
def test_an_answer_takes_little_more_than_its_length_whatever_it_holds(way, reply, tmp_path):
    check_refused(way, reply, tmp_path, BOMB_SIZE + LITTLE_MEMORY)


@pytest.mark.usefixtures("no_log")
@pytest.mark.parametrize("way, reply", bombs(WAYS[:3], LONG_ONES, 65))
def test_a_value_of_more_than_64_mib_is_not_parsed(way, reply, tmp_path):
    check_refused(way, reply, tmp_path, 65 + LITTLE_MEMORY)


@pytest.mark.usefixtures("no_log")
def test_a_text_just_within_the_limit_is_parsed_in_bounded_memory(tmp_path):
    reply = long_answer(b'{"errorCode": 7220, "errorMessage": "', b"x" * MB, 63, b'"}', code=500)
    check_refused(LIST, reply, tmp_path, 3 * 64 + LITTLE_MEMORY, 7220)


def test_with_a_log_an_answer_is_held_twice(tmp_path):
    check_refused(LIST, long_answer(b"<html>", b"x" * MB, 20), tmp_path, 2 * 20 + LITTLE_MEMORY)
    assert read_log_records()[5] == (
        16, LIST_PARSER, "Failed to parse package details from response received from server and the response is: "
                         f"<html>{'x' * 20 * MB}.")


def test_with_a_log_an_answer_of_control_characters_takes_memory_for_its_escapes_too(tmp_path):
    # Held once, rendered once more, and escaped to four times its length.
    check_refused(LIST, long_answer(b"", b"\x01" * MB, 20), tmp_path, 6 * 20 + LITTLE_MEMORY)
    assert read_log_records()[3] == (2, "curlSendRequest", "Http response body: " + "\\x01" * 20 * MB)


# Documents of as many values as are parsed, and a bound of their memory in MB.
MAX_VALUES = [
    ("empty objects", b"[" + b",".join([b"{}"] * 999900) + b"]", 260),
    ("objects in objects", b"[" + b",".join([b'{"a":' * 2000 + b"{}" + b"}" * 2000] * 499) + b"]", 340),
    ("long names", b"{" + b",".join(b'"%050d":{}' % i for i in range(999900)) + b"}", 460)]


@pytest.mark.usefixtures("no_log")
@pytest.mark.parametrize("way, most, megabytes", [
    pytest.param(way, most, megabytes, id=f"{name}: {sentence}")
    for name, way, shapes in [("list", LIST, MAX_VALUES), ("pkgDetails", DETAILS, MAX_VALUES[:1]),
                              ("delete-look", DELETE_LOOK, MAX_VALUES[:1]), ("add", ADD, MAX_VALUES[:1])]
    for sentence, most, megabytes in shapes])
def test_values_just_within_the_limits_are_parsed_in_bounded_memory(way, most, megabytes, tmp_path):
    record = text_of({"data": package()})[:-1] + b', "more": ' + most + b"}"
    if way is LIST:
        record = record.replace(b'"data": {', b'"data": [{', 1).replace(b', "more"', b'], "more"')
    outcome, peak = measure(way, answer(way.expected, record), tmp_path)
    assert outcome.stderr == "" or way is DELETE_LOOK
    assert INSTRUMENTED or peak < megabytes


@pytest.mark.usefixtures("no_log")
def test_a_list_with_a_package_of_half_a_million_items_is_shown(tmp_path):
    items = [f"{REPOSITORY}/{number}.sja" for number in range(500000)]
    reply = answer(200, text_of({"data": [package(packageItemFilePaths=items)]}))
    outcome, peak = measure(LIST, reply, tmp_path)
    assert outcome == (GOOD_TABLE, "", 0)
    assert INSTRUMENTED or peak < 10 * len(reply) / MB


@pytest.mark.usefixtures("no_log")
@not_instrumented
def test_the_longest_answer_is_taken_in_less_than_600_mb(tmp_path):
    blanks = 512 * MB - len(GOOD_LIST)
    outcome, peak = measure(LIST, long_answer(GOOD_LIST, b" " * (blanks // 512), 512, b" " * (blanks % 512)), tmp_path)
    assert (outcome.stderr, outcome.status) == ("", 0)
    assert 512 < peak < 600


@pytest.mark.usefixtures("no_log")
def test_a_long_list_with_a_wrong_package_at_its_end_is_refused_as_that(tmp_path):
    record = text_of(package()) + b","
    reply = long_answer(b'{"data": [', record * 1000, 30, text_of(package(without="os")) + b"]}")
    check_refused(LIST, reply, tmp_path, 3 * 30000 * len(record) / MB + LITTLE_MEMORY)


def test_a_long_list_with_a_wrong_package_at_its_end_names_what_is_wrong(tmp_path):
    reply = long_answer(b'{"data": [', (text_of(package()) + b",") * 1000, 20, text_of(package(without="os")) + b"]}")
    check_refused(LIST, reply, tmp_path, 3 * 10 + LITTLE_MEMORY)
    assert read_log_records()[5:8] == [
        (16, "QvRepoPackage::parseJSONResponsePackageDetails", "Error parsing response: Object item not found: os"),
        (16, "QvRepoPackage", TextBeginning("Error reading package details in response.")),
        (16, LIST_PARSER, "Error reading package details in response. Error code: 9103.")]
