"""Who may speak to qvmaster: clients with a certificate of its authority, over TLS 1.2 or newer."""

import shutil
import socket
import ssl
import subprocess

import pytest
from world import (
    HOST,
    PACKAGES,
    PATIENCE,
    PORT,
    ROOT,
    SOURCES,
    TLS,
    client_context,
    raw_request,
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


def knock(master, context):
    """Connects and waits for the service to speak first, as it does to one whom it turns away: by an ssl.SSLError.

    Nothing is sent: with TLS 1.3 a client may be writing before it learns of the refusal, and loses the reason then.
    """
    with master.open_tls(context) as connection:
        connection.recv(1)


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
    with pytest.raises(ssl.SSLError, match="(?i)alert"):
        knock(master, context_of_version(version, certificate=None))
    assert master.exchanges() == []


@pytest.mark.parametrize("version", NEWER)
def test_a_certificate_of_another_authority_gets_no_answer(master, other_authority, version):
    with pytest.raises(ssl.SSLError, match="(?i)alert unknown ca"):
        knock(master, context_of_version(version, directory=other_authority))
    assert master.exchanges() == []


def test_a_certificate_that_signs_itself_gets_no_answer(master, tmp_path):
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj",
         f"/CN={HOST}", "-keyout", tmp_path / "self.key", "-out", tmp_path / "self.pem"],
        check=True, capture_output=True,
    )  # fmt: skip
    with pytest.raises(ssl.SSLError, match="(?i)alert unknown ca"):
        knock(master, client_context("self", tmp_path))
    assert master.exchanges() == []


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
    with pytest.raises(ssl.SSLError, match="(?i)alert certificate expired"):
        knock(master, context)
    assert master.exchanges() == []


def test_a_certificate_for_servers_only_gets_no_answer(master, tmp_path):
    extension = tmp_path / "extension"
    extension.write_text("extendedKeyUsage=serverAuth\n")
    context = signed_certificate(tmp_path, "server", "-extfile", extension)
    with pytest.raises(ssl.SSLError, match="(?i)alert"):
        knock(master, context)
    assert master.exchanges() == []


@pytest.mark.filterwarnings("ignore::DeprecationWarning")
@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1])
def test_tls_before_1_2_is_refused(master, version):
    context = client_context()
    # Without this, the client itself would not even try.
    context.set_ciphers("ALL:@SECLEVEL=0")
    context.minimum_version = version
    context.maximum_version = version
    with pytest.raises(ssl.SSLError, match="(?i)alert protocol version"):
        knock(master, context)


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


@pytest.mark.parametrize(
    "file, attempt",
    [
        ("ca.pem", "cannot read the authority's certificate"),
        ("master.pem", "cannot read the certificate"),
        ("master.key", "cannot use the key"),
    ],
)
def test_without_one_of_its_certificates_the_service_does_not_start(file, attempt):
    (TLS / file).unlink()
    assert refusal().startswith(f"qvmaster: {attempt} {TLS / file}: ")
    (TLS / file).write_text("nonsense")
    assert refusal().startswith(f"qvmaster: {attempt} {TLS / file}: ")


def test_with_the_key_of_another_certificate_the_service_does_not_start():
    shutil.copy(TLS / "host.key", TLS / "master.key")
    assert refusal() == f"qvmaster: cannot use the key {TLS / 'master.key'}: key values mismatch\n"
