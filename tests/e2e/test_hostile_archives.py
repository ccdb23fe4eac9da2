"""Bad package files: every case of hostile_archives.py, added to a real service.

Each case checks the whole of stdout and stderr, the exit status, the entries that the log lists and its last records,
the requests that the service saw, its database, every file of the repository with its mode, that the package file is
as it was, and that nothing else below the product's root has changed.
"""

import json

import pytest
import world
from hostile_archives import (
    COPIED, ENVELOPES, EXTRACTED, FIELDS, FILE_NAMES, GOOD, INVALID_SIGNATURE, NAMES, NOT_ARCHIVES, NOT_EXTRACTED,
    REFUSED_BY_SERVICE, SIGNATURES, UNREADABLE, entry, unsigned)
from hostile_ways import closing_records, error_line
from packages import signed
from test_add import ADDING
from world import REPOSITORY, ROOT

LOGS = ROOT / "quorvelle/logs/qvrepo"


@pytest.fixture(scope="module")
def service(template_tree):
    """One qvmaster for all cases."""
    world.fill_root(template_tree)
    master = world.Master()
    master.start()
    yield master
    master.finish()


@pytest.fixture(autouse=True)
def tree(service):
    """In place of a fresh tree for each test: one as if fresh, with the service running on it."""
    for package in service.packages():
        service.delete(package["id"])
    for directory in (REPOSITORY, LOGS):
        for file in directory.iterdir():
            file.unlink()
    return ROOT


def everything_else():
    """What lies below the product's root, but for the repository and what the log and the service write to."""
    def facts(path):
        status = path.lstat()
        return status.st_mode, status.st_size, status.st_mtime_ns

    return {path: facts(path) for path in ROOT.rglob("*")
            if not {REPOSITORY, LOGS} & {path, *path.parents} and path != ROOT
            and not path.name.startswith(("qvmaster.", "another-"))}


class Addition:
    """A package file added, and what there was before."""

    def __init__(self, service, directory, name, content):
        self.service = service
        self.path = directory / name
        self.path.write_bytes(content)
        self.content = content
        before, seen = everything_else(), len(service.exchanges())
        self.outcome = world.run_qvrepo("-add", self.path)
        assert everything_else() == before
        assert [file.name for file in directory.iterdir()] == [name]
        assert self.path.read_bytes() == content
        self.records = world.read_log_records()
        self.exchanges = service.exchanges()[seen:]

    @property
    def requests(self):
        return [(exchange["method"], exchange["status"]) for exchange in self.exchanges]

    @property
    def listed(self):
        lines = [text for _, function, text in self.records if function == "QvRepoHelper::isSjaEnvelope"]
        if not lines:
            return None
        assert lines[0] == "Contents of the sja file:" and lines[-1].startswith("The package is ")
        return lines[1:-1]

    def files(self):
        return {file.name: (file.read_bytes(), file.stat().st_mode & 0o7777) for file in REPOSITORY.iterdir()}

    def failed(self, status):
        assert self.outcome == (ADDING, error_line(status), status & 0xFF)
        assert self.records[-len(closing_records(status)):] == closing_records(status)

    def last_record(self, status):
        """The record before those of main."""
        return self.records[-len(closing_records(status)) - 1]

    def succeeded(self):
        (package,) = self.service.packages()
        line = f"Successfully added deployment package ID: {package['id']} to the repository."
        assert self.outcome == (f"{ADDING}{line}\n", "", 0)
        assert self.records[-1] == (4, "addPackagesCmd", line)
        assert self.requests == [("POST", 201)]
        assert package["packageFileName"] == self.path.name
        return package


def check_invalid_signature(addition, case):
    addition.failed(INVALID_SIGNATURE)
    assert addition.last_record(INVALID_SIGNATURE) == (
        16, "QvRepoHelper::verifySja", f"Signature invalid for SJA file [{addition.path}].")
    assert (addition.requests, addition.files()) == ([], {})


def check_unreadable(addition, case):
    addition.failed(UNREADABLE)
    assert addition.last_record(UNREADABLE) == (
        16, "QvRepoHelper::readSjaContents", f"Failed to stat sja file [{addition.path}].")
    assert (addition.requests, addition.files()) == ([], {})


def check_refused_by_service(addition, case):
    addition.failed(REFUSED_BY_SERVICE)
    assert addition.last_record(REFUSED_BY_SERVICE) == (
        16, "addPackagesCmd",
        "Failed to add deployment package metadata. Error code returned from curlSendRequest: 20.")
    assert (addition.requests, addition.files()) == ([("POST", 400)], {})


def check_copied(addition, case):
    package = addition.succeeded()
    assert package["items"] == (case.items or [(addition.path.name, len(addition.content))])
    assert addition.files() == {addition.path.name: (addition.content, 0o644)}


