"""Installing, upgrading, removing and purging: what is the administrator's stays."""

import os
import subprocess

import pytest
from debian import LATER, PACKAGES, unit_setting

PACKAGE = "/usr/ormex/var/global/repo/dunmarel_qvclient_8.3_redhat_x64.sja"
OWN = ("/usr/ormex/var", "/usr/ormex/quorvelle/tls", "/usr/ormex/quorvelle/master.json", "/usr/ormex/quorvelle/logs",
       "/etc/qvmaster", "/var/lib/qvmaster")


def put(debian, name, text, mode=0o640):
    debian.path(name).parent.mkdir(exist_ok=True)
    debian.path(name).write_text(text)
    debian.path(name).chmod(mode)


def live_in(debian):
    """What an administrator has after a while: a package, keys, configuration, a log, a database; and own modes."""
    put(debian, PACKAGE, "a package")
    put(debian, "/usr/ormex/var/global/dunmarel/pubkey.pem", "the publisher's key")
    put(debian, "/usr/ormex/quorvelle/tls/host.key", "this host's key", 0o600)
    put(debian, "/usr/ormex/quorvelle/master.json", '{"servers": ["master.example.com"]}')
    put(debian, "/usr/ormex/quorvelle/logs/qvrepo/qvrepo.2026-11-20.log", "a record")
    put(debian, "/etc/qvmaster/tls/master.key", "the service's key")
    put(debian, "/var/lib/qvmaster/qvmaster.db", "a database")
    debian.path("/usr/ormex/var/global/repo").chmod(0o700)
    debian.run("chown", "qvmaster:qvmaster", "/var/lib/qvmaster/qvmaster.db")


def test_the_directories_of_packages_keys_and_logs_are_roots_alone(installed):
    for directory, mode in (("var/global/repo", 0o750), ("var/global/dunmarel", 0o750), ("quorvelle/logs", 0o750),
                         ("quorvelle/tls", 0o700)):
        state = installed.path(f"usr/ormex/{directory}").stat()
        assert (directory, oct(state.st_mode & 0o7777), state.st_uid, state.st_gid) == (directory, oct(mode), 0, 0)


def test_the_service_gets_a_user_and_directories_of_its_own(installed):
    user = installed.run("getent", "passwd", "qvmaster").output.split(":")
    assert user[5:] == ["/var/lib/qvmaster", "/usr/sbin/nologin\n"]
    uid, gid = int(user[2]), int(user[3])
    state = installed.path("var/lib/qvmaster").stat()
    assert (oct(state.st_mode & 0o7777), state.st_uid, state.st_gid) == ("0o700", uid, gid)
    state = installed.path("etc/qvmaster/tls").stat()
    assert (oct(state.st_mode & 0o7777), state.st_uid, state.st_gid) == ("0o750", 0, gid)


def test_the_debug_log_is_off_until_the_administrator_makes_its_directory(installed):
    assert list(installed.path("usr/ormex/quorvelle/logs").iterdir()) == []


def test_the_unit_is_one_that_systemd_accepts(installed):
    assert installed.run("systemd-analyze", "verify", "--man=no", "qvmaster.service").output == ""


def test_the_unit_confines_the_service(installed):
    # systemd's own measure of what a service could do, from 0.0 to 10.0; the usual service is at 9.6.
    installed.run("systemd-analyze", "security", "--offline=true", "--threshold=15", "--no-pager", "qvmaster.service")
    for setting, value in (("ProtectSystem", "strict"), ("NoNewPrivileges", "yes"), ("PrivateTmp", "yes"),
                           ("User", "qvmaster"), ("StateDirectory", "qvmaster")):
        assert unit_setting(installed, setting) == value


def test_an_upgrade_leaves_everything_of_the_administrator_as_it_was(installed):
    live_in(installed)
    before = installed.facts(*OWN)
    installed.dpkg("--install", *PACKAGES, directory=LATER)
    assert installed.facts(*OWN) == before
    versions = installed.run("dpkg-query", "--show", "--showformat=${Version} ", *PACKAGES).output.split()
    assert [version.rpartition("-")[2] for version in versions] == ["2", "2", "2"]


def test_a_removal_leaves_everything_of_the_administrator_as_it_was(installed):
    live_in(installed)
    before = installed.facts(*OWN)
    installed.dpkg("--remove", *PACKAGES)
    assert installed.facts(*OWN) == before
    for program in ("usr/sbin/qvrepo", "usr/sbin/qvcheck", "usr/sbin/qvmaster", "usr/bin/sjapack"):
        assert not installed.exists(program)


