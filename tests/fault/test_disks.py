"""Adding to repositories on disks that are full, become full or read-only meanwhile, have no inodes, keep a reserve, or
lose what was written: what is reported, what the service is asked, and what is left.

Volumes of their own file system come from tests/fault/with-volumes; the others are made here.
"""

import os
import subprocess
from pathlib import Path

import pytest
from injector import execute, run_with_a_stop, trace
from packages import BUNDLE, INNER, SINGLE, make_bundle, make_single
from test_add import (NOT_COPIED, NOT_EXTRACTED, added, clean_up_was_sent, contains_in_order, file_failure)
from world import PROGRAMS, REPOSITORY, ROOT

SIGNING_KEY = ROOT / "publisher/signing.key"
TEMPORARY = f"tmp_{BUNDLE}"
KIB, MIB = 1 << 10, 1 << 20
real_volumes = pytest.mark.skipif("QV_VOLUMES" not in os.environ,
                                  reason=os.environ.get("QV_NO_VOLUMES", "run by tests/fault/with-volumes"))


class Volume:
    """A file system mounted over the repository; `directory` is where it is mounted as well."""

    def __init__(self, directory=None, options=""):
        self.directory = directory
        source = ["--bind", directory / "repo"] if directory else ["-t", "tmpfs", "-o", options, "volume"]
        subprocess.run(["mount", *source, REPOSITORY], check=True)

    def remount(self, options):
        subprocess.run(["mount", "-o", f"remount,{options}", REPOSITORY], check=True)

    @staticmethod
    def fill():
        """Takes all the space that is left, to the last byte."""
        with open(REPOSITORY / "filler", "wb", buffering=0) as filler:
            for size in (64 * KIB, KIB, 1):
                try:
                    while filler.write(b"f" * size) == size:
                        pass
                except OSError:
                    continue

    @staticmethod
    def take_inodes(but=0):
        """Makes files until no more can be made, and removes `but` of them again."""
        made = []
        try:
            while True:
                (REPOSITORY / f"taken-{len(made)}").touch()
                made.append(REPOSITORY / f"taken-{len(made)}")
        except OSError:
            for file in made[:but]:
                file.unlink()

    def close(self):
        if self.directory:
            for file in [*(self.directory / "repo").iterdir(), *(self.directory / "packages").iterdir()]:
                file.unlink()
        subprocess.run(["umount", "-l", REPOSITORY], check=True)


@pytest.fixture
def volume(tree):
    """volume(options) mounts a tmpfs over the repository, volume(name=...) one of the volumes of with-volumes."""
    mounted = []

    def mount(options="", name=None):
        mounted.append(Volume(Path(os.environ["QV_VOLUMES"]) / name if name else None, options))
        return mounted[-1]

    yield mount
    for each in mounted:
        each.close()


def new_files():
    return sorted(file.name for file in REPOSITORY.iterdir() if not file.name.startswith(("taken", "filler")))


def large_bundle(directory):
    return make_bundle(directory, inner={INNER[0]: os.urandom(MIB), INNER[1]: os.urandom(MIB)})


MAKERS = pytest.mark.parametrize("make", [make_single, make_bundle])


# Full


@pytest.mark.parametrize("kind", ["single", "bundle"])
def test_on_a_volume_of_any_size_the_package_is_there_whole_or_not_at_all(qvrepo, master, volume, tmp_path, kind):
    first, second = os.urandom(300 * KIB), os.urandom(200 * KIB)
    if kind == "single":
        package = make_single(tmp_path, data=first + second)
        wanted = {SINGLE: package.read_bytes()}
    else:
        package = make_bundle(tmp_path, inner={INNER[0]: first, INNER[1]: second})
        wanted = {INNER[0]: first, INNER[1]: second}
    endings = set()
    for size in range(460, 900, 40):
        volume(f"size={size}k")
        outcome = qvrepo("-add", package)
        there = {name: (REPOSITORY / name).read_bytes() for name in new_files()}
        if outcome.status == 0:
            assert there == wanted, size
            assert master.delete(master.packages()[0]["id"]).status == 204
        else:
            assert outcome in (NOT_COPIED, NOT_EXTRACTED), size
            # What was extracted before stays, and is whole.
            assert all(wanted.get(name) == data for name, data in there.items()), size
            assert len(there) < len(wanted), size
            assert master.packages() == [], size
        endings.add((outcome.status, len(there)))
    expected = {(0, 1), (NOT_COPIED[2], 0)} if kind == "single" else {
        (0, 2), (NOT_COPIED[2], 0), (NOT_EXTRACTED[2], 0)}
    assert expected <= endings, endings


