"""Answers that no sound web service gives, and the result of each.

A table row is a sentence that names an answer, its bytes, and what the log says about it. Bodies that are not JSON are made
out of a good one, so that the same row serves for a list and for a package.
"""

import gzip
import json
import zlib
from typing import NamedTuple

from scripted_service import answer
from world import REPOSITORY

FILE_NAME = "dunmarel_qvclient_8.3_redhat_x64.sja"


def package(changes=None, without=None, outside=None, **attributes):
    """A package object as the service answers it; `attributes` replace members, `without` leaves one out, `outside`
    replaces members outside the attributes."""
    members = {
        "packageName": "qvclient_8.3_redhat_x64", "packageFileName": FILE_NAME,
        "packageItemFilePaths": [f"{REPOSITORY}/{FILE_NAME}"], "packageType": "qvclient", "os": "redhat_x64",
        "version": "8.3", "size": 1000, "createdDateTimeUTC": "2026-11-20T23:34:00.123Z",
        "lastModifiedDateTimeUTC": "2026-11-20T23:34:00.123Z", "lastValidatedUTC": "2026-11-20T23:34:00.123Z",
        **attributes}
    whole = {"type": "package", "id": "7", "attributes": members, **(outside or {})}
    members.pop(without, None)
    whole.pop(without, None)
    return whole


def text_of(value):
    return json.dumps(value, ensure_ascii=False).encode("utf-8", "surrogatepass")


GOOD_PACKAGE = text_of({"data": package()})
GOOD_LIST = text_of({"data": [package()]})

# What -list prints of the good list.
GOOD_TABLE = (
    "ID Type     Version OS         File Name                           \n"
    "-- -------- ------- ---------- ------------------------------------\n"
    "7  client   8.3     redhat_x64 dunmarel_qvclient_8.3_redhat_x64.sja\n")

ERROR_PARSER = "parseJSONErrorResponse"
LIST_PARSER = "QvRepoPackage::parseJSONResponsePackage"
DETAILS_PARSER = "QvRepoPackage::parseJSONResponsePackageDetails"
RECORD = (16, "QvRepoPackage", "Error reading package details in response. Error code returned from "
                               "parseJSONpackageDetails: 9103.")


class TextBeginning(str):
    """A text of the log of which only the beginning is the program's own."""

    def __eq__(self, other):
        return other.startswith(str(self)) and len(other) > len(self)

    __hash__ = str.__hash__


def logged(body):
    """A body as the log shows it: up to its first NUL byte, and control characters as escapes."""
    text = body.split(b"\0")[0].decode("utf-8", "surrogateescape")
    plain = {"\n": "\\n", "\r": "\\r", "\t": "\\t"}
    if text.isprintable():
        return text
    return "".join(plain.get(c, f"\\x{ord(c):02x}" if ord(c) < 0x20 or c == "\x7f" else c) for c in text)


# Bodies that are not JSON: a sentence, and how to make one of a good body


def _in_text(content):
    """A document whose "data" is a text of these bytes."""
    return lambda good: b'{"data": "' + content + b'"}'


def _value(content):
    return lambda good: b'{"data": ' + content + b"}"


def _constant(content):
    return lambda good: content


