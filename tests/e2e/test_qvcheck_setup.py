"""qvcheck setup: each condition is broken alone, found with its cause, and mended by its remedy."""

import json
import os
import shutil
import socket
import subprocess
from pathlib import Path

import jsonschema
import pytest
from packages import SINGLE, make_single
from qvcheck import condition, findings, follow, report, run_qvcheck
from scripted_service import ScriptedService, answer, make_certificate
from world import HOST, PORT, REPOSITORY, ROOT, SOURCES, TLS

CONFIGURATION = ROOT / "quorvelle/master.json"
KEY = ROOT / "var/global/dunmarel/pubkey.pem"
LOG = ROOT / "quorvelle/logs/qvrepo"
CONDITIONS = ["administrator", "product-root", "repository", "space", "configuration", "role", "resolution",
              "connection", "authority", "host-certificate", "host-key", "service-certificate", "request",
              "signing-key", "debug-log", "catalogs"]


def states():
    document, _ = report("setup")
    return {each["name"]: each["status"] for each in document["setup"]}


def failing():
    """The failing conditions; those behind them, which are skipped; and those with a warning."""
    by_state = {}
    for name, state in states().items():
        by_state.setdefault(state, []).append(name)
    return by_state.get("fail", []), by_state.get("skip", []), by_state.get("warning", [])


def test_all_is_right_on_a_new_server(master):
    assert list(states().items()) == [(name, "ok") for name in CONDITIONS]
    outcome = run_qvcheck("setup")
    assert (outcome.stderr, outcome.status) == ("", 0)
    lines = outcome.stdout.splitlines()
    assert lines[0] == "ok    administrator        uid 0"
    assert f"ok    role                 {HOST}: this machine, by its host name" in lines
    assert run_qvcheck("setup", "--quiet") == ("", "", 0)


def test_a_failure_is_told_with_cause_remedy_and_command(master):
    shutil.rmtree(REPOSITORY)
    assert run_qvcheck("setup", "--quiet") == (
        f"FAIL  repository           {REPOSITORY}: No such file or directory\n"
        "      Make the directory, or mount the volume that holds it:\n"
        f"      install -d -m 0750 {REPOSITORY}\n", "", 1)


# Conditions whose remedy is a command


def break_mode(path, mode):
    return lambda: path.chmod(mode)


@pytest.mark.parametrize("damage, name, cause, skipped", [
    (lambda: shutil.rmtree(REPOSITORY), "repository", "No such file or directory", ["space"]),
    (break_mode(REPOSITORY, 0o777), "repository", "Operation not permitted", ["space"]),
    (break_mode(ROOT, 0o775), "product-root", "Operation not permitted", []),
    (CONFIGURATION.unlink, "configuration", "No such file or directory",
     ["role", "resolution", "connection", "service-certificate", "request"]),
    (lambda: CONFIGURATION.write_text('{"servers": ["a",\n'), "configuration", "2: ']' expected near end of file",
     ["role", "resolution", "connection", "service-certificate", "request"]),
    (lambda: CONFIGURATION.write_text('{"servers": []}'), "configuration", '"servers": []',
     ["role", "resolution", "connection", "service-certificate", "request"]),
    (lambda: CONFIGURATION.write_text('{"servers": ["other.example.com"]}'), "role", f"hostname: {HOST}",
     ["resolution", "connection", "service-certificate", "request"]),
    (break_mode(TLS / "host.key", 0o640), "host-key", "Operation not permitted", []),
])
def test_a_failure_with_a_command_is_mended_by_it(master, damage, name, cause, skipped):
    damage()
    assert failing() == ([name], skipped, [])
    found = condition(name)
    assert found["cause"] == cause
    follow(found["command"])
    assert failing() == ([], [], [])


def test_a_name_that_does_not_resolve_is_mended_by_the_command(master):
    hosts = Path("/etc/hosts")
    before = hosts.read_text()
    try:
        hosts.write_text("127.0.0.1 localhost\n")
        assert failing() == (["resolution"], ["connection", "service-certificate", "request"], [])
        follow(condition("resolution")["command"])
        assert failing() == ([], [], [])
    finally:
        hosts.write_text(before)


def test_the_role_is_found_by_each_of_its_three_ways(master):
    for name, note in (("MASTER.example.com", "this machine, by its host name"),
                       ("alias.example.com", "this machine, by one of its addresses")):
        CONFIGURATION.write_text(json.dumps({"servers": [name]}))
        assert condition("role")["note"] == note
    subprocess.run(["hostname", "master"], check=True)
    try:
        CONFIGURATION.write_text(json.dumps({"servers": ["localhost"]}))
        assert condition("role")["note"] == "this machine, by its fully qualified name"
    finally:
        subprocess.run(["hostname", HOST], check=True)
    master.problems()  # under two of the names its certificate is refused, which it logs


# Conditions whose remedy is a thing to be had from somebody


