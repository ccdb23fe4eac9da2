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
from qvcheck import at_once, findings, follow, names_of, report, run_qvcheck
from scripted_service import ScriptedService, answer
from world import HOST, PROGRAMS, REPOSITORY, ROOT, await_that

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


@pytest.fixture
def add_many(master, qvrepo, tmp_path):
    """add_many(count) adds packages of one file; their file names and IDs."""

    def add(count):
        names = [f"dunmarel_qvclient_9.{i}_redhat_x64.sja" for i in range(count)]
        for name in names:
            assert qvrepo("-add", str(make_single(tmp_path, name))).status == 0
        return [(name, str(package["id"])) for name, package in zip(names, master.packages()[-count:])]

    return add


def identity(finding):
    return finding["name"], finding["packageId"], finding["fileName"], finding["path"]


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


DAMAGES = [
    (os.unlink, "missing-file"),
    (damage_size, "wrong-size"),
    (damage_byte, "bad-signature"),
    (cut_signature, "unsigned"),
    (put_directory, "not-a-file"),
    (put_link, "not-a-file"),
    (put_pipe, "not-a-file"),
    (put_socket, "not-a-file"),
]


def test_damage_to_a_packages_file_is_found_and_mended(second, master, add_many):
    expected = []
    for (damage, name), (file_name, package) in zip(DAMAGES, add_many(len(DAMAGES))):
        damage(REPOSITORY / file_name)
        expected.append((name, package, file_name, str(REPOSITORY / file_name)))
    found, told, without_signatures = at_once(
        findings, lambda: run_qvcheck("repository", "--settle", "0", "--quiet"),
        lambda: findings("--settle", "0", "--no-signatures"))
    assert sorted(identity(finding) for finding in found) == sorted(expected)
    assert sorted(identity(finding) for finding in without_signatures) == \
        sorted(each for each in expected if each[0] not in ("bad-signature", "unsigned"))
    _, package, file_name, path = expected[0]
    assert (told.stderr, told.status, len(told.stdout.splitlines())) == ("", 1, 2 * len(expected))
    assert (f"missing-file: {path}: package {package}, {file_name}: The package's file is not there.\n"
            f"      qvrepo -delete {package}\n") in told.stdout
    mend(found)
    assert [package["packageFileName"] for package in master.packages()] == [SINGLE, SECOND]


def test_a_file_that_cannot_be_read_is_found_and_mended(single, second, tmp_path):
    # No file refuses root, so the kernel's answers are replaced: one file cannot be opened, the other not be read.
    strace = ["strace", "-f", "-qq", "-o", tmp_path / "calls", "-P", FILE, "-P", SECOND, "-e", "trace=openat,read",
              "-e", "inject=read:error=EIO", "-e", "inject=openat:error=EACCES"]
    no_leaks = {"ASAN_OPTIONS": f"{os.environ.get('ASAN_OPTIONS', '')}:detect_leaks=0"}  # it cannot be traced
    found = findings(under=strace, env=no_leaks)
    assert [(*identity(finding), finding["message"]) for finding in sorted(found, key=identity)] == [
        ("unreadable", single, SINGLE, str(FILE), "The file cannot be read: Input/output error"),
        ("unreadable", second, SECOND, str(REPOSITORY / SECOND), "The file cannot be read: Permission denied"),
    ]
    for finding in found:
        follow(finding["command"])
    assert findings(under=strace, env=no_leaks) == []


def test_a_file_of_a_bundle_is_judged_like_one_of_a_single_package(bundle):
    (REPOSITORY / INNER[0]).unlink()
    flip_byte(REPOSITORY / INNER[1], -1)
    found = findings()
    assert names_of(found) == ["bad-signature", "missing-file"]
    assert {finding["packageId"] for finding in found} == {bundle}
    mend(found[:1])


def test_an_unsigned_file_of_a_bundle_is_a_warning(master, qvrepo, tmp_path):
    assert qvrepo("-add", str(make_bundle(tmp_path))).status == 0
    found, told = at_once(findings, lambda: run_qvcheck("repository", "--settle", "0"))
    assert [(each["name"], each["severity"]) for each in found] == [("unsigned", "warning")] * 2
    assert told.status == 0


def test_a_size_that_the_service_does_not_know_is_not_compared(single, master):
    edit(master, "UPDATE packages SET size = 0")
    assert findings() == []


def test_a_young_packages_missing_file_and_the_one_that_it_replaces_are_pending(single, master):
    FILE.unlink()
    earlier = REPOSITORY / SECOND
    earlier.write_bytes(b"an earlier version")
    # The service tells the time of a registration in whole seconds.
    await_that(lambda: int(time.time()) > int(earlier.stat().st_ctime), "the next second")
    master.register(SECOND, [(SECOND, 1000)])
    young, old = at_once(lambda: findings("--settle", "120"), findings)
    assert sorted((each["path"], each["name"], each["severity"], each["command"]) for each in young) == \
        [(str(path), "pending", "pending", "") for path in (FILE, earlier)]
    assert names_of(old) == ["missing-file", "wrong-size"]