@MAKERS
def test_a_full_volume_refuses_the_copy(qvrepo, master, volume, tmp_path, log_records, make):
    volume("size=16m").fill()
    # The start-up check wants one percent free, which is more than what a small package needs.
    filler = REPOSITORY / "filler"
    os.truncate(filler, filler.stat().st_size - 200 * KIB)
    package = make_single(tmp_path, data=os.urandom(MIB)) if make is make_single else large_bundle(tmp_path)
    assert qvrepo("-add", package) == NOT_COPIED
    assert new_files() == []
    clean_up_was_sent(master, log_records)


def test_a_volume_that_others_fill_between_copy_and_extraction_refuses_the_extraction(
        master, volume, tmp_path, report, log_records):
    place = volume("size=16m")
    package = large_bundle(tmp_path)
    command = [PROGRAMS / "qvrepo", "-add", package]
    run = run_with_a_stop(command, report, before_extraction(command, report, master), place.fill)
    assert (run.stdout, run.stderr, run.status) == NOT_EXTRACTED
    assert new_files() == []
    assert contains_in_order(log_records(), [
        (16, "QvRepoHelper::extractSja", f"Failed extracting [{package}] to directory [{REPOSITORY}]"),
        *file_failure(7252)])
    assert master.packages() == []


def before_extraction(command, report, master):
    """The last call between copy and extraction of a bundle, from a run that is undone again."""
    calls = trace(command, report)
    opened = next(place for place, call in enumerate(calls)
                  if call.name == "openat" and TEMPORARY in call.text and "O_RDWR" in call.text)
    unlocked = calls[opened - 1]
    assert unlocked.name == "flock" and "/logs/qvrepo/" in unlocked.text, "the log tells of the extraction first"
    assert master.delete(master.packages()[0]["id"]).status == 204
    for file in REPOSITORY.iterdir():
        file.unlink()
    for log in (ROOT / "quorvelle/logs/qvrepo").iterdir():
        log.unlink()
    return unlocked


def test_a_full_volume_keeps_the_archive_that_was_to_be_signed_or_made_anew(volume, tmp_path):
    volume("size=2m")
    (tmp_path / "payload").write_bytes(os.urandom(1200 * KIB))
    archive = REPOSITORY / SINGLE
    subprocess.run([PROGRAMS / "sjapack", "create", archive, tmp_path / "payload"], check=True, capture_output=True)
    before = archive.read_bytes()
    for arguments in (["sign", archive], ["create", archive, tmp_path / "payload"]):
        run = execute([PROGRAMS / "sjapack", *arguments, "--key", SIGNING_KEY], "", False)
        assert (run.stdout, run.stderr, run.returncode) == (
            "", f"sjapack: cannot write {archive}: No space left on device\n", 1), arguments
        assert archive.read_bytes() == before
        assert new_files() == [SINGLE]


# No inodes


@MAKERS
def test_a_volume_without_inodes_refuses_the_copy(qvrepo, master, volume, tmp_path, log_records, make):
    volume("nr_inodes=8").take_inodes()
    package = make(tmp_path)
    assert qvrepo("-add", package) == NOT_COPIED
    assert new_files() == []
    assert (16, "QvRepoHelper::copySja", f"Unable to copy package file [{package}] to [{REPOSITORY}].") in log_records()
    clean_up_was_sent(master, log_records)


@pytest.mark.parametrize("inodes, left", [(1, []), (2, [INNER[1]])])
def test_a_volume_whose_inodes_are_used_up_by_the_extraction_keeps_what_was_extracted(
        qvrepo, master, volume, tmp_path, log_records, inodes, left):
    volume("nr_inodes=8").take_inodes(but=inodes)
    assert qvrepo("-add", make_bundle(tmp_path)) == NOT_EXTRACTED
    assert new_files() == left
    clean_up_was_sent(master, log_records)


@real_volumes
@MAKERS
def test_a_disk_without_inodes_refuses_the_copy(qvrepo, master, volume, tmp_path, log_records, make):
    volume(name="disk").take_inodes()
    assert qvrepo("-add", make(tmp_path)) == NOT_COPIED
    assert new_files() == []
    clean_up_was_sent(master, log_records)


# Read-only


@pytest.mark.parametrize("kind", ["single", "bundle"])
def test_a_repository_that_becomes_read_only_after_the_registration_has_it_taken_back(
        master, volume, tmp_path, report, log_records, kind):
    place = volume("size=16m")
    command = [PROGRAMS / "qvrepo", "-add", make_single(tmp_path) if kind == "single" else make_bundle(tmp_path)]
    calls = trace(command, report)
    measured = [call for call in calls if call.name == "statfs"][-1]
    assert master.delete(master.packages()[0]["id"]).status == 204
    for file in REPOSITORY.iterdir():
        file.unlink()
    run = run_with_a_stop(command, report, measured, lambda: place.remount("ro"))
    assert (run.stdout, run.stderr, run.status) == NOT_COPIED
    assert new_files() == []
    assert master.packages() == []
    assert contains_in_order(log_records(), file_failure(7214))