def test_a_purge_leaves_everything_of_the_administrator_and_says_so(installed):
    live_in(installed)
    before = installed.facts(*OWN)
    said = installed.dpkg("--purge", *PACKAGES).output.splitlines()
    assert installed.facts(*OWN) == before
    first = said.index("qvrepo: left in place below /usr/ormex, with packages, keys, configuration or logs:")
    assert said[first + 1 : first + 6] == [
        "  /usr/ormex/quorvelle: 1 files",
        "  /usr/ormex/quorvelle/logs/qvrepo: 1 files",
        "  /usr/ormex/quorvelle/tls: 1 files",
        "  /usr/ormex/var/global/dunmarel: 1 files",
        "  /usr/ormex/var/global/repo: 1 files",
    ]
    assert "qvmaster: left in place: /etc/qvmaster/tls" in said
    assert "qvmaster: left in place: /var/lib/qvmaster" in said


def test_a_purge_of_what_was_never_used_leaves_nothing(installed):
    said = installed.dpkg("--purge", *PACKAGES).output
    assert "left in place" not in said and "not empty" not in said, said
    for name in ("usr/ormex", "etc/qvmaster", "var/lib/qvmaster", "etc/logrotate.d/qvrepo", "usr/share/doc/qvrepo"):
        assert not installed.exists(name), name


def test_what_a_purge_left_is_used_by_the_next_installation(installed):
    live_in(installed)
    before = installed.facts(*OWN)
    installed.dpkg("--purge", *PACKAGES)
    installed.dpkg("--install", *PACKAGES)
    assert installed.facts(*OWN) == before


def tiny_volume(debian, directory, size):
    """A volume of its own at `directory`, which is then filled to the last byte."""
    place = debian.path(directory)
    subprocess.run(["mount", "-t", "tmpfs", "-o", f"mode=755,size={size}", "qv-tiny", place], check=True)
    return place


def fill(place):
    with open(place / "ballast", "wb", buffering=0) as file:
        try:
            while True:
                file.write(b"x" * 4096)
        except OSError:
            pass
    assert os.statvfs(place).f_bavail == 0


def test_an_upgrade_needs_no_space_in_the_repository(installed):
    repository = tiny_volume(installed, "/usr/ormex/var/global/repo", "64k")
    (repository / "dunmarel_qvclient_8.3_redhat_x64.sja").write_text("a package")
    fill(repository)
    before = installed.facts("/usr/ormex/var/global/repo")
    installed.dpkg("--install", *PACKAGES, directory=LATER)
    assert installed.facts("/usr/ormex/var/global/repo") == before


def test_an_upgrade_that_finds_the_product_root_full_says_so_and_changes_nothing(installed):
    kept = installed.path("/tmp/kept")
    subprocess.run(["cp", "-a", installed.path("/usr/ormex"), kept], check=True)
    root = tiny_volume(installed, "/usr/ormex", "256k")
    subprocess.run(["cp", "-aT", kept, root], check=True)
    put(installed, PACKAGE, "a package")
    fill(root)
    before = installed.facts("/usr/ormex", "/usr/sbin/qvrepo")
    said = installed.dpkg("--install", "qvrepo", directory=LATER, expect=1).output
    assert "No space left on device" in said
    assert installed.facts("/usr/ormex", "/usr/sbin/qvrepo") == before
    (root / "ballast").unlink()
    installed.dpkg("--install", "qvrepo", directory=LATER)


@pytest.mark.parametrize("age, stays", [(29, True), (32, False)])
def test_a_log_file_is_removed_after_thirty_days(installed, age, stays):
    log = "/usr/ormex/quorvelle/logs/qvrepo/qvrepo.2026-01-01.log"
    put(installed, log, "a record")
    installed.run("touch", "-d", f"{age} days ago", log)
    # logrotate rotates nothing that it sees for the first time, so its state file says that it saw the file long ago.
    put(installed, "/tmp/state", f'logrotate state -- version 2\n"{log}" 2026-1-1-0:0:0\n')
    installed.run("logrotate", "--state", "/tmp/state", "/etc/logrotate.d/qvrepo")
    assert installed.exists(log) == stays
    assert len(list(installed.path("usr/ormex/quorvelle/logs/qvrepo").iterdir())) == int(stays)