@pytest.fixture
def kept(tmp_path):
    """kept(path) damages nothing: it keeps a copy, and gives what puts it back, as the remedy tells to."""

    def keep(path):
        copy = shutil.copy2(path, tmp_path)
        return lambda: shutil.copy2(copy, path)

    return keep


@pytest.mark.parametrize("path, name, skipped", [
    (TLS / "ca.pem", "authority", ["service-certificate", "request"]),
    (TLS / "host.pem", "host-certificate", ["host-key", "service-certificate", "request"]),
    (TLS / "host.key", "host-certificate", ["host-key", "service-certificate", "request"]),
    (KEY, "signing-key", []),
])
@pytest.mark.parametrize("damage", [Path.unlink, lambda path: path.write_bytes(b"damaged")])
def test_a_file_that_is_missing_or_damaged_is_found_until_it_is_put_into_its_place(master, kept, path, name, skipped,
                                                                                  damage):
    put_back = kept(path)
    damage(path)
    assert failing() == ([name], skipped, [])
    found = condition(name)
    assert found["cause"] and str(path) in found["remedy"]
    put_back()
    assert failing() == ([], [], [])


def test_a_certificate_and_a_key_that_are_no_pair_are_found(master):
    shutil.copy2(TLS / "master.key", TLS / "host.key")
    assert condition("host-certificate")["cause"] == "key values mismatch"


@pytest.mark.parametrize("days, state", [(29, "warning"), (31, "ok"), (-1, "fail")])
def test_the_days_of_each_certificate_are_counted(master, tmp_path, days, state):
    made = tmp_path / "made"
    if days < 0:
        # This OpenSSL makes no certificate that has ended, but one that began long ago.
        make_certificate(made, "host", days=1)
        return expire_host_certificate(made, state)
    make_certificate(made, "host", days=days)
    for ending in ("pem", "key"):
        shutil.copy(made / f"host.{ending}", TLS)
    (TLS / "host.key").chmod(0o600)
    found = condition("host-certificate")
    assert found["status"] == state
    assert found["note"] in (f"valid for {days} days", f"valid for {days - 1} days")


def expire_host_certificate(made, state):
    request = subprocess.run(["openssl", "req", "-new", "-key", made / "host.key", "-subj", "/CN=host"],
                             check=True, capture_output=True).stdout
    (made / "index").write_text("")
    (made / "serial").write_text("01\n")
    (made / "ca.cnf").write_text(f"[ca]\ndefault_ca=a\n[a]\ndatabase={made}/index\nserial={made}/serial\n"
                                 f"new_certs_dir={made}\ndefault_md=sha256\npolicy=p\n[p]\ncommonName=supplied\n")
    (made / "request").write_bytes(request)
    subprocess.run(["openssl", "ca", "-batch", "-config", made / "ca.cnf", "-cert", TLS / "ca.pem", "-keyfile",
                    TLS / "ca.key", "-in", made / "request", "-out", TLS / "host.pem", "-startdate", "20200101000000Z",
                    "-enddate", "20200201000000Z", "-notext"], check=True, capture_output=True)
    shutil.copy(made / "host.key", TLS)
    (TLS / "host.key").chmod(0o600)
    found = condition("host-certificate")
    assert (found["status"], found["cause"]) == (state, "certificate has expired")


# The service


def test_a_service_that_does_not_run_is_found(idle_master):
    assert failing() == (["connection"], ["service-certificate", "request"], [])
    found = condition("connection")
    assert (found["subject"], found["cause"]) == (f"{HOST}:{PORT}", "Connection refused")
    assert "Start the master server's web service" in found["remedy"]
    idle_master.start()
    assert failing() == ([], [], [])


@pytest.mark.parametrize("authority, san, cause", [
    (TLS / "ca", "DNS:other.example.com", "hostname mismatch"),
    (None, f"DNS:{HOST}", "self-signed certificate"),
])
def test_a_service_certificate_that_is_wrong_is_found(tree, tmp_path, authority, san, cause):
    make_certificate(tmp_path / "made", "service", san=san, authority=authority)
    with ScriptedService(answer(200, '{"data": []}'), certificate="service", directory=tmp_path / "made"):
        assert failing() == (["service-certificate"], ["request"], [])
        assert condition("service-certificate")["cause"] == cause


def test_a_service_that_speaks_no_tls_is_found(tree):
    with socket.create_server(("127.0.0.1", PORT)) as listener:
        pid = os.fork()
        if pid == 0:
            for _ in range(2):
                connection, _ = listener.accept()
                connection.sendall(b"HTTP/1.1 400 Bad Request\r\n\r\n")
                connection.close()
            os._exit(0)
        assert condition("service-certificate")["status"] == "fail"
        os.kill(pid, 9)
        os.waitpid(pid, 0)