def test_a_repository_that_becomes_read_only_before_the_extraction_keeps_the_temporary_copy_until_the_next_add(
        qvrepo, master, volume, tmp_path, report, log_records):
    place = volume("size=16m")
    package = make_bundle(tmp_path)
    command = [PROGRAMS / "qvrepo", "-add", package]
    run = run_with_a_stop(command, report, before_extraction(command, report, master), lambda: place.remount("ro"))
    assert (run.stdout, run.stderr, run.status) == NOT_EXTRACTED
    assert new_files() == [TEMPORARY]
    assert (REPOSITORY / TEMPORARY).read_bytes() == package.read_bytes()
    assert contains_in_order(log_records(), [
        (16, "QvRepoHelper::extractSja", f"Failed extracting [{package}] to directory [{REPOSITORY}]"),
        (16, "QvRepoHelper::extractSja", f"Could not delete temporary package file [{REPOSITORY / TEMPORARY}]."),
        *file_failure(7252)])
    assert master.packages() == []
    place.remount("rw")
    assert qvrepo("-add", package) == added(3)
    assert new_files() == sorted(INNER)


def test_a_deletion_from_a_read_only_repository_deletes_the_registration_and_leaves_the_files(
        qvrepo, master, volume, tmp_path, log_records):
    place = volume("size=16m")
    assert qvrepo("-add", make_bundle(tmp_path)) == added(1)
    place.remount("ro")
    outcome = qvrepo("-delete", "1", stdin="y\n")
    assert (outcome.stderr, outcome.status) == ("", 0)
    assert master.packages() == []
    assert new_files() == sorted(INNER)
    assert log_records()[-2:] == [
        (16, "deletePackageCmd", "Package metadata has been deleted, but one or more package file items have not been "
                                 "deleted. "),
        (4, "deletePackageCmd", "Package ID 1 has been deleted from the repository.")]


# Disks with peculiarities


@real_volumes
@pytest.mark.parametrize("kind", ["single", "bundle"])
def test_a_package_on_the_repositorys_own_disk_is_copied_inside_the_kernel(master, volume, report, kind):
    place = volume(name="disk")
    package = (make_single if kind == "single" else make_bundle)(place.directory / "packages")
    before = package.read_bytes()
    calls = trace([PROGRAMS / "qvrepo", "-add", package], report)
    copies = [call.text for call in calls if call.name == "copy_file_range"]
    assert [text.rsplit(" = ", 1)[1] for text in copies] == [str(len(before)), "0"]
    assert package.read_bytes() == before
    assert new_files() == ([SINGLE] if kind == "single" else sorted(INNER))
    if kind == "single":
        assert (REPOSITORY / SINGLE).read_bytes() == before


@real_volumes
def test_space_that_is_reserved_for_root_is_used(qvrepo, master, volume, tmp_path):
    volume(name="own-reserve")
    package = make_single(tmp_path, data=os.urandom(5 * MIB))
    assert qvrepo("-add", package) == added(1)
    assert (REPOSITORY / SINGLE).read_bytes() == package.read_bytes()


@real_volumes
@pytest.mark.parametrize("kind", ["single", "bundle"])
def test_space_that_is_reserved_for_somebody_else_counts_as_free_but_the_copy_does_not_get_it(
        qvrepo, master, volume, tmp_path, log_records, kind):
    volume(name="other-reserve")
    data = os.urandom(5 * MIB)
    package = make_single(tmp_path, data=data) if kind == "single" else make_bundle(tmp_path, inner={INNER[0]: data})
    assert qvrepo("-add", package) == NOT_COPIED
    assert new_files() == []
    assert (2, "QvRepoHelper::copySja", "Free disk space: [7] MB.") in log_records()
    clean_up_was_sent(master, log_records)


@real_volumes
@pytest.mark.parametrize("kind, name", [("single", "thin-1"), ("bundle", "thin-2")])
def test_the_flush_finds_that_a_disk_cannot_keep_what_was_written(
        qvrepo, master, volume, tmp_path, log_records, kind, name):
    # Writing succeeds, since the volume reports enough space; only the flush finds that the store is full.
    volume(name=name)
    data = os.urandom(5 * MIB)
    package = make_single(tmp_path, data=data) if kind == "single" else make_bundle(tmp_path, inner={INNER[0]: data})
    assert qvrepo("-add", package) == NOT_COPIED
    assert new_files() == []
    clean_up_was_sent(master, log_records)