NOT_JSON = [
    ("nothing at all", _constant(b"")),
    ("blanks and line ends alone", _constant(b" \t\r\n ")),
    ("a page of HTML", _constant(b"<!DOCTYPE html><html lang=\"en\"><body>[Sign in]</body></html>")),
    ("XML", _constant(b'<?xml version="1.0"?><data/>')),
    ("plain text", _constant(b"Service temporarily unavailable")),
    ("a number alone", _constant(b"9103")),
    ("a text alone", _constant(b'"data"')),
    ("true alone", _constant(b"true")),
    ("null alone", _constant(b"null")),
    ("a document cut in the middle", lambda good: good[:len(good) // 2]),
    ("a document that lacks its last brace", lambda good: good[:-1]),
    ("a document that lacks its first brace", lambda good: good[1:]),
    ("a byte order mark in front", lambda good: b"\xef\xbb\xbf" + good),
    ("UTF-16", lambda good: good.decode().encode("utf-16")),
    ("UTF-16 without a mark", lambda good: good.decode().encode("utf-16-le")),
    ("single quotes", lambda good: good.replace(b'"', b"'")),
    ("names without quotes", lambda good: good.replace(b'"data"', b"data")),
    ("a comma after the last member", lambda good: good[:-1] + b",}"),
    ("a comma before the first member", lambda good: b"{," + good[1:]),
    ("a name without a colon", lambda good: good.replace(b'"data":', b'"data" ')),
    ("members without a comma between them", lambda good: b'{"more": 1 ' + good[1:]),
    ("a comment in front", lambda good: b"/* packages */ " + good),
    ("a guard against scripts in front", lambda good: b")]}',\n" + good),
    ("a bracket closed by a brace", _value(b"[1}")),
    ("NaN", _value(b"NaN")),
    ("infinity", _value(b"-Infinity")),
    ("a literal in capitals", _value(b"True")),
    ("half a literal", _value(b"nul")),
    ("a number in hexadecimal", _value(b"0x1F")),
    ("a number with a leading zero", _value(b"01")),
    ("a number with a plus", _value(b"+1")),
    ("a number that ends in its point", _value(b"1.")),
    ("a number of 2^63", _value(b"9223372036854775808")),
    ("a number below -2^63", _value(b"-9223372036854775809")),
    ("a number of 400 digits", _value(b"9" * 400)),
    ("a number beyond floating point", _value(b"1e400")),
    ("a NUL byte in the middle", lambda good: good[:30] + b"\0" + good[30:]),
    ("an escaped NUL in a text", _in_text(b"\\u0000")),
    ("an escaped NUL in a name", _constant(b'{"da\\u0000ta": []}')),
    ("a text that is not closed", _constant(b'{"data": "')),
    ("a line end in a text", _in_text(b"two\nlines")),
    ("an escape character in a text", _in_text(b"\x1b[31m")),
    ("an unknown escape", _in_text(b"\\q")),
    ("an unfinished escape", _in_text(b"\\u12")),
    ("half a surrogate pair", _in_text(b"\\ud800")),
    ("a surrogate pair with a wrong half", _in_text(b"\\ud800\\u0041")),
    ("a second half alone", _in_text(b"\\udc00")),
    ("a byte that is not UTF-8", _in_text(b"\xff")),
    ("UTF-8 in too many bytes", _in_text(b"\xc0\x80")),
    ("a surrogate in UTF-8", _in_text(b"\xed\xa0\x80")),
    ("a character beyond Unicode", _in_text(b"\xf5\x80\x80\x80")),
    ("a character cut off", _in_text(b"\xe3\x81")),
    ("Latin-1", _in_text("größe".encode("latin-1"))),
    ("arrays nested a million deep", _constant(b"[" * 1000000)),
    ("objects nested a million deep", _constant(b'{"a":' * 1000000)),
    ("arrays nested a million deep and closed", _value(b"[" * 1000000 + b"]" * 1000000)),
    ("arrays nested one deeper than the parser goes", _value(b"[" * 2048 + b"]" * 2048)),
    ("more values than are parsed, in one", _value(b"[[" + b"{}," * 1000000 + b"{}]]")),
    ("more values than are parsed, outside the list", lambda good: b'{"more": [' + b"0," * 1000000 + b"0], " + good[1:]),
    ("compressed bytes that do not say so", lambda good: gzip.compress(good, mtime=0)),
]

# Bodies that are JSON but not a list: a sentence, and the document

NOT_A_LIST = [
    ("an empty object", {}), ("an empty array", []), ("an array of packages alone", [package()]),
    ("no data in it", {"packages": [package()]}), ("data of another case", {"Data": [package()]}),
    ("null for a list", {"data": None}), ("true for a list", {"data": True}), ("a number for a list", {"data": 7}),
    ("a text for a list", {"data": "[]"}), ("one package for a list", {"data": package()}),
    ("an error object for a list", {"errorCode": 8000, "errorMessage": "x"})]

NOT_ELEMENTS = [
    ("null among the packages", [package(), None]), ("a number among the packages", [7]),
    ("a text among the packages", ["7"]), ("an array among the packages", [[package()]]),
    ("false among the packages", [package(), False]), ("a fraction among the packages", [0.5])]

# Bodies that are JSON but not a package

NOT_A_PACKAGE = [
    ("an empty object", {}), ("an empty array", []), ("a package alone", package()),
    ("data of another case", {"DATA": package()}), ("null for a package", {"data": None}),
    ("a text for a package", {"data": "7"}), ("a number for a package", {"data": 7}),
    ("an empty list for a package", {"data": []}), ("a list for a package", {"data": [package()]}),
    ("an error object for a package", {"errorCode": 227, "errorMessage": "x"})]

MEMBERS = ["packageName", "packageFileName", "packageType", "os", "version", "createdDateTimeUTC",
           "lastModifiedDateTimeUTC", "lastValidatedUTC"]


def _unpacked(reason):
    return f"Error parsing response: {reason}"


def _missing(member):
    return (f"a package without {member}", package(without=member), _unpacked(f"Object item not found: {member}"))


def _wrong(sentence, record, wanted, found):
    return (sentence, record, _unpacked(f"Expected {wanted}, got {found}"))


NO_ITEMS = "No package items in response."

# Objects that are not a package: a sentence, the object, and what the log says

WRONG_PACKAGES = [
    *(_missing(member) for member in ["id", "attributes", *MEMBERS, "size"]),
    # Not unpacked as a text, but its absence is reported like that of the others.
    _missing("packageItemFilePaths"),
    *(_wrong(f"a package whose {member} is null", package(**{member: None}), "string", "null") for member in MEMBERS),
    _wrong("a package whose ID is a number", package(outside={"id": 7}), "string", "integer"),
    _wrong("a package whose ID is an array", package(outside={"id": ["7"]}), "string", "array"),
    _wrong("a package whose attributes are a text", package(outside={"attributes": "{}"}), "object", "string"),
    _wrong("a package whose attributes are an array", package(outside={"attributes": []}), "object", "array"),
    _wrong("a package whose version is a number", package(version=8.3), "string", "real"),
    _wrong("a package whose size is a text", package(size="1000"), "integer", "string"),
    _wrong("a package whose size is a fraction", package(size=1.5), "integer", "real"),
    _wrong("a package whose size is true", package(size=True), "integer", "true"),
    _wrong("a package whose size is 1e3", package(size=1e3), "integer", "real"),
    ("a package whose items are null", package(packageItemFilePaths=None), NO_ITEMS),
    ("a package whose items are a text", package(packageItemFilePaths="/a.sja"), NO_ITEMS),
    ("a package whose items are an object", package(packageItemFilePaths={"0": "/a.sja"}), NO_ITEMS),
    ("a package one of whose items is a number", package(packageItemFilePaths=["/a.sja", 7]), NO_ITEMS),
    ("a package one of whose items is null", package(packageItemFilePaths=[None]), NO_ITEMS),
    ("a package one of whose items is an array", package(packageItemFilePaths=[["/a.sja"]]), NO_ITEMS),
    ("an EEB package whose name has two parts", package(packageType="qveeb.server", packageName="qveeb.server_3.1"),
     _unpacked("[qveeb.server_3.1] is not the name of an EEB package.")),
    ("an EEB package whose name is too long", package(packageType="qveeb", packageName="a_b_" + "c" * 125),
     _unpacked("[a_b_" + "c" * 125 + "] is not the name of an EEB package.")),
]


class ErrorAnswer(NamedTuple):
    """An answer with another HTTP code than the expected one."""

    sentence: str
    body: bytes
    status: int
    log: list  # what the parser of error bodies writes
    http_code: int = 500


def _unreadable(sentence, body, http_code=500):
    text = f"Failed to parse error response received from server. Error response is: {logged(body)}."
    return ErrorAnswer(sentence, body, 9103, [(16, ERROR_PARSER, text)], http_code)


def _without_code(sentence, body):
    return ErrorAnswer(sentence, body, 9103, [(16, ERROR_PARSER, "No error code in response.")])


def _code_record(code):
    return (16, ERROR_PARSER, f"Error code returned by server is : {code}.")


def _coded(code, status, message="x", sentence=None):
    body = text_of({"errorCode": code, "errorMessage": message})
    log = [_code_record(code), (16, ERROR_PARSER, f"Error message returned by server: {logged(message.encode())}.")]
    return ErrorAnswer(sentence or f"error code {code}", body, status, log)


def _without_message(sentence, body, code=7220):
    return ErrorAnswer(sentence, body, 9103, [_code_record(code), (16, ERROR_PARSER, "No message in error response.")])


def _code_as(text):
    return b'{"errorCode": ' + text + b', "errorMessage": "x"}'


# The low 32 bits of a code are the status.
CODES = [
    *(_coded(code, code) for code in [
        1, 2, 20, 55, 99, 104, 110, 111, 117, 118, 127, 128, 132, 153, 255, 256, 257, 512, 5761, 5930, 7214, 7215, 7216,
        7217, 7218, 7219, 7220, 7221, 7225, 7235, 7236, 7237, 7252, 7263, 7264, 7265, 7266, 7267, 8000, 9103, 65536]),
    *(_coded(code, code) for code in [-1, -55, -7220, -2**31, 2**31 - 1]),
    _coded(2**31, -2**31), _coded(2**31 + 1, -2**31 + 1), _coded(2**32 - 1, -1), _coded(2**32 + 7220, 7220),
    _coded(-2**32 - 5, -5), _coded(2**63 - 1, -1), _coded(-2**63 + 20, 20),
]

ERROR_BODIES = [
    *(_unreadable(f"an error body: {sentence}", make(text_of({"errorCode": 7220, "errorMessage": "x"})))
      for sentence, make in NOT_JSON if sentence in [
          "nothing at all", "a page of HTML", "plain text", "a number alone", "a document cut in the middle",
          "a byte order mark in front", "UTF-16", "arrays nested a million deep", "a NUL byte in the middle",
          "a byte that is not UTF-8", "compressed bytes that do not say so", "more values than are parsed, in one"]),
    _unreadable("error code 2^63", _code_as(b"9223372036854775808")),
    _unreadable("error code of a thousand digits", _code_as(b"1" * 1000)),
    _unreadable("error code 007", _code_as(b"007")),
    _unreadable("an error message with an escaped NUL", b'{"errorCode": 7220, "errorMessage": "a\\u0000b"}'),
    *(_without_code(f"error code as {name}", _code_as(text)) for name, text in [
        ("a text", b'"7220"'), ("a fraction", b"7220.0"), ("1e3", b"1e3"), ("null", b"null"), ("true", b"true"),
        ("an array", b"[7220]"), ("an object", b"{}"), ("an empty text", b'""')]),
    _without_code("an error code of another case", b'{"errorcode": 7220, "errorMessage": "x"}'),
    _without_code("an error body that is an empty object", b"{}"),
    _without_code("an error body that is an array", b'[{"errorCode": 7220, "errorMessage": "x"}]'),
    _without_code("an error body in an envelope", b'{"error": {"errorCode": 7220, "errorMessage": "x"}}'),
    _without_code("a list with a wrong HTTP code", GOOD_LIST),
    _without_code("two error codes, the last a text", b'{"errorCode": 7220, "errorCode": "7220", "errorMessage": "x"}'),
    _without_message("an error body without a message", b'{"errorCode": 7220}'),
    _without_message("an error message that is null", b'{"errorCode": 7220, "errorMessage": null}'),
    _without_message("an error message that is a number", b'{"errorCode": 7220, "errorMessage": 5}'),
    _without_message("an error message that is an array", b'{"errorCode": 7220, "errorMessage": ["x"]}'),
    _without_message("no message with error code 0", b'{"errorCode": 0}', 0),
    ErrorAnswer("two error codes, of which the last counts", b'{"errorCode": 1, "errorCode": 7220, "errorMessage": "x"}',
            7220, [_code_record(7220), (16, ERROR_PARSER, "Error message returned by server: x.")]),
    _coded(7220, 7220, "%s%n%d %1$s", "an error message of conversions"),
    _coded(7220, 7220, "2026-11-20T23:34:00.123Z [1] <4> main: x\n", "an error message that imitates a log record"),
    _coded(7220, 7220, "\x1b]0;title\x07\x7f\r", "an error message of control characters"),
    _coded(7220, 7220, "x" * 2000000, "an error message of two million characters"),
    _coded(7220, 7220, "", "an empty error message"),
]

HTTP_CODES = [
    _unreadable(f"HTTP code {code} without a body", b"", code)
    for code in [201, 202, 204, 205, 206, 226, 300, 304, 399, 401, 402, 405, 407, 408, 410, 413, 418, 421, 429, 451,
                 499, 501, 502, 503, 504, 511, 599, 600, 999]]


# Exchanges that fail before a whole answer: a sentence, the bytes, and the client's code

UNSUPPORTED_PROTOCOL, WEIRD_ANSWER, HALF_AN_ANSWER, ANSWER_REFUSED = 1, 8, 18, 23
OUT_OF_MEMORY, NO_ANSWER, CANNOT_RECEIVE, CANNOT_UNPACK, ANNOUNCED_TOO_LONG = 27, 52, 56, 61, 63


def _headed(*headers, body=GOOD_LIST):
    return b"HTTP/1.1 200 OK\r\n" + b"".join(header + b"\r\n" for header in headers) + b"\r\n" + body


def _chunked(body):
    return _headed(b"Transfer-Encoding: chunked", body=body)


def _encoded(encoding, body, length=None):
    return _headed(b"Content-Encoding: " + encoding, b"Content-Length: %d" % (length or len(body)), body=body)


_PACKED = gzip.compress(GOOD_LIST, mtime=0)

FAILED_EXCHANGES = [
    ("an answer that is closed before it begins", b"", NO_ANSWER),
    ("the first bytes of a status line", b"HTTP/1.1 2", NO_ANSWER),
    ("a line of plain text", b"220 master.example.com ESMTP\r\n", UNSUPPORTED_PROTOCOL),
    ("a body without a head", GOOD_LIST, UNSUPPORTED_PROTOCOL),
    ("zeros", b"\0" * 4096, UNSUPPORTED_PROTOCOL),
    ("HTTP of a version to come", b"HTTP/7.1 200 OK\r\n\r\n", UNSUPPORTED_PROTOCOL),
    ("a status line without a code", b"HTTP/1.1 OK\r\n\r\n", UNSUPPORTED_PROTOCOL),
    ("a body shorter than its length", answer(200, GOOD_LIST, length=len(GOOD_LIST) + 1), HALF_AN_ANSWER),
    ("no body where one is announced", answer(200, b"", length=5), HALF_AN_ANSWER),
    ("a length below 0", _headed(b"Content-Length: -5"), WEIRD_ANSWER),
    ("a length that is not a number", _headed(b"Content-Length: many"), WEIRD_ANSWER),
    ("a length of 512 MiB and one byte", _headed(b"Content-Length: 536870913"), ANNOUNCED_TOO_LONG),
    ("a length of 2^63 - 1", _headed(b"Content-Length: 9223372036854775807"), ANNOUNCED_TOO_LONG),
    ("a length of 2^64", _headed(b"Content-Length: 18446744073709551616"), ANNOUNCED_TOO_LONG),
    ("a chunk whose size is not a number", _chunked(b"size\r\n"), CANNOT_RECEIVE),
    ("a chunk whose size is below 0", _chunked(b"-5\r\nabcde\r\n"), CANNOT_RECEIVE),
    ("a chunk of 2^68 bytes", _chunked(b"FFFFFFFFFFFFFFFFF\r\nabc"), CANNOT_RECEIVE),
    ("a chunk that ends too late", _chunked(b"2\r\nabcdef\r\n0\r\n\r\n"), CANNOT_RECEIVE),
    ("a chunk cut off", _chunked(b"A\r\nabc"), HALF_AN_ANSWER),
    ("chunks without a last one", _chunked(b"3\r\nabc\r\n"), HALF_AN_ANSWER),
    ("chunks in an unknown coding", _headed(b"Transfer-Encoding: zork", b"Content-Length: 3", body=b"abc"),
     CANNOT_UNPACK),
    ("a body in an unknown encoding", _encoded(b"zork", b"abc"), CANNOT_UNPACK),
    ("gzip in name only", _encoded(b"gzip", GOOD_LIST), CANNOT_UNPACK),
    ("deflate in name only", _encoded(b"deflate", b"\xff" * 100), CANNOT_UNPACK),
    ("brotli in name only", _encoded(b"br", b"\xff" * 100), CANNOT_UNPACK),
    ("zstd in name only", _encoded(b"zstd", b"\xff" * 100), CANNOT_UNPACK),
    ("gzip with a byte flipped in its data", _encoded(b"gzip", _PACKED[:20] + b"\xff" + _PACKED[21:]), CANNOT_UNPACK),
    ("gzip around gzip, six times", _encoded(b"gzip, gzip, gzip, gzip, gzip, gzip", _PACKED), CANNOT_UNPACK),
    ("gzip cut off", _encoded(b"gzip", _PACKED[:-20], len(_PACKED)), HALF_AN_ANSWER),
    ("100,000 header lines", _headed(*(b"X-%d: y" % i for i in range(100000)), b"Content-Length: 0", body=b""),
     CANNOT_RECEIVE),
    ("a header line of a million bytes", _headed(b"X: " + b"y" * 1000000, body=b""), OUT_OF_MEMORY),
    ("a NUL byte in a header line", _headed(b"X: a\0b", b"Content-Length: 0", body=b""), WEIRD_ANSWER),
    ("an interim answer alone", answer(199), NO_ANSWER),
    ("10,000 interim answers", b"HTTP/1.1 100 Continue\r\nX: 0123456789012345678901234567890123456789\r\n\r\n" * 10000 +
     _headed(b"Content-Length: 0", body=b""), CANNOT_RECEIVE),
]


# Answers that look odd but are valid: a sentence, the bytes

VALID = [
    ("text after the document", answer(200, GOOD_LIST + b"}]garbage\xff")),
    ("a NUL byte and more after the document", answer(200, GOOD_LIST + b"\0{")),
    ("white space around everything", answer(200, GOOD_LIST.replace(b"{", b" \r\n\t{ ").replace(b"]", b" ]\n"))),
    ("members before the list", answer(200, b'{"meta": {"count": [1, 2.5, null, "]}"]}, ' + GOOD_LIST[1:])),
    ("members after the list", answer(200, GOOD_LIST[:-1] + b', "links": {"next": null}, "n": -1}')),
    ("the name of the list escaped", answer(200, GOOD_LIST.replace(b'"data"', b'"\\u0064ata"'))),
    ("two lists, of which the last counts", answer(200, b'{"data": [1, 2], ' + GOOD_LIST[1:])),
    ("two sizes, of which the last counts", answer(200, GOOD_LIST.replace(b'"size": 1000', b'"size": "x", "size": 9'))),
    ("more members than there should be", answer(200, text_of({"data": [package(more={"deep": [[[]]]})]}))),
    ("a member nested as deep as the parser goes", answer(200, GOOD_LIST[:-1] + b', "more": ' + b"[" * 2047 +
                                                           b"]" * 2047 + b"}")),
    ("another media type", answer(200, GOOD_LIST, ["Content-Type: text/html; charset=utf-16"])),
    ("no length, ended by closing", _headed(b"Connection: close")),
    ("HTTP/1.0", b"HTTP/1.0 200 OK\r\n\r\n" + GOOD_LIST),
    ("an interim answer in front", b"HTTP/1.1 100 Continue\r\n\r\n" + answer(200, GOOD_LIST)),
    ("chunks of one byte", _chunked(b"".join(b"1;x=y\r\n%c\r\n" % byte for byte in GOOD_LIST) + b"0\r\nT: t\r\n\r\n")),
    ("gzip", _encoded(b"gzip", _PACKED)),
    ("deflate", _encoded(b"deflate", zlib.compress(GOOD_LIST))),
    ("a body longer than its length", answer(200, GOOD_LIST + b"HTTP/1.1 500 Surplus\r\n\r\n", length=len(GOOD_LIST))),
]
