"""qvcheck repository: every finding is made for real, found, and gone after its command was run as it was printed."""

import fcntl
import json
import os
import shutil
import socket
import sqlite3
import stat
import subprocess
import threading
import time

import pytest
from packages import BUNDLE, INNER, SINGLE, archive, flip_byte, make_bundle, make_single, signed
from qvcheck import findings, follow, names_of, report, run_qvcheck
from scripted_service import ScriptedService, answer
from world import HOST, PROGRAMS, REPOSITORY, ROOT

FILE = REPOSITORY / SINGLE
SECOND = "dunmarel_qvserver_8.3_redhat_x64.sja"


@pytest.fixture
def single(master, qvrepo, tmp_path):
    """A package of one file, added; its ID."""
    assert qvrepo("-add", str(make_single(tmp_path))).status == 0
    return str(master.packages()[-1]["id"])


@pytest.fixture
def second(single, master, qvrepo, tmp_path):
    """Another one."""
    assert qvrepo("-add", str(make_single(tmp_path, SECOND))).status == 0
    return str(master.packages()[-1]["id"])


@pytest.fixture
def bundle(master, qvrepo, tmp_path):
    """A bundle of two signed files, added; its ID."""
    inner = {name: signed(archive(("payload.txt", name.encode()))) for name in INNER}
    assert qvrepo("-add", str(make_bundle(tmp_path, inner=inner))).status == 0
    return str(master.packages()[-1]["id"])


def edit(master, *statements):
    """Changes the service's database."""
    with sqlite3.connect(master.database) as database:
        for statement in statements:
            database.execute(statement)
    database.close()


def allow_duplicates(master):
    """Takes the rule from the database that a file name has one package."""
    master.stop()
    database = sqlite3.connect(master.database, isolation_level=None)
    database.execute("PRAGMA writable_schema = ON")
    database.execute("UPDATE sqlite_schema SET sql = replace(sql, 'TEXT NOT NULL UNIQUE', 'TEXT NOT NULL')")
    database.execute("DELETE FROM sqlite_schema WHERE name = 'sqlite_autoindex_packages_1'")
    database.execute("PRAGMA writable_schema = RESET")
    database.execute("VACUUM")
    database.close()
    master.start()


def only(found):
    assert len(found) == 1, found
    return found[0]


def mend(found):
    """Runs the commands of the findings; then nothing is found."""
    for finding in found:
        follow(finding["command"])
    assert findings() == []


def test_nothing_is_found_in_a_healthy_repository(single, second, bundle):
    outcome = run_qvcheck("repository", "--settle", "0")
    assert outcome == ("Checked: packages 3, files 4, signatures 4. Findings: 0, warnings: 0, pending: 0.\n", "", 0)
    assert run_qvcheck("repository", "--quiet") == ("", "", 0)


def test_a_finding_is_told_with_its_package_path_and_command(single):
    FILE.unlink()
    assert run_qvcheck("repository", "--settle", "0", "--quiet") == (
        f"missing-file: {FILE}: package {single}, {SINGLE}: The package's file is not there.\n"
        f"      qvrepo -delete {single}\n", "", 1)


# Files that packages name


def damage_size(path):
    path.write_bytes(path.read_bytes() + b"x")


def damage_byte(path):
    flip_byte(path, -1)


def cut_signature(path):
    # As long as before, so that only the signature is missing.
    path.write_bytes(path.read_bytes()[512:].ljust(path.stat().st_size, b"\0"))


def put_directory(path):
    path.unlink()
    path.mkdir()


def put_link(path):
    path.unlink()
    path.symlink_to("/etc/passwd")


def put_pipe(path):
    path.unlink()
    os.mkfifo(path)


def put_socket(path):
    path.unlink()
    with socket.socket(socket.AF_UNIX) as place:
        place.bind(str(path))


@pytest.mark.parametrize("damage, name", [
    (os.unlink, "missing-file"),
    (damage_size, "wrong-size"),
    (damage_byte, "bad-signature"),
    (cut_signature, "unsigned"),
    (put_directory, "not-a-file"),
    (put_link, "not-a-file"),
    (put_pipe, "not-a-file"),
    (put_socket, "not-a-file"),
])
def test_damage_to_a_packages_file_is_found_and_mended(single, second, damage, name):
    damage(FILE)
    finding = only(findings())
    assert (finding["name"], finding["packageId"], finding["fileName"], finding["path"]) == \
        (name, single, SINGLE, str(FILE))
    mend([finding])