# Paths that packages name


def test_a_path_that_leads_out_is_found_and_its_removal_touches_no_file(master, add_many):
    names = ["../../../etc/passwd", "..", "below/file", "/etc/passwd"]
    added = add_many(len(names))
    for name, (_, package) in zip(names, added):
        edit(master, f"UPDATE packageItems SET fileName = '{name}' WHERE packageId = {package}")
    found = findings()
    assert sorted((each["name"], each["packageId"], each["path"]) for each in found) == sorted(
        [("outside", package, f"{REPOSITORY}/{name}") for name, (_, package) in zip(names, added)] +
        [("unlisted-file", "", str(REPOSITORY / file_name)) for file_name, _ in added])
    mend(found)
    assert os.path.exists("/etc/passwd") and REPOSITORY.exists()


def test_two_packages_of_one_file_or_name_are_found_and_the_later_one_keeps_it(single, second, master, add_many):
    (name, third), (other_name, fourth) = add_many(2)
    content = FILE.read_bytes()
    (REPOSITORY / SECOND).unlink()
    allow_duplicates(master)
    edit(master, f"UPDATE packageItems SET fileName = '{SINGLE}' WHERE packageId = {second}",
         f"UPDATE packages SET packageFileName = 'x{SINGLE}' WHERE id = {single}",
         f"UPDATE packages SET packageFileName = '{other_name}' WHERE id = {third}")
    found = sorted(findings(), key=identity)
    assert [identity(finding) for finding in found] == [
        ("duplicate-name", third, other_name, ""), ("shared-file", single, f"x{SINGLE}", str(FILE))]
    mend(found)
    assert FILE.read_bytes() == content and not (REPOSITORY / name).exists()
    assert [package["id"] for package in master.packages()] == [int(second), int(fourth)]


# Files that no package names


# The file's name, as JSON has it, and the finding.
STRAY = [
    ("stray.sja", "stray.sja", "unlisted-file"),
    ("tmp_stray.sja", "tmp_stray.sja", "leftover"),
    (".stray.sja.0123456789abcdef.part", ".stray.sja.0123456789abcdef.part", "leftover"),
    (".part", ".part", "unlisted-file"),
    ("a 'quoted' $(name)", "a 'quoted' $(name)", "unlisted-file"),
    ("-rf", "-rf", "unlisted-file"),
    ("line\nend\t\x1b[31m\\", "line\nend\t\x1b[31m\\\\", "unlisted-file"),
    (b"not \xff\xfe UTF-8", "not \\xff\\xfe UTF-8", "unlisted-file"),
    (b"a\nb\x1b[31m\xff\\c\xc2\x85\xc3\xa9", "a\nb\x1b[31m\\xff\\\\c\\xc2\\x85é", "unlisted-file"),
]
ODD = [("tmp_link", put_link), ("tmp_pipe", put_pipe), ("tmp_socket", put_socket)]


@pytest.fixture
def written(tree):
    """Temporary files that somebody writes."""
    paths = [REPOSITORY / "tmp_written.sja", REPOSITORY / ".written.sja.0123456789abcdef.part"]
    files = [open(path, "wb") for path in paths]
    for file in files:
        fcntl.flock(file, fcntl.LOCK_EX)
    yield paths
    for file in files:
        file.close()


def test_a_file_without_a_package_is_found_and_removed_unless_somebody_writes_it(single, written):
    for name, _, _ in STRAY:
        (REPOSITORY / os.fsdecode(name)).write_bytes(b"x")
    for name, put in ODD:
        (REPOSITORY / name).write_bytes(b"")
        put(REPOSITORY / name)
    found, told = at_once(findings, lambda: run_qvcheck("repository", "--quiet"))
    expected = [each[1:] for each in STRAY] + [(name, "unlisted-file") for name, _ in ODD]
    assert sorted((each["path"], each["name"]) for each in found) == \
        sorted((f"{REPOSITORY}/{name}", finding) for name, finding in expected)
    # In the text a name keeps to its line.
    assert len(told.stdout.splitlines()) == 2 * len(found)
    assert (f"unlisted-file: {REPOSITORY}/a\\nb\\x1b[31m\\xff\\\\c\\xc2\\x85é: No package names this file.\n"
            in told.stdout)
    mend(found)
    assert FILE.exists() and all(path.exists() for path in written)


def test_a_directory_is_not_a_file_without_a_package(master):
    (REPOSITORY / "lost+found").mkdir()
    assert findings() == []


# Modes


@pytest.mark.parametrize("bit", [stat.S_IWGRP, stat.S_IWOTH])
def test_what_others_may_write_is_found_and_mended(single, bit):
    for path in (FILE, REPOSITORY):
        path.chmod(stat.S_IMODE(path.stat().st_mode) | bit)
    found = findings()
    assert sorted((each["name"], each["path"]) for each in found) == \
        [("unsafe-mode", str(REPOSITORY)), ("unsafe-mode", str(FILE))]
    mend(found)


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
