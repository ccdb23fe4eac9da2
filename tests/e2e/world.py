"""The world that the end-to-end tests act in: a master server's tree, its web service, and the program qvrepo.

Tests get these as fixtures from conftest.py. Everything lies below /usr/ormex, which inside the sandbox belongs to
the test alone.
"""

import http.client
import json
import os
import re
import shutil
import signal
import socket
import sqlite3
import ssl
import subprocess
import tempfile
import time
from pathlib import Path
from typing import NamedTuple

ROOT = Path("/usr/ormex")
TLS = ROOT / "quorvelle/tls"
REPOSITORY = ROOT / "var/global/repo"
HOST = "master.example.com"
PORT = 1556
PACKAGES = "/quorvelle/deployment/packages"
MEDIA_TYPE = "application/vnd.quorvelle+json;version=6.0"

SOURCES = Path(__file__).resolve().parents[2]
PROGRAMS = Path(os.environ["QV_BIN"])

# Seconds, longer than anything takes on a busy machine; a test that waits this long has failed. Programs that run under
# an instrument take many times as long.
PATIENCE = int(os.environ.get("QV_PATIENCE", "60"))


def await_that(condition, what):
    """Returns when `condition()` is true; the test fails when that takes too long."""
    deadline = time.monotonic() + PATIENCE
    while not condition():
        assert time.monotonic() < deadline, f"waited in vain: {what}"
        time.sleep(0.01)


def fill_root(template):
    """Replaces all that lies in /usr/ormex by a copy of the tree `template`."""
    for entry in ROOT.iterdir():
        if entry.is_dir() and not entry.is_symlink():
            shutil.rmtree(entry)
        else:
            entry.unlink()
    shutil.copytree(template, ROOT, dirs_exist_ok=True, symlinks=True)


class Reply(NamedTuple):
    """What the web service answers: status, headers (names in lower case), and body in bytes."""

    status: int
    headers: dict
    body: bytes

    @property
    def json(self):
        return json.loads(self.body)

    @property
    def error(self):
        """The error code of an error body that is complete, with the status: (404, 227)."""
        body = self.json
        assert sorted(body) == ["errorCode", "errorMessage"], body
        assert isinstance(body["errorMessage"], str) and body["errorMessage"], body
        return self.status, body["errorCode"]


class Outcome(NamedTuple):
    """How a run of a program ended."""

    stdout: str
    stderr: str
    status: int


def client_context(certificate="host", directory=TLS):
    """TLS as an honest client sets it up; `certificate` names NAME.pem and NAME.key, or is None for none."""
    context = ssl.create_default_context(cafile=TLS / "ca.pem")
    if certificate is not None:
        context.load_cert_chain(Path(directory) / f"{certificate}.pem", Path(directory) / f"{certificate}.key")
    return context


def creation_body(file_name, items=None, type="qvclient", os="redhat_x64", version="8.3", **attributes):
    """The body that creates a package, as an object. `items` are pairs of file name and size in bytes; without
    them the package is a single file. Further `attributes` are added or replace those made here."""
    items = [(file_name, 1000)] if items is None else items
    return {
        "data": {
            "type": "newPackageAttributes",
            "attributes": {
                "packageFileName": file_name,
                "packageName": file_name,
                "os": os,
                "version": version,
                "packageType": type,
                "packageItems": [{"fileName": name, "fileSize": size} for name, size in items],
                **attributes,
            },
        }
    }


def own_items(number, items):
    return items and [(f"{number}-{name}", size) for name, size in items]