@pytest.mark.parametrize("reply, cause", [
    (answer(406, '{"errorCode": 9103, "errorMessage": "other release"}'), "HTTP 406, errorCode 9103: other release"),
    (answer(500, "nonsense"), "HTTP 500"),
    (answer(200, "{}"), "HTTP 200, not a list of packages [9103]"),
])
def test_the_services_answer_is_told_where_it_is_no_list(tree, reply, cause):
    with ScriptedService(reply) as service:
        document, status = report("setup")
        (found,) = [each for each in document["setup"] if each["name"] == "request"]
        assert (found["status"], found["cause"], status) == ("fail", cause, 1)
        assert service.requests[-1][1]["Accept"] == "application/vnd.quorvelle+json;version=6.0"


# Space, log, catalogs


def test_a_volume_that_is_full_or_has_no_room_for_a_package_is_found(master, volume):
    volume("size=100m,mode=755")
    filler = REPOSITORY / "filler"
    filler.write_bytes(bytes(99 * 1024 * 1024 + 512 * 1024))
    assert condition("space")["cause"] == "No space left on device"
    filler.write_bytes(bytes(98 * 1024 * 1024 + 700 * 1024))
    found = condition("space")
    assert (found["status"], found["note"].split(", ")[1]) == ("warning", "room for a package of 0 MB")
    filler.unlink()
    assert failing() == ([], [], [])


def test_the_debug_log_is_told_to_be_on_or_off_and_found_where_it_is_no_directory(master):
    assert condition("debug-log")["note"] == "on"
    shutil.rmtree(LOG)
    assert condition("debug-log")["note"] == "off; a directory of this name turns it on"
    LOG.write_text("")
    assert condition("debug-log")["cause"] == "Not a directory"


def test_a_damaged_catalog_of_the_locale_is_found(master):
    catalog = ROOT / "quorvelle/msg/de/qvrepo.cat"
    catalog.parent.mkdir()
    catalog.write_bytes(b"damaged")
    german = {"LC_ALL": "de_DE.UTF-8"}
    found = condition("catalogs", env=german)
    assert (found["status"], found["subject"]) == ("fail", str(catalog))
    shutil.copy(PROGRAMS_CATALOG, catalog)
    assert condition("catalogs", env=german)["note"] == "the locale's catalog is used"
    assert condition("catalogs", env={"LC_ALL": "xx_YY"})["note"].startswith("no catalog of this locale")


PROGRAMS_CATALOG = Path(os.environ["QV_BIN"]).parent / "msg/de/qvrepo.cat"


# Everybody but root


def test_who_is_not_root_is_told_and_nothing_else_is_looked_at(master):
    other = ("setpriv", "--bounding-set=-all") if os.geteuid() else ("unshare", "--user")
    outcome = run_qvcheck("setup", under=other)
    assert outcome.stdout.splitlines()[0].startswith("FAIL  administrator")
    assert outcome.stdout.count("skip") == len(CONDITIONS) - 1
    assert outcome.status == 1
    assert run_qvcheck("repository", under=other) == ("", "qvcheck: must be administrator.\n", 3)
    assert run_qvcheck("list", under=other).status == 3


# Both


def test_all_checks_both_in_one_document_that_keeps_to_its_schema(master, qvrepo, tmp_path):
    assert qvrepo("-add", str(make_single(tmp_path))).status == 0
    (REPOSITORY / "stray").write_text("")
    shutil.rmtree(LOG)
    LOG.write_text("")
    document, status = report("all", "--settle", "0")
    assert status == 1
    assert document["counts"] == {"ok": 15, "warnings": 0, "failures": 1, "skipped": 0, "findings": 1, "pending": 0}
    assert document["checked"] == {"setup": True, "repository": True, "packages": 1, "files": 2, "signatures": 1}
    schema = json.loads((SOURCES / "docs/qvcheck.schema.json").read_text())
    jsonschema.Draft7Validator.check_schema(schema)
    (REPOSITORY / SINGLE).unlink()
    for words in (["all"], ["setup"], ["repository"], ["repository", "--settle", "0"]):
        jsonschema.validate(report(*words)[0], schema)
    del document["checked"]
    with pytest.raises(jsonschema.ValidationError):
        jsonschema.validate(document, schema)


def test_all_tells_the_setup_where_the_repository_cannot_be_checked(idle_master):
    outcome = run_qvcheck("all", "--json")
    assert outcome.status == 3
    assert outcome.stderr.startswith(f"qvcheck: the service at {HOST} gave no list of packages")
    document = json.loads(outcome.stdout)
    assert (document["checked"]["repository"], document["counts"]["failures"]) == (False, 1)


def test_texts_are_in_the_users_language_and_json_is_english(master):
    catalog = ROOT / "quorvelle/msg/de/qvcheck.cat"
    catalog.parent.mkdir()
    shutil.copy(PROGRAMS_CATALOG.with_name("qvcheck.cat"), catalog)
    (REPOSITORY / "stray").write_text("")
    german = {"LC_ALL": "de_DE.UTF-8"}
    first = run_qvcheck("repository", env=german).stdout.splitlines()[0]
    assert first == f"unlisted-file: {REPOSITORY}/stray: Kein Paket nennt diese Datei."
    assert findings(env=german)[0]["message"] == "No package names this file."