def test_a_file_of_a_bundle_is_judged_like_one_of_a_single_package(bundle):
    (REPOSITORY / INNER[0]).unlink()
    flip_byte(REPOSITORY / INNER[1], -1)
    found = findings()
    assert names_of(found) == ["bad-signature", "missing-file"]
    assert {finding["packageId"] for finding in found} == {bundle}
    mend(found[:1])


def test_an_unsigned_file_of_a_bundle_is_a_warning(master, qvrepo, tmp_path):
    assert qvrepo("-add", str(make_bundle(tmp_path))).status == 0
    found = findings()
    assert [(each["name"], each["severity"]) for each in found] == [("unsigned", "warning")] * 2
    assert run_qvcheck("repository", "--settle", "0").status == 0


def test_without_signatures_only_what_stat_tells_is_found(single):
    damage_byte(FILE)
    assert findings("--settle", "0", "--no-signatures") == []
    damage_size(FILE)
    assert names_of(findings("--settle", "0", "--no-signatures")) == ["wrong-size"]


def test_a_size_that_the_service_does_not_know_is_not_compared(single, master):
    edit(master, "UPDATE packages SET size = 0")
    assert findings() == []


def test_a_young_packages_missing_file_is_pending(single):
    FILE.unlink()
    finding = only(findings("--settle", "120"))
    assert (finding["name"], finding["severity"], finding["command"]) == ("pending", "pending", "")


def test_a_young_packages_earlier_file_is_pending_while_it_is_replaced(master, tmp_path):
    FILE.write_bytes(b"an earlier version")
    time.sleep(1.1)
    master.register(SINGLE, [(SINGLE, 1000)])
    assert names_of(findings("--settle", "120")) == ["pending"]
    assert names_of(findings()) == ["wrong-size"]


# Paths that packages name


@pytest.mark.parametrize("name", ["../../../etc/passwd", "..", "below/file", "/etc/passwd"])
def test_a_path_that_leads_out_is_found_and_its_removal_touches_no_file(single, master, name):
    edit(master, f"UPDATE packageItems SET fileName = '{name}'")
    found = findings()
    assert names_of(found) == ["outside", "unlisted-file"]
    assert found[0]["path"] == f"{REPOSITORY}/{name}"
    mend(found)
    assert os.path.exists("/etc/passwd")


def test_a_file_of_two_packages_is_found_and_the_later_package_keeps_it(single, second, master):
    content = FILE.read_bytes()
    (REPOSITORY / SECOND).unlink()
    edit(master, f"UPDATE packageItems SET fileName = '{SINGLE}' WHERE packageId = {second}",
         f"UPDATE packages SET packageFileName = 'x{SINGLE}' WHERE id = {single}")
    finding = only(findings())
    assert (finding["name"], finding["packageId"], finding["path"]) == ("shared-file", single, str(FILE))
    mend([finding])
    assert FILE.read_bytes() == content
    assert [package["id"] for package in master.packages()] == [int(second)]


def test_two_packages_of_one_name_are_found(single, second, master):
    allow_duplicates(master)
    edit(master, f"UPDATE packages SET packageFileName = '{SECOND}' WHERE id = {single}")
    finding = only(findings())
    assert (finding["name"], finding["packageId"]) == ("duplicate-name", single)
    mend([finding])


# Files that no package names


@pytest.mark.parametrize("name, finding", [
    ("stray.sja", "unlisted-file"),
    ("tmp_stray.sja", "leftover"),
    (".stray.sja.0123456789abcdef.part", "leftover"),
    (".part", "unlisted-file"),
    ("a 'quoted' $(name)", "unlisted-file"),
    ("-rf", "unlisted-file"),
    ("line\nend\t\x1b[31m\\", "unlisted-file"),
    (b"not \xff\xfe UTF-8".decode(errors="surrogateescape"), "unlisted-file"),
])
def test_a_file_without_a_package_is_found_and_removed(single, name, finding):
    (REPOSITORY / name).write_bytes(b"x")
    found = only(findings())
    assert found["name"] == finding
    mend([found])
    assert FILE.exists()


def test_a_temporary_file_is_no_leftover_while_somebody_writes_it(master):
    for name in ("tmp_a.sja", ".a.sja.0123456789abcdef.part"):
        with open(REPOSITORY / name, "wb") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            assert findings() == []
        mend([only(findings())])


@pytest.mark.parametrize("put", [put_link, put_pipe, put_socket])
def test_what_is_no_regular_file_and_has_no_package_is_found(master, put):
    path = REPOSITORY / "tmp_odd"
    path.write_bytes(b"")
    put(path)
    found = findings()
    assert names_of(found) == ["unlisted-file"]
    mend(found)


