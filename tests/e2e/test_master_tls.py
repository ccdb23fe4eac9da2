"""Who may speak to qvmaster: clients with a certificate of its authority, over TLS 1.2 or newer."""

import re
import shutil
import signal
import socket
import ssl
import subprocess

import pytest
from world import (
    HOST,
    PACKAGES,
    PATIENCE,
    PORT,
    PROGRAMS,
    ROOT,
    SOURCES,
    TLS,
    await_that,
    client_context,
    raw_request,
    read_answers,
    read_to_end,
    run_qvmaster,
    send,
)


@pytest.fixture(scope="session")
def other_authority(template_tree, tmp_path_factory):
    """The TLS folder of another installation, whose certificates have the same names."""
    other = tmp_path_factory.mktemp("other")
    for part in ("publisher", "var"):
        shutil.copytree(template_tree / part, other / part)
    subprocess.run([SOURCES / "scripts/make-tree", other, HOST], check=True)
    return other / "quorvelle/tls"


def answer_over(master, context):
    """All that the service answers to a client that connects this way."""
    with master.open_tls(context) as connection:
        connection.sendall(raw_request("GET", PACKAGES)[:-2] + b"Connection: close\r\n\r\n")
        return read_to_end(connection)


def expect_refusal(master, context, alert, reason):
    """Connects, is told `alert` by TLS and never answered, and finds `reason` in the service's log.

    The client sends nothing: with TLS 1.3 it may be writing before it learns of the refusal, and loses the alert then.
    """
    with pytest.raises(ssl.SSLError, match=f"(?i)alert {alert}"):
        with master.open_tls(context) as connection:
            connection.recv(1)
    assert master.exchanges() == []
    (line,) = master.await_problems()
    assert re.fullmatch(r"qvmaster: refused the TLS client \[::ffff:127\.0\.0\.1\]:\d+: " + re.escape(reason), line), line


def context_of_version(version, **how):
    context = client_context(**how)
    context.minimum_version = version
    context.maximum_version = version
    return context


NEWER = [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3]


@pytest.mark.parametrize("version", NEWER)
def test_a_client_with_a_certificate_of_the_authority_is_answered(master, version):
    assert answer_over(master, context_of_version(version)).startswith(b"HTTP/1.1 200 ")


def test_the_master_servers_own_certificate_serves_a_client_too(master):
    assert answer_over(master, client_context("master")).startswith(b"HTTP/1.1 200 ")


@pytest.mark.parametrize("version", NEWER)
def test_a_client_without_a_certificate_gets_no_answer(master, version):
    expect_refusal(master, context_of_version(version, certificate=None), "", "peer did not return a certificate")


@pytest.mark.parametrize("version", NEWER)
def test_a_certificate_of_another_authority_gets_no_answer(master, other_authority, version):
    expect_refusal(master, context_of_version(version, directory=other_authority), "unknown ca",
                   "certificate verify failed (unable to get local issuer certificate)")


def test_a_certificate_that_signs_itself_gets_no_answer(master, tmp_path):
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
         f"/CN={HOST}", "-keyout", tmp_path / "self.key", "-out", tmp_path / "self.pem"],
        check=True, capture_output=True,
    )  # fmt: skip
    expect_refusal(master, client_context("self", tmp_path), "unknown ca",
                   "certificate verify failed (self-signed certificate)")


def signed_certificate(folder, name, *options):
    """A certificate of the master server's own authority; `options` are those of openssl x509."""
    request = subprocess.run(
        ["openssl", "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", f"/CN={HOST}",
         "-keyout", folder / f"{name}.key"],
        check=True, capture_output=True,
    ).stdout  # fmt: skip
    subprocess.run(
        ["openssl", "x509", "-req", "-CA", TLS / "ca.pem", "-CAkey", TLS / "ca.key", "-out", folder / f"{name}.pem",
         *options],
        input=request, check=True, capture_output=True,
    )  # fmt: skip
    return client_context(name, folder)