def same_files(files, wanted):
    """Whether these are the wanted files; a wanted content of None is whatever the listing says."""
    return {name: (None if wanted.get(name, ("",))[0] is None else content, mode)
            for name, (content, mode) in files.items()} == wanted


def check_extracted(addition, case):
    package = addition.succeeded()
    assert package["items"] == case.items
    posted = json.loads(addition.exchanges[0]["body"])["data"]["attributes"]["packageItems"]
    assert [(item["fileName"], item["fileSize"]) for item in posted] == case.items
    assert same_files(addition.files(), case.files)
    sizes = {name: len(content) for name, (content, _) in addition.files().items()}
    listed = dict(reversed(case.items))
    for name, (content, _) in case.files.items():
        assert sizes[name] == (listed[name] if content is None else len(content))


def check_not_extracted(addition, case):
    addition.failed(NOT_EXTRACTED)
    assert same_files(addition.files(), case.files)
    assert addition.requests == [("POST", 201), ("DELETE", 204)]
    failure = (16, "QvRepoHelper::extractSja", f"Failed extracting [{addition.path}] to directory [{REPOSITORY}]")
    place = addition.records.index(failure)
    assert addition.records[place + 1:place + 3] == [
        (16, "addPackagesCmd", "Failed to extract deployment package items to the repository. Error code returned from "
                               "QvRepoAddInfo:extractSja: 7252."),
        (4, "addPackagesCmd", "Deleting the stale package metadata.")]
    assert addition.last_record(NOT_EXTRACTED) == (
        16, "addPackagesCmd", "Package was not added into the repository, but qvrepo failed to remove its metadata. "
                              "Status code returned from curlSendRequest: 9103.")


CHECKS = {
    INVALID_SIGNATURE: check_invalid_signature, UNREADABLE: check_unreadable, COPIED: check_copied,
    REFUSED_BY_SERVICE: check_refused_by_service, EXTRACTED: check_extracted, NOT_EXTRACTED: check_not_extracted}


def check(case, service, volume, directory):
    if case.volume:
        volume(case.volume)
    addition = Addition(service, directory, case.name, case.make())
    CHECKS[case.end](addition, case)
    assert addition.listed == case.listed
    if case.end not in (COPIED, EXTRACTED):
        assert service.packages() == []


def params(table):
    return [pytest.param(case, id=case.sentence) for case in table]


@pytest.mark.parametrize("case", params(SIGNATURES))
def test_a_wrong_signature_refuses_the_package_before_anything_is_read(case, service, volume, tmp_path):
    check(case, service, volume, tmp_path)


@pytest.mark.parametrize("case", params(NOT_ARCHIVES))
def test_signed_content_that_is_not_a_whole_archive(case, service, volume, tmp_path):
    check(case, service, volume, tmp_path)


@pytest.mark.parametrize("case", params(FIELDS))
def test_an_odd_header_field_of_a_single_package(case, service, volume, tmp_path):
    check(case, service, volume, tmp_path)


@pytest.mark.parametrize("case", params(NAMES))
def test_an_odd_inner_name(case, service, volume, tmp_path):
    check(case, service, volume, tmp_path)


@pytest.mark.parametrize("case", params(ENVELOPES))
def test_an_odd_envelope(case, service, volume, tmp_path):
    check(case, service, volume, tmp_path)


def test_a_climbing_name_that_a_long_listing_loses_is_used_as_it_stands(service, tmp_path):
    """The service never hears of the name, and extraction takes names as the publisher signed them. Whoever holds the
    signing key decides where files go; nobody else does."""
    escaped = REPOSITORY.parent / "escaped.sja"
    names = ["../escaped.sja", *(f"{i:02}.sja" for i in range(15))]
    package = tmp_path / "dunmarel_qv_8.3_redhat_x64.sja"
    package.write_bytes(signed(unsigned(*(entry(name, b"x") for name in names))))
    outcome = world.run_qvrepo("-add", package)
    assert (outcome.stderr, outcome.status) == ("", 0)
    assert world.list_repository() == names[1:]
    assert escaped.read_bytes() == b"x"
    escaped.unlink()


@pytest.mark.parametrize("name, status", [pytest.param(*row[1:], id=row[0]) for row in FILE_NAMES])
def test_a_file_name_that_breaks_the_grammar_refuses_the_package_before_any_request(name, status, service, tmp_path):
    addition = Addition(service, tmp_path, name, signed(GOOD))
    addition.failed(status)
    function = "QvRepoAddInfo::getPackageAttributesFromFilePath"
    assert (16, function, "Input file name does not comply with package name standard.") in addition.records
    assert (addition.requests, addition.files(), service.packages()) == ([], {}, [])