def test_a_directory_is_not_a_file_without_a_package(master):
    (REPOSITORY / "lost+found").mkdir()
    assert findings() == []


def test_names_keep_to_their_line_and_are_whole_in_json(master):
    (REPOSITORY / os.fsdecode(b"a\nb\x1b[31m\xff\\c\xc2\x85\xc3\xa9")).write_bytes(b"")
    assert run_qvcheck("repository", "--quiet").stdout.splitlines()[0] == \
        f"unlisted-file: {REPOSITORY}/a\\nb\\x1b[31m\\xff\\\\c\\xc2\\x85é: No package names this file."
    path = only(findings())["path"]
    assert path == f"{REPOSITORY}/a\nb\x1b[31m\\xff\\\\c\\xc2\\x85é"


# Modes


@pytest.mark.parametrize("path", [FILE, REPOSITORY])
@pytest.mark.parametrize("bit", [stat.S_IWGRP, stat.S_IWOTH])
def test_what_others_may_write_is_found_and_mended(single, path, bit):
    path.chmod(stat.S_IMODE(path.stat().st_mode) | bit)
    finding = only(findings())
    assert (finding["name"], finding["path"]) == ("unsafe-mode", str(path))
    mend([finding])


# Adds and deletions that run meanwhile


def test_what_has_changed_at_the_second_look_is_dropped(single, master):
    FILE.rename(REPOSITORY / "away")
    timer = threading.Timer(1, lambda: (REPOSITORY / "away").rename(FILE))
    timer.start()
    assert findings() == []
    timer.join()


# Each check looks twice in the same way, so a few seconds of it hold what a minute does; QV_BESIDE_SECONDS makes it
# longer.
def test_adds_and_deletions_beside_the_check_are_no_damage(single, master, qvrepo, tmp_path):
    # Files that a thousand packages share their bytes with.
    bytes_of_all = FILE.read_bytes()
    master.register_many(1000)
    edit(master, f"UPDATE packages SET size = {len(bytes_of_all)}",
         f"UPDATE packageItems SET fileSize = {len(bytes_of_all)}")
    for i in range(1000):
        os.link(FILE, REPOSITORY / f"qvclient_{i}_redhat_x64.sja")
    package = make_bundle(tmp_path, inner={name: signed(archive(("p", b"x" * 300000))) for name in INNER})
    stop = threading.Event()
    rounds = []

    def change():
        while not stop.is_set():
            assert qvrepo("-add", str(package)).status == 0
            assert qvrepo("-delete", str(master.packages()[-1]["id"]), stdin="y\n").status == 0
            rounds.append(1)

    changer = threading.Thread(target=change)
    changer.start()
    try:
        end = time.monotonic() + int(os.environ.get("QV_BESIDE_SECONDS", "8"))
        while time.monotonic() < end:
            document, status = report("repository")
            assert (document["findings"], status) == ([], 0)
    finally:
        stop.set()
        changer.join()
    assert len(rounds) > 2


# What cannot be checked


def test_nothing_is_told_without_a_service(tree):
    outcome = run_qvcheck("repository")
    assert outcome == ("", f"qvcheck: the service at {HOST} gave no list of packages: "
                           "Couldn't connect to server [7]\n", 3)


@pytest.mark.parametrize("reply, reason", [
    (answer(200, "nonsense"), "HTTP 200, not a list of packages [9103]"),
    (answer(200, '{"data": [{"id": "1"}]}'), "HTTP 200, not a list of packages [9103]"),
    (answer(200, '{"data": [', length=500), "Transferred a partial file [18]"),
    (answer(503, '{"errorCode": 5, "errorMessage": "tired\\u001b"}'), "HTTP 503, errorCode 5: tired\\x1b"),
    (b"", "Server returned nothing (no headers, no data) [52]"),
])
def test_an_answer_that_is_no_list_is_told_and_nothing_else(tree, reply, reason):
    with ScriptedService(reply):
        assert run_qvcheck("repository") == \
            ("", f"qvcheck: the service at {HOST} gave no list of packages: {reason}\n", 3)


def test_a_hostile_id_stays_one_argument_of_the_command(tree):
    attributes = {"packageName": "x", "packageFileName": "x", "packageItemFilePaths": ["/etc/passwd"],
                  "packageType": "qv", "os": "o", "version": "1", "size": 1, "createdDateTimeUTC": "x",
                  "lastModifiedDateTimeUTC": "x", "lastValidatedUTC": "x"}
    body = json.dumps({"data": [{"id": "7';touch /tmp/hit;'", "attributes": attributes}]})
    with ScriptedService(answer(200, body)):
        finding = only(findings())
    assert finding["name"] == "outside"
    assert finding["command"].endswith("/packages/7%27%3B%74%6F%75%63%68%20%2F%74%6D%70%2F%68%69%74%3B%27")


