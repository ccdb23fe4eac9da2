"""qvcheck setup: each condition is broken alone, found with its cause, and mended by its remedy."""

import json
import os
import shutil
import socket
import subprocess
from functools import partial
from pathlib import Path

import jsonschema
import pytest
from hostile_certificates import Issuer, issue, make_authority
from packages import SINGLE, make_single
from qvcheck import at_once, condition, findings, follow, report, run_qvcheck
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


def put_host_pair(made):
    """Puts NAME.pem and NAME.key where this machine has its own."""
    shutil.copy(made.certificate, TLS / "host.pem")
    shutil.copy(made.key, TLS / "host.key")
    (TLS / "host.key").chmod(0o600)


@pytest.mark.parametrize("days, state", [(29, "warning"), (31, "ok")])
def test_the_days_of_each_certificate_are_counted(master, tmp_path, days, state):
    make_certificate(tmp_path / "made", "host", days=days)
    put_host_pair(Issuer(tmp_path / "made/host"))
    found = condition("host-certificate")
    assert found["status"] == state
    assert found["note"] in (f"valid for {days} days", f"valid for {days - 1} days")


def put_expired_pair(directory):
    put_host_pair(issue(directory, "host", end="20200201000000Z"))


def put_key_of_another(_):
    shutil.copy2(TLS / "master.key", TLS / "host.key")


@pytest.mark.parametrize("damage, cause", [
    (put_expired_pair, "certificate has expired"),
    (put_key_of_another, "key values mismatch"),
])
def test_a_host_certificate_that_cannot_be_used_is_mended_by_one_that_the_authority_signs(master, tmp_path, damage,
                                                                                       cause):
    damage(tmp_path)
    assert failing() == (["host-certificate"], ["host-key", "service-certificate", "request"], [])
    found = condition("host-certificate")
    assert found["cause"] == cause
    assert found["remedy"] == ("Have the authority sign a certificate for this machine; put it into "
                               f"{TLS}/host.pem and its key, not encrypted, into {TLS}/host.key.")
    put_host_pair(issue(tmp_path, "host"))
    assert failing() == ([], [], [])


# The service


def test_a_service_that_does_not_run_is_found(idle_master):
    assert failing() == (["connection"], ["service-certificate", "request"], [])
    found = condition("connection")
    assert (found["subject"], found["cause"]) == (f"{HOST}:{PORT}", "Connection refused")
    assert "Start the master server's web service" in found["remedy"]
    idle_master.start()
    assert failing() == ([], [], [])


def give_service(made):
    shutil.copy(made.certificate, TLS / "master.pem")
    shutil.copy(made.key, TLS / "master.key")


def follow_certificate_remedy(directory, found):
    assert found["remedy"] == (f"Give the service a certificate for the name {HOST} that is valid and signed by the "
                               f"authority in {TLS}/ca.pem.")
    give_service(issue(directory))


@pytest.mark.parametrize("make, cause", [
    (lambda place: issue(place, extensions=["subjectAltName=DNS:other.example.com"]), "hostname mismatch"),
    (lambda place: issue(place, end="20200201000000Z"), "certificate has expired"),
    (lambda place: issue(place, issuer=make_authority(place)), "unable to get local issuer certificate"),
    (lambda place: make_authority(place, subject=f"/CN={HOST}"), "self-signed certificate"),
])
def test_a_service_certificate_that_is_wrong_is_found_until_it_has_another(idle_master, tmp_path, make, cause):
    give_service(make(tmp_path))
    idle_master.start()
    assert failing() == (["service-certificate"], ["request"], [])
    found = condition("service-certificate")
    assert found["cause"] == cause
    idle_master.problems()  # it logs each client that goes away
    idle_master.stop()
    follow_certificate_remedy(tmp_path, found)
    idle_master.start()
    assert failing() == ([], [], [])


def test_a_service_that_speaks_no_tls_is_found_until_it_does(idle_master, tmp_path):
    with socket.create_server(("127.0.0.1", PORT)) as listener:
        pid = os.fork()
        if pid == 0:
            for _ in range(2):
                connection, _ = listener.accept()
                connection.sendall(b"HTTP/1.1 400 Bad Request\r\n\r\n")
                connection.close()
            os._exit(0)
        found = condition("service-certificate")
        assert found["status"] == "fail"
        os.kill(pid, 9)
        os.waitpid(pid, 0)
    follow_certificate_remedy(tmp_path, found)
    idle_master.start()
    assert failing() == ([], [], [])


READ_LOG = "Read the service's own log. It may refuse this machine's certificate, or be of another release."


@pytest.mark.parametrize("reply, cause", [
    (answer(406, '{"errorCode": 9103, "errorMessage": "other release"}'), "HTTP 406, errorCode 9103: other release"),
    (answer(500, "nonsense"), "HTTP 500"),
    (answer(200, "{}"), "HTTP 200, not a list of packages [9103]"),
])
def test_the_services_answer_is_told_until_it_is_of_this_release(idle_master, reply, cause):
    with ScriptedService(reply) as service:
        document, status = report("setup")
        (found,) = [each for each in document["setup"] if each["name"] == "request"]
        assert (found["status"], found["cause"], found["remedy"], status) == ("fail", cause, READ_LOG, 1)
        assert service.requests[-1][1]["Accept"] == "application/vnd.quorvelle+json;version=6.0"
    idle_master.start()
    assert failing() == ([], [], [])


def test_a_service_that_refuses_this_machines_certificate_says_so_in_its_log(master, kept, tmp_path):
    put_back = [kept(TLS / "host.pem"), kept(TLS / "host.key")]
    put_host_pair(issue(tmp_path, "stranger", issuer=make_authority(tmp_path)))
    assert failing() == (["request"], [], [])
    assert condition("request")["remedy"] == READ_LOG
    assert any("certificate" in line for line in master.await_problems()), master.problems()
    for put in put_back:
        put()
    assert failing() == ([], [], [])


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


def test_the_debug_log_is_told_to_be_on_or_off(master):
    assert condition("debug-log")["note"] == "on"
    LOG.rmdir()
    assert condition("debug-log")["note"] == "off; a directory of this name turns it on"


@pytest.fixture
def read_only_log(tree):
    subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "log", LOG], check=True)
    yield
    subprocess.run(["umount", LOG], check=True)


def assert_log_is_not_writable(cause):
    assert failing() == (["debug-log"], [], [])
    found = condition("debug-log")
    assert (found["cause"], found["remedy"]) == (cause, "Make it a directory that root can write to.")


def test_a_debug_log_that_is_no_directory_is_found_until_it_is_one(master):
    LOG.rmdir()
    LOG.write_text("")
    assert_log_is_not_writable("Not a directory")
    LOG.unlink()
    LOG.mkdir()
    assert failing() == ([], [], [])


def test_a_debug_log_that_cannot_be_written_is_found_until_it_can(read_only_log, master):
    assert_log_is_not_writable("Read-only file system")
    subprocess.run(["mount", "-o", "remount,rw", LOG], check=True)
    assert failing() == ([], [], [])


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
    ways = (["all"], ["setup"], ["repository"], ["repository", "--settle", "0"])
    for each, _ in at_once(*(partial(report, *words) for words in ways)):
        jsonschema.validate(each, schema)
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
    text, found = at_once(lambda: run_qvcheck("repository", env=german), lambda: findings(env=german))
    assert text.stdout.splitlines()[0] == f"unlisted-file: {REPOSITORY}/stray: Kein Paket nennt diese Datei."
    assert found[0]["message"] == "No package names this file."
