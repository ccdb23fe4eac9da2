"""A web service that answers what a test tells it to, byte for byte, over TLS on the master server's port.

It stands in for qvmaster, for what qvmaster never does: half an answer, another media type, a certificate that
must not be trusted.
"""

import socket
import ssl
import subprocess
import threading

from world import PATIENCE, PORT, TLS


def answer(status, body=b"", headers=(), length=None):
    """A whole HTTP answer; `length` replaces the true Content-Length."""
    if isinstance(body, str):
        body = body.encode()
    lines = [f"HTTP/1.1 {status} Whatever", f"Content-Length: {len(body) if length is None else length}", *headers]
    return "\r\n".join(lines).encode() + b"\r\n\r\n" + body


class ScriptedService:
    """Answers each request with the next of `answers` and closes; after the last one with that again. An answer is
    bytes, or a function of the connection that sends what it likes.

    `requests` holds what came: (request line, {header: value}, body), as text.
    """

    def __init__(self, *answers, certificate="master", directory=TLS, context=None):
        self.answers = list(answers)
        self.requests = []
        if context is None:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(directory / f"{certificate}.pem", directory / f"{certificate}.key")
        self._context = context
        self._listener = socket.create_server(("127.0.0.1", PORT))
        self._thread = threading.Thread(target=self._serve, daemon=True)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *exception):
        # Wakes a waiting accept(); closing the socket alone would not.
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join(PATIENCE)
        self._listener.close()

    def _serve(self):
        while True:
            try:
                plain, _ = self._listener.accept()
            except OSError:
                return
            plain.settimeout(PATIENCE)
            # Else the answer waits until the client has acknowledged what TLS sent before it.
            plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            try:
                with self._context.wrap_socket(plain, server_side=True) as connection:
                    self._serve_one(connection)
            except (OSError, ValueError):  # the client went away, or the answer has closed the connection itself
                plain.close()

    def _serve_one(self, connection):
        head, body = self._read_request(connection)
        lines = head.decode("latin-1").split("\r\n")
        headers = dict(line.split(": ", 1) for line in lines[1:])
        self.requests.append((lines[0], headers, body.decode("utf-8", "surrogateescape")))
        reply = self.answers.pop(0) if len(self.answers) > 1 else self.answers[0]
        if callable(reply):
            reply(connection)
        else:
            connection.sendall(reply)
        # A half answer is one whose connection ends in good order, not one that is torn down.
        connection.unwrap()

    @staticmethod
    def _read_request(connection):
        received = b""
        while b"\r\n\r\n" not in received:
            part = connection.recv(65536)
            if not part:
                raise OSError("no request")
            received += part
        head, body = received.split(b"\r\n\r\n", 1)
        length = 0
        for line in head.split(b"\r\n"):
            if line.lower().startswith(b"content-length:"):
                length = int(line.split(b":")[1])
        while len(body) < length:
            part = connection.recv(65536)
            if not part:
                raise OSError("the request's body breaks off")
            body += part
        return head, body


def make_certificate(directory, name, subject="/CN=master.example.com", san="DNS:master.example.com", days=30,
                     authority=TLS / "ca"):
    """A certificate NAME.pem with NAME.key in `directory`, by the authority of the tree or another one; self-signed
    where `authority` is None."""
    directory.mkdir(exist_ok=True)
    key, certificate = directory / f"{name}.key", directory / f"{name}.pem"
    request = ["openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-keyout", key,
               "-subj", subject]
    if authority is None:
        subprocess.run([*request, "-x509", "-days", str(days), "-addext", f"subjectAltName={san}", "-out",
                        certificate], check=True, capture_output=True)
        return
    made = subprocess.run(request, check=True, capture_output=True)
    extensions = directory / f"{name}.ext"
    extensions.write_text(f"subjectAltName={san}\n")
    subprocess.run(["openssl", "x509", "-req", "-CA", f"{authority}.pem", "-CAkey", f"{authority}.key", "-days",
                    str(days), "-extfile", extensions, "-out", certificate], input=made.stdout, check=True,
                   capture_output=True)