def test_an_expired_certificate_gets_no_answer(master, tmp_path):
    context = signed_certificate(tmp_path, "expired", "-days", "-1")
    expect_refusal(master, context, "certificate expired", "certificate verify failed (certificate has expired)")


def test_a_certificate_for_servers_only_gets_no_answer(master, tmp_path):
    extension = tmp_path / "extension"
    extension.write_text("extendedKeyUsage=serverAuth\n")
    context = signed_certificate(tmp_path, "server", "-extfile", extension)
    expect_refusal(master, context, "", "certificate verify failed (unsuitable certificate purpose)")


@pytest.mark.filterwarnings("ignore::DeprecationWarning")
@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1])
def test_tls_before_1_2_is_refused(master, version):
    context = client_context()
    # Without this, the client itself would not even try.
    context.set_ciphers("ALL:@SECLEVEL=0")
    context.minimum_version = version
    context.maximum_version = version
    expect_refusal(master, context, "protocol version", "unsupported protocol")


def test_plain_http_gets_no_answer(master):
    with socket.create_connection((HOST, PORT), timeout=PATIENCE) as connection:
        connection.sendall(raw_request("GET", PACKAGES))
        try:
            received = read_to_end(connection)
        except ConnectionResetError:
            received = b""
    # At most a TLS alert, which begins with 0x15.
    assert received[:1] in (b"", b"\x15")
    assert master.exchanges() == []
    assert master.await_problems()[0].endswith(": http request")


def test_a_client_that_comes_again_shows_its_certificate_again(master):
    context = client_context()
    for _ in range(2):
        with master.open_tls(context) as connection:
            connection.sendall(raw_request("GET", PACKAGES)[:-2] + b"Connection: close\r\n\r\n")
            assert read_to_end(connection).startswith(b"HTTP/1.1 200 ")
            session = connection.session
    with socket.create_connection((HOST, master.port), timeout=PATIENCE) as plain:
        with context.wrap_socket(plain, server_hostname=HOST, session=session) as connection:
            assert not connection.session_reused


def test_the_service_shows_a_certificate_for_its_name(master):
    connection = master.connect()
    assert send(connection, "GET", PACKAGES).status == 200
    assert ("DNS", HOST) in connection.sock.getpeercert()["subjectAltName"]
    connection.close()


def refusal():
    outcome = run_qvmaster("--db", ROOT / "db", "--tls", TLS)
    assert (outcome.stdout, outcome.status) == ("", 1)
    return outcome.stderr


@pytest.mark.parametrize("file", [TLS / "ca.pem", TLS / "master.pem", TLS / "master.key"], ids=lambda file: file.name)
def test_without_one_of_its_certificates_the_service_does_not_start(file):
    file.unlink()
    assert refusal() == f"qvmaster: cannot read {file}: No such file or directory\n"
    file.mkdir()
    assert refusal() == f"qvmaster: cannot read {file}: Is a directory\n"
    file.rmdir()
    file.write_text("nonsense")
    assert re.fullmatch(f"qvmaster: cannot use {file}: [^:]+\n", refusal())


def test_a_key_that_the_service_may_not_read_is_named_with_the_systems_reason(tmp_path):
    TLS.joinpath("master.key").chmod(0)
    nobody = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"]
    run = subprocess.run([*nobody, PROGRAMS / "qvmaster", "--db", tmp_path / "db", "--tls", TLS], capture_output=True,
                         text=True, timeout=PATIENCE)
    assert (run.stdout, run.stderr) == ("", f"qvmaster: cannot read {TLS}/master.key: Permission denied\n")


def test_an_encrypted_key_is_refused_without_asking_for_its_passphrase():
    key = TLS / "master.key"
    subprocess.run(["openssl", "pkey", "-in", key, "-aes256", "-passout", "pass:secret", "-out", TLS / "encrypted"],
                   check=True)
    (TLS / "encrypted").rename(key)
    assert refusal().startswith(f"qvmaster: cannot use {key}: ")