@pytest.mark.parametrize("key, reason", [
    (None, "No such file or directory"),
    (b"damaged", "no public key in PEM"),
    (b"-----BEGIN PUBLIC KEY-----\nMFwwDQYJKoZIhvcNAQEBBQADSwAwSAJBAKLsdk0S7JzrdqZWMTVXRWEJmXlEl9ZT\n"
     b"YJ3lCDC5RB3DdPGVtnXqDcl2SWZ2bqXKNyxqYUqYpOQEuPkwTyVdZjECAwEAAQ==\n-----END PUBLIC KEY-----\n",
     "RSA 512 != RSA 4096"),
])
def test_without_a_usable_key_signatures_are_not_checked(single, key, reason):
    path = ROOT / "var/global/dunmarel/pubkey.pem"
    path.unlink()
    if key is not None:
        path.write_bytes(key)
    assert run_qvcheck("repository") == ("", f"qvcheck: the package-signing key {path} cannot be used: {reason}\n", 3)
    assert findings("--no-signatures") == []


def test_a_directory_that_is_not_there_cannot_be_checked(master):
    shutil.rmtree(REPOSITORY)
    assert run_qvcheck("repository") == \
        ("", f"qvcheck: the directory {REPOSITORY} cannot be read: No such file or directory\n", 3)


def test_output_that_cannot_be_written_ends_the_check_with_3(master):
    with open("/dev/full", "w") as full:
        done = subprocess.run([PROGRAMS / "qvcheck", "repository"], stdout=full, stderr=subprocess.PIPE, text=True)
    assert (done.stderr, done.returncode) == ("qvcheck: cannot write to standard output\n", 3)


@pytest.mark.parametrize("words", [[], ["nonsense"], ["repository", "--jobs", "0"], ["repository", "--settle", "-1"],
                                   ["setup", "--jobs", "2"], ["repository", "--signatures=x"], ["list", "--tsv=x"]])
def test_wrong_arguments_end_with_2(tree, words):
    outcome = run_qvcheck(*words)
    assert (outcome.stdout, outcome.status) == ("", 2)
    assert outcome.stderr.startswith("qvcheck: ") and outcome.stderr.endswith("(qvcheck --help shows the arguments)\n")


# Nothing is written


def test_a_check_opens_nothing_for_writing_and_no_pipe_or_device(single, tmp_path):
    os.mkfifo(REPOSITORY / "pipe")
    os.symlink("/dev/zero", REPOSITORY / "link")
    record = tmp_path / "calls"
    subprocess.run(["strace", "-f", "-o", record, "-e", "trace=%file,ftruncate,fchmod,fchown", PROGRAMS / "qvcheck",
                    "repository"], capture_output=True, check=False)
    calls = record.read_text().splitlines()
    changing = ("unlink", "rename", "link(", "linkat", "mkdir", "mknod", "chmod", "chown", "truncate", "O_WRONLY",
                "O_RDWR", "O_CREAT", "utime")
    assert [call for call in calls if any(word in call for word in changing) and "readlink" not in call
            and "/proc/self/fd" not in call] == []
    opened = [call for call in calls if "openat" in call and ('"pipe"' in call or '"link"' in call)]
    assert opened == []


# The list


def test_the_list_has_a_line_for_each_package_and_its_filters_combine(single, second, bundle):
    lines = [f"{single}\t{SINGLE}\tqvclient\t8.3\tredhat_x64", f"{second}\t{SECOND}\tqvserver\t8.3\tredhat_x64",
             f"{bundle}\t{BUNDLE}\tqv\t8.3\tredhat_x64"]
    assert run_qvcheck("list", "--tsv") == ("".join(line + "\n" for line in lines), "", 0)
    assert run_qvcheck("list", "--type", "qvserver", "--os", "redhat_x64").stdout == lines[1] + "\n"
    assert run_qvcheck("list", "--type", "qvserver", "--os", "suse_x64").stdout == ""
    assert run_qvcheck("list", "--pkg-version", "8.4") == ("", "", 0)
    document = json.loads(run_qvcheck("list", "--json", "--type", "qv").stdout)
    assert document["packages"] == [{"id": bundle, "fileName": BUNDLE, "type": "qv", "version": "8.3",
                                     "os": "redhat_x64"}]