class Master:
    """qvmaster on the tree below /usr/ormex, and a client of its own to it.

    start() returns when it accepts connections; stop() ends it with SIGTERM and returns its exit status; kill() ends
    it at once. It can be started again, on the database that it left. After the test it is stopped, and must then
    have ended well and have reported nothing, unless the test has read its `problems()`.
    """

    database = ROOT / "qvmaster.db"
    access_log = ROOT / "qvmaster.requests"
    errors = ROOT / "qvmaster.err"

    def __init__(self):
        self.process = None
        self.port = PORT
        self._problems_read = False

    # The service as a process

    def start(self, *arguments, under=()):
        """Starts the service, with further options, and returns the line that it prints. `under`
        names a program, with its arguments, that becomes the service."""
        assert self.process is None, "qvmaster runs already"
        standard = ["--db", self.database, "--tls", TLS, "--access-log", self.access_log]
        with open(self.errors, "ab") as errors:
            self.process = subprocess.Popen(
                [*under, PROGRAMS / "qvmaster", *standard, *arguments], stdout=subprocess.PIPE, stderr=errors, text=True
            )
        line = self.process.stdout.readline()
        if not line:
            status = self.process.wait(PATIENCE)
            self.process = None
            raise AssertionError(f"qvmaster ended with {status}: {self.problems()}")
        self.port = int(line.rsplit(":", 1)[1])
        return line

    def terminate(self):
        """Asks the service to stop, and does not wait."""
        self.process.send_signal(signal.SIGTERM)

    def wait(self):
        """Waits for the service to end; its exit status."""
        status = self.process.wait(PATIENCE)
        rest = self.process.stdout.read()
        self.process.stdout.close()
        self.process = None
        assert rest == "", f"qvmaster printed more than its one line: {rest}"
        return status

    def stop(self):
        self.terminate()
        return self.wait()

    def kill(self):
        self.process.kill()
        return self.wait()

    def problems(self):
        """The lines on its standard error so far; who reads them answers for them."""
        self._problems_read = True
        return self.errors.read_text().splitlines()

    def await_problems(self, count=1):
        """The lines on its standard error, once there are `count`."""
        await_that(lambda: len(self.problems()) >= count, f"{count} lines on standard error")
        return self.problems()

    def sockets(self):
        """How many sockets the service has open."""
        directory = Path(f"/proc/{self.process.pid}/fd")
        count = 0
        for entry in directory.iterdir():
            try:
                count += os.readlink(entry).startswith("socket:")
            except FileNotFoundError:  # closed meanwhile
                pass
        return count

    def finish(self):
        """Stops the service after a test and checks that it went well."""
        if self.process is not None:
            assert self.stop() == 0, self.errors.read_text()
        if not self._problems_read and self.errors.exists():
            assert self.errors.read_text() == ""

    # A client to it

    def connect(self, certificate="host"):
        """A connection for several requests, of http.client; to be closed by the caller."""
        return http.client.HTTPSConnection(
            HOST, self.port, context=client_context(certificate), timeout=PATIENCE
        )

    def request(self, method, target, body=None, headers=None):
        """Sends one request, over a connection of its own; `body` may be an object, text or bytes."""
        connection = self.connect()
        try:
            return send(connection, method, target, body, headers)
        finally:
            connection.close()

    def get(self, target=PACKAGES, **how):
        return self.request("GET", target, **how)

    def post(self, body, **how):
        return self.request("POST", PACKAGES, body=body, **how)

    def delete(self, package_id):
        return self.request("DELETE", f"{PACKAGES}/{package_id}")

    def register(self, file_name, items=None, **attributes):
        """Creates a package (see creation_body) and returns it as the service answers: an object with "id"."""
        reply = self.post(creation_body(file_name, items, **attributes))
        assert reply.status == 201, reply
        return reply.json["data"]

    def register_many(self, count, name="qvclient_{}_redhat_x64.sja", items=None):
        """Creates `count` packages over one connection, many requests at a time: `name` with 0, 1, ... in it, and in
        front of each item's name."""
        with self.open_tls() as connection:
            for first in range(0, count, 100):
                batch = range(first, min(first + 100, count))
                bodies = [json.dumps(creation_body(name.format(i), own_items(i, items))).encode() for i in batch]
                connection.sendall(b"".join(raw_request("POST", PACKAGES, body) for body in bodies))
                for answer in read_answers(connection, len(batch)):
                    assert answer.status == 201, answer

    def open_tls(self, context=None):
        """A bare TLS connection, for bytes of the caller's own."""
        plain = socket.create_connection((HOST, self.port), timeout=PATIENCE)
        return (context or client_context()).wrap_socket(plain, server_hostname=HOST)

    def send_raw(self, request):
        """Sends bytes as they are and returns all that comes until the service closes."""
        with self.open_tls() as connection:
            connection.sendall(request)
            return read_to_end(connection)

    # What it has seen and keeps

    def exchanges(self):
        """The requests so far, as its access log tells them: objects with method, target, accept, contentType, body
        and status."""
        if not self.access_log.exists():
            return []
        return [json.loads(line) for line in self.access_log.read_text().splitlines()]

    def requests(self):
        """The requests so far, as pairs of method and target."""
        return [(exchange["method"], exchange["target"]) for exchange in self.exchanges()]

    def packages(self):
        """The packages in the database, in order of ID: objects of its columns, with "items" as pairs of name and
        size. Works while the service is stopped, too."""
        with sqlite3.connect(self.database) as database:
            database.row_factory = sqlite3.Row
            packages = [dict(row) for row in database.execute("SELECT * FROM packages ORDER BY id")]
            for package in packages:
                items = database.execute(
                    "SELECT fileName, fileSize FROM packageItems WHERE packageId = ? ORDER BY position",
                    (package["id"],),
                )
                package["items"] = [tuple(item) for item in items]
        database.close()
        return packages


def run_qvmaster(*arguments):
    """Runs qvmaster with exactly these arguments to its end, which it must come to by itself."""
    run = subprocess.run([PROGRAMS / "qvmaster", *arguments], capture_output=True, text=True, timeout=PATIENCE)
    return Outcome(run.stdout, run.stderr, run.returncode)


def send(connection, method, target, body=None, headers=None):
    """One request over `connection` (see Master.connect), with the Accept header of a usual client unless `headers`
    holds another, or None for none."""
    if isinstance(body, (dict, list)):
        body = json.dumps(body)
    if isinstance(body, str):
        body = body.encode()
    sent = {"Accept": MEDIA_TYPE, **(headers or {})}
    if body is not None:
        sent.setdefault("Content-Type", "application/json")
    connection.request(method, target, body, {name: value for name, value in sent.items() if value is not None})
    response = connection.getresponse()
    received = {name.lower(): value for name, value in response.getheaders()}
    return Reply(response.status, received, response.read())


