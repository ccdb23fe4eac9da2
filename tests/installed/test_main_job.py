"""The whole main job with the installed programs, the service run by its unit's command line and confinement."""

import re

import pytest
from debian import LATER, PACKAGES, Service, unit_setting

NAME = "dunmarel_qvclient_8.3_redhat_x64.sja"
ADDED = ("Adding package to the repository. This may take a few minutes...\n"
         "Successfully added deployment package ID: {} to the repository.\n")
LIST = ("ID Type     Version OS         File Name                           \n"
        "-- -------- ------- ---------- ------------------------------------\n"
        "1  client   8.3     redhat_x64 dunmarel_qvclient_8.3_redhat_x64.sja\n")


def make_package(debian, name=NAME):
    debian.path("root/client.txt").write_text("the client\n")
    made = debian.run("sjapack", "create", f"/root/{name}", "/root/client.txt", "--key", "/root/signing.key")
    assert made.output.endswith(f"{name}: 1 entry, signed, single package\n"), made.output


def test_a_package_is_made_added_listed_shown_and_deleted(prepared, service):
    make_package(prepared)
    assert prepared.run("qvrepo", "-add", f"/root/{NAME}").output == ADDED.format(1)
    assert prepared.run("qvrepo", "-list").output == LIST
    details = prepared.run("qvrepo", "-pkgDetails", "1").output
    assert f"Package File Name: {NAME}\n" in details
    stored = prepared.path(f"usr/ormex/var/global/repo/{NAME}")
    assert stored.read_bytes() == prepared.path(f"root/{NAME}").read_bytes()
    deleted = prepared.run("qvrepo", "-delete", "1", stdin="y\n").output
    assert deleted == "qvrepo: delete package ID 1 [y/n]? (n) Package ID 1 has been deleted from the repository.\n"
    assert not stored.exists()


@pytest.mark.parametrize("locale, said", [
    ("C", "Error: Deployment package is not found in the repository.\n"),
    ("de_DE.UTF-8", "Error: Das Bereitstellungspaket wurde im Repository nicht gefunden.\n"),
    ("ja_JP.UTF-8", "Error: デプロイメントパッケージがリポジトリに見つかりません。\n"),
])
def test_messages_come_in_the_language_of_the_user(prepared, service, locale, said):
    assert prepared.run("qvrepo", "-pkgDetails", "99", env={"LC_ALL": locale}, expect=52).output == said


@pytest.mark.parametrize("page", ["qvrepo.8", "qvmaster.8", "sjapack.1", "sja.5"])
def test_a_manual_page_is_found_and_shown_without_complaint(installed, page):
    name, section = page.split(".")
    shown = installed.run("man", "--warnings", section, name, env={"LC_ALL": "C.UTF-8", "MANWIDTH": "80"}).output
    assert shown.startswith(f"{name.upper()}({section})") or shown.startswith(f"{name}({section})"), shown[:200]
    assert "warning:" not in shown


def test_what_was_added_before_an_upgrade_is_listed_and_deleted_after_it(prepared, service):
    make_package(prepared)
    prepared.run("qvrepo", "-add", f"/root/{NAME}")
    assert service.stop() == 0
    prepared.dpkg("--install", *PACKAGES, directory=LATER)
    with Service(prepared) as later:
        assert prepared.run("qvrepo", "-list").output == LIST
        prepared.run("qvrepo", "-delete", "1", stdin="y\n")
        assert later.stop() == 0


def test_the_service_writes_nowhere_but_in_its_own_directory(prepared, service):
    before = prepared.facts("/etc", "/usr/ormex", "/tmp", "/root")
    make_package(prepared, "dunmarel_qvserver_8.3_redhat_x64.sja")
    before_add = prepared.facts("/etc", "/tmp")
    prepared.run("qvrepo", "-add", "/root/dunmarel_qvserver_8.3_redhat_x64.sja")
    assert prepared.facts("/etc", "/tmp") == before_add
    written = {path.name for path in prepared.path("var/lib/qvmaster").iterdir()}
    assert written == {"qvmaster.db", "qvmaster.db-shm", "qvmaster.db-wal"}
    assert prepared.facts("/etc") == {path: fact for path, fact in before.items() if path.startswith("/etc")}


def test_the_service_makes_no_system_call_that_its_unit_forbids(prepared, tmp_path):
    trace = tmp_path / "calls"
    with Service(prepared, tracer=["strace", "-D", "-f", "-qq", "-o", trace]) as running:
        make_package(prepared)
        prepared.run("qvrepo", "-add", f"/root/{NAME}")
        prepared.run("qvrepo", "-list")
        assert running.stop() == 0
    _, _, own = trace.read_text().rpartition('execve("/usr/sbin/qvmaster"')
    called = set(re.findall(r"^\d+ +(?:<\.\.\. )?([a-z]\w+)[( ]", own, re.MULTILINE))
    assert {"openat", "write", "fdatasync", "accept"} <= called, called
    allowed = system_calls(prepared, "@default") | system_calls(prepared, "@system-service")
    for forbidden in re.findall(r"@\w+", unit_setting(prepared, "SystemCallFilter", "~")):
        allowed -= system_calls(prepared, forbidden)
    assert called - allowed == set()


def system_calls(debian, name):
    """The calls of one of systemd's sets, and of the sets in it."""
    calls = set()
    for line in debian.run("systemd-analyze", "syscall-filter", "--no-pager", name).output.splitlines()[1:]:
        word = line.strip()
        if word.startswith("@"):
            calls |= system_calls(debian, word)
        elif word and not word.startswith("#"):
            calls.add(word)
    return calls


def test_without_certificates_the_service_says_what_is_missing(installed):
    service = Service(installed)
    assert service.process.wait(60) == 1
    assert service.first_line.startswith("qvmaster: ") and "/etc/qvmaster/tls/" in service.first_line
    assert unit_setting(installed, "ConditionPathExists") == "/etc/qvmaster/tls/master.pem"


def test_a_certificate_directory_that_the_service_cannot_read_is_named(prepared):
    prepared.path("etc/qvmaster/tls").chmod(0o700)
    service = Service(prepared)
    assert service.process.wait(60) == 1
    assert service.first_line.startswith("qvmaster: ") and "/etc/qvmaster/tls/" in service.first_line
