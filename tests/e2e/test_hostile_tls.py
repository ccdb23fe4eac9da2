"""A service that must not be trusted, or whose handshake fails: nothing is sent to it."""

import datetime
import socket
import ssl
import struct
import threading

import pytest
from hostile_answers import GOOD_LIST, TextBeginning
from hostile_certificates import LENIENT, TRUSTED, WRONG_IN_ITSELF, Issuer, issue, make_authority
from hostile_ways import LITTLE_MEMORY, closing_records, error_line
from scripted_service import ScriptedService, answer
from world import HOST, INSTRUMENTED, PATIENCE, PORT, TLS, read_log_records, run_measured

CANNOT_CONNECT, TLS_FAILED, NOT_TRUSTED = 7, 35, 60
ANSWER = answer(200, GOOD_LIST)


def check_failed(code, env=None):
    outcome, peak = run_measured("-list", env=env)
    assert outcome == ("", error_line(code), code)
    uri = "quorvelle/deployment/packages"
    assert read_log_records()[2:] == [
        (2, "curlSendRequest", f"Sending curl request with URI : {uri}."),
        (16, "QVClientCURL", TextBeginning("")),
        (16, "curlSendRequest", f"Failed to perform curl request for URI : {uri}.  retval : {code}"),
        (2, "listPackagesCmd", "Failed to list deployment packages in the repository. Error code returned from "
                               f"curlSendRequest: {code}."),
        *closing_records(code)]
    assert INSTRUMENTED or 0 < peak < LITTLE_MEMORY


