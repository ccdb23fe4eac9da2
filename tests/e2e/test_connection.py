"""What a service that cannot be reached, or must not be trusted, comes to."""

import socket
import ssl
import threading

import pytest
from scripted_service import ScriptedService, answer, make_certificate
from world import PORT, ROOT, TLS

GOOD_ANSWER = answer(200, '{"data": []}')
SUCCESS = ("0 deployment packages in the repository.\n", "", 0)


def failed(code):
    return ("", f"Error: qvrepo operation failed with status [{code}].\n", code)


def explained(records, code):
    """Whether the log holds the client's explanation right before the request's failure."""
    place = records.index((16, "curlSendRequest", "Failed to perform curl request for URI : "
                                                  f"quorvelle/deployment/packages.  retval : {code}"))
    level, function, text = records[place - 1]
    return (level, function) == (16, "QVClientCURL") and text


def test_a_service_that_is_down_fails_with_7(qvrepo, log_records):
    assert qvrepo("-list") == failed(7)
    assert explained(log_records(), 7)
    assert log_records()[-3:] == [
        (2, "listPackagesCmd", "Failed to list deployment packages in the repository. Error code returned from "
                               "curlSendRequest: 7."),
        (16, "main", "status code 7"), (4, "main", "qvrepo exit status: [7]")]


def test_a_service_that_hangs_up_fails_with_the_clients_code(qvrepo, log_records):
    with ScriptedService(b""):
        assert qvrepo("-list") == failed(52)
    assert explained(log_records(), 52)


@pytest.mark.parametrize("noise", [b"\x00" * 100, b"SSH-2.0-OpenSSH_9.2\r\n"])
def test_a_service_that_speaks_no_http_fails_with_the_clients_code(qvrepo, noise):
    with ScriptedService(noise):
        outcome = qvrepo("-list")
    assert outcome.stdout == "" and outcome.stderr == failed(outcome.status)[1]
    assert outcome.status in (1, 8, 56)


def test_a_service_that_speaks_no_tls_fails_with_35(qvrepo):
    with socket.create_server(("127.0.0.1", PORT)) as listener:

        def talk():
            connection, _ = listener.accept()
            with connection:
                connection.recv(4096)
                connection.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")

        thread = threading.Thread(target=talk)
        thread.start()
        assert qvrepo("-list") == failed(35)
        thread.join()


def test_a_certificate_of_another_authority_fails_with_60(qvrepo, log_records, tmp_path):
    make_certificate(tmp_path, "other", authority=None)
    make_certificate(tmp_path, "service", authority=tmp_path / "other")
    with ScriptedService(GOOD_ANSWER, certificate="service", folder=tmp_path) as service:
        assert qvrepo("-list") == failed(60)
        assert service.requests == []
    assert explained(log_records(), 60)


def test_a_self_signed_certificate_fails_with_60(qvrepo, tmp_path):
    make_certificate(tmp_path, "service", authority=None)
    with ScriptedService(GOOD_ANSWER, certificate="service", folder=tmp_path):
        assert qvrepo("-list") == failed(60)


def test_a_certificate_for_another_name_fails_with_60(qvrepo, tmp_path):
    make_certificate(tmp_path, "service", subject="/CN=other.example.com", san="DNS:other.example.com")
    with ScriptedService(GOOD_ANSWER, certificate="service", folder=tmp_path) as service:
        assert qvrepo("-list") == failed(60)
        assert service.requests == []


def test_an_expired_certificate_fails_with_60(qvrepo, tmp_path):
    make_certificate(tmp_path, "service", days=-1)
    with ScriptedService(GOOD_ANSWER, certificate="service", folder=tmp_path):
        assert qvrepo("-list") == failed(60)


def test_a_trusted_certificate_for_the_right_name_is_accepted(qvrepo, tmp_path):
    make_certificate(tmp_path, "service")
    with ScriptedService(GOOD_ANSWER, certificate="service", folder=tmp_path):
        assert qvrepo("-list") == SUCCESS


def test_a_missing_authority_fails_with_77(qvrepo, master):
    (TLS / "ca.pem").rename(TLS / "ca.away")
    assert qvrepo("-list") == failed(77)
    (TLS / "ca.away").rename(TLS / "ca.pem")


@pytest.mark.filterwarnings("ignore::DeprecationWarning")
def test_an_old_version_of_tls_is_refused(qvrepo):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.set_ciphers("ALL:@SECLEVEL=0")
    context.minimum_version = ssl.TLSVersion.TLSv1
    context.maximum_version = ssl.TLSVersion.TLSv1_1
    context.load_cert_chain(TLS / "master.pem", TLS / "master.key")
    with ScriptedService(GOOD_ANSWER, context=context) as service:
        assert qvrepo("-list") == failed(35)
        assert service.requests == []


def test_without_this_hosts_certificate_the_master_refuses(qvrepo, master):
    (TLS / "host.key").unlink()
    outcome = qvrepo("-list")
    assert outcome.stdout == "" and outcome.stderr == failed(outcome.status)[1]
    assert outcome.status in (35, 52, 55, 56)
    assert master.requests() == []
    assert "peer did not return a certificate" in master.await_problems()[0]


def test_a_redirect_is_not_followed(qvrepo):
    away = answer(301, "", ["Location: https://master.example.com:1556/elsewhere"])
    with ScriptedService(away, GOOD_ANSWER) as service:
        assert qvrepo("-list") == ("", "Error: Unexpected response from the web service.\n", 9103 & 0xFF)
    assert len(service.requests) == 1


def test_a_proxy_in_the_environment_is_not_used(qvrepo, master):
    proxy = "http://127.0.0.1:9"
    names = ["http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"]
    assert qvrepo("-list", env=dict.fromkeys(names, proxy)) == SUCCESS


def test_the_environment_does_not_choose_what_is_trusted(qvrepo, tmp_path):
    make_certificate(tmp_path, "service", authority=None)
    trust = {"SSL_CERT_FILE": str(tmp_path / "service.pem"), "CURL_CA_BUNDLE": str(tmp_path / "service.pem")}
    with ScriptedService(GOOD_ANSWER, certificate="service", folder=tmp_path):
        assert qvrepo("-list", env=trust) == failed(60)


def test_the_environment_gets_no_secrets_of_the_connection(qvrepo, master, tmp_path):
    assert qvrepo("-list", env={"SSLKEYLOGFILE": str(tmp_path / "secrets")}) == SUCCESS
    assert not (tmp_path / "secrets").exists()


def test_the_tree_is_private(tree):
    assert tree == ROOT and tree.stat().st_dev != ROOT.parent.stat().st_dev
