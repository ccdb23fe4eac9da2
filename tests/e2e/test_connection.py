"""How a run ends whose service cannot be reached or must not be trusted."""

import pytest
from scripted_service import ScriptedService, answer, make_certificate
from world import ROOT, TLS

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


@pytest.mark.parametrize("noise", [b"\x00" * 100, b"SSH-2.0-OpenSSH_9.2\r\n"])
def test_a_service_that_does_not_speak_http_fails_with_the_clients_code(qvrepo, noise):
    with ScriptedService(noise):
        outcome = qvrepo("-list")
    assert outcome.stdout == "" and outcome.stderr == failed(outcome.status)[1]
    assert outcome.status in (1, 8, 56)


def test_a_certificate_of_another_authority_fails_with_60(qvrepo, log_records, tmp_path):
    make_certificate(tmp_path, "other", authority=None)
    make_certificate(tmp_path, "service", authority=tmp_path / "other")
    with ScriptedService(GOOD_ANSWER, certificate="service", directory=tmp_path) as service:
        assert qvrepo("-list") == failed(60)
        assert service.requests == []
    assert explained(log_records(), 60)


def test_a_missing_authority_fails_with_77(qvrepo, master):
    (TLS / "ca.pem").rename(TLS / "ca.away")
    assert qvrepo("-list") == failed(77)
    (TLS / "ca.away").rename(TLS / "ca.pem")


def test_without_this_hosts_certificate_the_master_refuses(qvrepo, master):
    (TLS / "host.key").unlink()
    outcome = qvrepo("-list")
    assert outcome.stdout == "" and outcome.stderr == failed(outcome.status)[1]
    assert outcome.status in (35, 52, 55, 56)
    assert master.requests() == []
    assert "peer did not return a certificate" in master.await_problems()[0]


def test_a_proxy_in_the_environment_is_not_used(qvrepo, master):
    proxy = "http://127.0.0.1:9"
    names = ["http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"]
    assert qvrepo("-list", env=dict.fromkeys(names, proxy)) == SUCCESS


def test_the_environment_does_not_choose_what_is_trusted(qvrepo, tmp_path):
    make_certificate(tmp_path, "service", authority=None)
    trust = {"SSL_CERT_FILE": str(tmp_path / "service.pem"), "CURL_CA_BUNDLE": str(tmp_path / "service.pem")}
    with ScriptedService(GOOD_ANSWER, certificate="service", directory=tmp_path):
        assert qvrepo("-list", env=trust) == failed(60)


def test_the_environment_gets_no_secrets_of_the_connection(qvrepo, master, tmp_path):
    assert qvrepo("-list", env={"SSLKEYLOGFILE": str(tmp_path / "secrets")}) == SUCCESS
    assert not (tmp_path / "secrets").exists()


def test_the_tree_is_private(tree):
    assert tree == ROOT and tree.stat().st_dev != ROOT.parent.stat().st_dev