def test_with_the_key_of_another_certificate_the_service_does_not_start():
    shutil.copy(TLS / "host.key", TLS / "master.key")
    assert refusal() == f"qvmaster: cannot use {TLS / 'master.key'}: key values mismatch\n"


def presented_certificate(master):
    with master.open_tls() as connection:
        return connection.getpeercert()["serialNumber"]


def hang_up(master):
    master.process.send_signal(signal.SIGHUP)


def replace_certificate(tmp_path):
    """Gives the service a new certificate of its authority."""
    extension = tmp_path / "extension"
    extension.write_text(f"subjectAltName=DNS:{HOST}\n")
    signed_certificate(tmp_path, "new", "-extfile", extension)
    for ending in ("pem", "key"):
        shutil.copy(tmp_path / f"new.{ending}", TLS / f"master.{ending}")


def test_sighup_reads_the_certificates_again_and_keeps_the_connections(master, tmp_path):
    before = presented_certificate(master)
    connection = master.connect()
    assert send(connection, "GET", PACKAGES).status == 200
    replace_certificate(tmp_path)
    assert presented_certificate(master) == before
    hang_up(master)
    await_that(lambda: presented_certificate(master) != before, "the new certificate")
    assert send(connection, "GET", PACKAGES).status == 200
    connection.close()


def test_after_sighup_with_unusable_certificates_the_service_keeps_the_old_ones_and_says_so(master, tmp_path):
    before = presented_certificate(master)
    replace_certificate(tmp_path)
    (TLS / "master.key").unlink()
    hang_up(master)
    assert master.await_problems() == [
        f"qvmaster: cannot read {TLS}/master.key: No such file or directory; serving on with the certificates that were "
        "read before"]
    assert presented_certificate(master) == before


def test_a_refused_client_that_stays_is_dropped(idle_master):
    idle_master.start("--timeout", "1")
    alone = idle_master.sockets()
    with socket.create_connection((HOST, PORT), timeout=PATIENCE) as connection:
        connection.sendall(b"GET / HTTP/1.1\r\n")
        while connection.recv(1000):
            pass
        await_that(lambda: idle_master.sockets() == alone, "an end of the connection")
    assert len(idle_master.problems()) == 1


def strict_client(master):
    """A connection on which an end without TLS's close_notify raises ssl.SSLEOFError."""
    context = client_context()
    context.options &= ~ssl.OP_IGNORE_UNEXPECTED_EOF
    plain = socket.create_connection((HOST, master.port), timeout=PATIENCE)
    return context.wrap_socket(plain, server_hostname=HOST, suppress_ragged_eofs=False)


@pytest.mark.parametrize("beginning", [b"", b"GET /", raw_request("GET", PACKAGES)[:-2]], ids=["idle", "line", "head"])
def test_a_client_that_falls_silent_is_told_the_end_of_the_connection(idle_master, beginning):
    idle_master.start("--timeout", "1")
    with strict_client(idle_master) as connection:
        connection.sendall(beginning)
        assert connection.recv(1) == b""


def test_idle_clients_are_told_the_end_of_the_service(idle_master):
    idle_master.start("--timeout", "3600")
    with strict_client(idle_master) as connection:
        connection.sendall(raw_request("GET", PACKAGES))
        read_answers(connection, 1)
        idle_master.terminate()
        assert connection.recv(1) == b""
        assert idle_master.wait() == 0


def test_of_many_refused_clients_a_bounded_number_is_logged_a_minute_and_failures_besides(master):
    context = client_context(certificate=None)
    for _ in range(100):
        with pytest.raises(ssl.SSLError):
            with master.open_tls(context) as connection:
                connection.recv(1)
    (TLS / "ca.pem").rename(TLS / "away")
    hang_up(master)
    problems = master.await_problems(61)
    assert len(problems) == 61 and "cannot read" in problems[60]