def raw_request(method, target, body=b"", accept=MEDIA_TYPE):
    """A request as bytes, for those that http.client refuses to send."""
    target = target.encode() if isinstance(target, str) else target
    head = b"%s %s HTTP/1.1\r\nHost: %s\r\nAccept: %s\r\n" % (
        method.encode(),
        target,
        HOST.encode(),
        accept.encode(),
    )
    length = b"Content-Length: %d\r\n" % len(body) if body else b""
    return head + length + b"\r\n" + body


def read_to_end(connection):
    """All bytes until the other side closes."""
    parts = []
    while True:
        try:
            part = connection.recv(65536)
        except ssl.SSLEOFError:
            part = b""
        if not part:
            return b"".join(parts)
        parts.append(part)


def read_answers(connection, count):
    """Reads `count` answers with a Content-Length from a bare connection."""
    answers, received = [], b""
    while len(answers) < count:
        head, separator, rest = received.partition(b"\r\n\r\n")
        length = int(re.search(rb"Content-Length: (\d+)", head)[1]) if separator else 0
        if separator and len(rest) >= length:
            answers.append(Reply(int(head.split()[1]), {}, rest[:length]))
            received = rest[length:]
            continue
        part = connection.recv(65536)
        assert part, f"the service closed after {len(answers)} answers"
        received += part
    return answers


# A thousand packages with these items make a list that by far exceeds what the system keeps under way between the
# service and a slow client.
LONG_ITEMS = [(f"{i:03}" + "x" * 200, 1) for i in range(40)]


def slow_client(master):
    """A bare TLS connection to which the service can send only a little at a time, until read_slowly_begun."""
    plain = socket.socket()
    plain.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 32768)
    plain.settimeout(PATIENCE)
    plain.connect((HOST, master.port))
    return client_context().wrap_socket(plain, server_hostname=HOST)


def read_slowly_begun(connection):
    """Reads the rest from a slow_client, at full speed."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 * 1024 * 1024)
    return read_to_end(connection)


def chunked_body(answer):
    """The body of an answer, given as bytes, that came in chunks; None when it breaks off."""
    head, _, rest = answer.partition(b"\r\n\r\n")
    assert b"Transfer-Encoding: chunked" in head, head
    parts, position = [], 0
    while True:
        end = rest.find(b"\r\n", position)
        size = int(rest[position:end], 16) if end >= 0 else 0
        if end < 0 or len(rest) < end + 2 + size + 2:
            return None
        if size == 0:
            return b"".join(parts)
        parts.append(rest[end + 2 : end + 2 + size])
        position = end + 2 + size + 2


def run_qvrepo(*arguments, stdin=None, env=None, under=(), timeout=PATIENCE, program="qvrepo"):
    """Runs qvrepo, or another program, with `arguments`, `stdin` (text; nothing without it) and variables `env` in an otherwise plain
    environment. Bytes that are not UTF-8 stand in the outcome as Python's surrogate escapes. `under` is a command that
    runs it, `timeout` the seconds within which it has to end."""
    plain = {name: value for name, value in os.environ.items() if not name.startswith(("LC_", "LANG"))}
    run = subprocess.run(
        [*under, PROGRAMS / program, *arguments],
        input=stdin or "",
        env={**plain, **(env or {})},
        capture_output=True,
        encoding="utf-8",
        errors="surrogateescape",
        timeout=timeout,
    )
    return Outcome(run.stdout, run.stderr, run.returncode)


# A program with sanitizers, or one that a script starts under valgrind, takes memory and time of its own.
INSTRUMENTED = any(mark in (PROGRAMS / "qvrepo").read_bytes() for mark in (b"__asan_init", b"exec valgrind"))


def run_measured(*arguments, **how):
    """run_qvrepo, and the most memory that the program held at once, in MB (0 for an instrumented one)."""
    with tempfile.NamedTemporaryFile("r") as report:
        # time(1) is small enough not to count itself, which a Python parent is not.
        under = ["/usr/bin/time", "-f", "%M", "-o", report.name]
        outcome = run_qvrepo(*arguments, under=under, **how)
        return outcome, 0 if INSTRUMENTED else int(report.read().split()[-1]) / 1024


LOG_RECORD = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z \[\d+\] <(\d+)> ([A-Za-z_0-9:]+): (.*)")


def read_log_records():
    """The records of qvrepo's debug log so far, as (level, function, text); a line that is not a record fails."""
    records = []
    for file in sorted((ROOT / "quorvelle/logs/qvrepo").glob("*.log")):
        for line in file.read_text(encoding="utf-8", errors="surrogateescape").split("\n")[:-1]:
            match = LOG_RECORD.fullmatch(line)
            assert match, f"not a log record: {line!r}"
            records.append((int(match[1]), match[2], match[3]))
    return records


def list_repository():
    """The names of all that lies in the repository directory, sorted."""
    return sorted(entry.name for entry in REPOSITORY.iterdir())