def server_context(certificate, chain=(), ciphers="ALL:@SECLEVEL=0"):
    """TLS of a service that accepts every weakness."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.set_ciphers(ciphers)
    whole = [certificate.certificate, *(issuer.certificate for issuer in chain)]
    sent = f"{certificate.certificate}.chain"
    with open(sent, "w", encoding="ascii") as file:
        for part in whole:
            with open(part, encoding="ascii") as one:
                file.write(one.read())
    context.load_cert_chain(sent, certificate.key)
    return context


def check_not_trusted(certificate, chain=(), code=NOT_TRUSTED):
    with ScriptedService(ANSWER, context=server_context(certificate, chain)) as service:
        check_failed(code)
        assert service.requests == []


def day(offset):
    date = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(days=offset)
    return date.strftime("%Y%m%d%H%M%SZ")


DAYS = {"yesterday": day(-1), "tomorrow": day(1)}


@pytest.mark.parametrize("how", [pytest.param(how, id=sentence) for sentence, how in WRONG_IN_ITSELF])
def test_a_certificate_that_is_wrong_in_itself_is_not_trusted(how, tmp_path):
    check_not_trusted(issue(tmp_path, **{name: DAYS.get(value, value) if isinstance(value, str) else value
                                         for name, value in how.items()}))


def test_a_certificate_of_an_authority_that_bears_the_trusted_ones_name_is_not_trusted(tmp_path):
    other = make_authority(tmp_path)
    check_not_trusted(issue(tmp_path, issuer=other), chain=[other])


def test_a_certificate_that_signed_itself_is_not_trusted(tmp_path):
    check_not_trusted(make_authority(tmp_path, "service", f"/CN={HOST}"))


def test_a_certificate_whose_intermediate_authority_is_not_sent_is_not_trusted(tmp_path):
    intermediate = issue(tmp_path, "intermediate", subject="/CN=intermediate", extensions=["basicConstraints=critical,CA:TRUE"])
    check_not_trusted(issue(tmp_path, issuer=intermediate))


def test_a_certificate_whose_issuer_is_not_an_authority_is_not_trusted(tmp_path):
    leaf = issue(tmp_path, "leaf", subject="/CN=leaf", extensions=["basicConstraints=critical,CA:FALSE"])
    check_not_trusted(issue(tmp_path, issuer=leaf), chain=[leaf])


def test_a_certificate_issued_with_the_masters_own_is_not_trusted(tmp_path):
    own = Issuer(TLS / "master")
    check_not_trusted(issue(tmp_path, issuer=own), chain=[own])


def test_an_authority_below_one_with_path_length_0_is_not_trusted(tmp_path):
    first = issue(tmp_path, "first", subject="/CN=first", extensions=["basicConstraints=critical,CA:TRUE,pathlen:0"])
    second = issue(tmp_path, "second", issuer=first, subject="/CN=second",
                   extensions=["basicConstraints=critical,CA:TRUE"])
    check_not_trusted(issue(tmp_path, issuer=second), chain=[second, first])


def test_the_certificate_of_this_host_is_not_trusted_as_a_service(tree):
    check_not_trusted(Issuer(TLS / "host"))


@pytest.mark.parametrize("env", [None, LENIENT], ids=["by default", "where OpenSSL would take it"])
@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1], ids=["TLS 1.0", "TLS 1.1"])
@pytest.mark.filterwarnings("ignore::DeprecationWarning")
def test_an_old_version_is_refused(version, env):
    context = server_context(Issuer(TLS / "master"))
    context.minimum_version = context.maximum_version = version
    with ScriptedService(ANSWER, context=context) as service:
        check_failed(TLS_FAILED, env)
        assert service.requests == []


@pytest.mark.parametrize("ciphers", ["aNULL:@SECLEVEL=0", "eNULL:@SECLEVEL=0"], ids=["without a key", "in the clear"])
def test_a_connection_without_protection_is_refused(ciphers):
    context = server_context(Issuer(TLS / "master"), ciphers=ciphers)
    context.maximum_version = ssl.TLSVersion.TLSv1_2
    with ScriptedService(ANSWER, context=context) as service:
        check_failed(TLS_FAILED)
        assert service.requests == []


@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3], ids=["TLS 1.2", "TLS 1.3"])
@pytest.mark.parametrize("how, chained", [
    pytest.param({}, False, id="by the authority"),
    pytest.param({"extensions": ["subjectAltName=DNS:*.example.com"]}, False, id="for all hosts of the domain"),
    pytest.param({"subject": "/CN=x"}, False, id="by its other name"),
    pytest.param({"digest": "sha512", "key": ("rsa:2048",)}, True, id="by an intermediate authority, sent along")])
def test_a_valid_certificate_is_trusted(version, how, chained, tmp_path):
    chain = [issue(tmp_path, "intermediate", subject="/CN=intermediate", extensions=["basicConstraints=critical,CA:TRUE"])]
    issuer = {"issuer": chain[0]} if chained else {"issuer": TRUSTED}
    context = server_context(issue(tmp_path, **issuer, **how), chain)
    context.minimum_version = context.maximum_version = version
    with ScriptedService(ANSWER, context=context) as service:
        outcome, _ = run_measured("-list")
    assert (outcome.stderr, outcome.status, len(service.requests)) == ("", 0, 1)


# What comes before any certificate


def reply_with(content):
    def behave(connection):
        connection.recv(4096)
        connection.sendall(content)
        # Closing with bytes unread would tear the connection down.
        connection.shutdown(socket.SHUT_WR)
        while connection.recv(4096):
            pass

    return behave


def reset_after_the_hello(connection):
    connection.recv(4096)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def close_at_once(connection):
    connection.shutdown(socket.SHUT_WR)
    while connection.recv(4096):
        pass


@pytest.mark.parametrize("behave", [
    pytest.param(close_at_once, id="closes at once"),
    pytest.param(reset_after_the_hello, id="resets after the greeting"),
    pytest.param(reply_with(b""), id="closes after the greeting"),
    pytest.param(reply_with(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"), id="speaks plain HTTP"),
    pytest.param(reply_with(b"SSH-2.0-OpenSSH_9.2\r\n"), id="speaks another protocol"),
    pytest.param(reply_with(b"\0" * 5000), id="sends zeros"),
    pytest.param(reply_with(b"\x15\x03\x03\x00\x02\x02\x28"), id="sends an alert"),
    pytest.param(reply_with(b"\x15\x03\x03\xff\xff" + b"\x02" * 70000), id="sends an alert of 64 KiB"),
    pytest.param(reply_with(b"\x16\x03\x03\x40\x00\x02\x00\x3f\xfc" + b"\xff" * 0x3ffc), id="sends a wrong hello"),
    pytest.param(reply_with(b"\x16\x03\x03\x00\x04\x02\xff\xff\xff"), id="announces a hello of 16 MB"),
    pytest.param(reply_with(b"\x16\x03\x03\x00\x00" * 5000), id="sends empty records")])
def test_a_service_that_breaks_off_the_handshake_fails_with_35(behave):
    with socket.create_server(("127.0.0.1", PORT)) as listener:

        def serve():
            connection, _ = listener.accept()
            connection.settimeout(PATIENCE)
            with connection:
                try:
                    behave(connection)
                except OSError:
                    pass  # the program has gone first

        thread = threading.Thread(target=serve)
        thread.start()
        check_failed(TLS_FAILED)
        thread.join()


def test_a_port_that_nobody_listens_on_fails_with_7():
    check_failed(CANNOT_CONNECT)
