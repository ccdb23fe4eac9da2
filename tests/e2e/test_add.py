"""-add: what reaches the service, the repository and the user."""

import fcntl
import json
import os
import shutil
import subprocess

import pytest
from hostile_answers import GOOD_PACKAGE
from packages import BUNDLE, INNER, SINGLE, archive, flip_byte, make_bundle, make_single, signature, signed
from scripted_service import ScriptedService, answer
from world import PACKAGES, PROGRAMS, REPOSITORY, ROOT, creation_body

ADDING = "Adding package to the repository. This may take a few minutes...\n"
PUBLIC_KEY = ROOT / "var/global/dunmarel/pubkey.pem"


def added(package_id):
    return (f"{ADDING}Successfully added deployment package ID: {package_id} to the repository.\n", "", 0)


def refused(status, text, announced=True):
    return (ADDING if announced else "", f"Error: {text}\n", status & 0xFF)


INVALID_SIGNATURE = refused(7236, "The Dunmarel package signature is invalid.")
NO_PUBLIC_KEY = refused(
    7237, "Input package file verification failed. The public key was not found at the expected location.")
NOT_OPENED = refused(7235, "Input package file verification failed. Could not open package file.")
NOT_COPIED = refused(7214, "Failed to copy the specified file. Could not copy package to repository.")
NOT_EXTRACTED = refused(7252, "The attempt to extract a package was unsuccessful.")
NO_FILE = refused(7225, "A required file or directory was not found. Input file path does not exist.", announced=False)


@pytest.fixture
def untouched(master, repository):
    """Nothing was registered and nothing copied, whatever the test did."""
    yield
    assert master.packages() == []
    assert repository() == []


def texts(records):
    return [text for _, _, text in records]


# Success


@pytest.mark.parametrize("option", ["-add", "-a"])
def test_a_single_package_is_registered_and_copied(qvrepo, master, repository, tmp_path, option):
    package = make_single(tmp_path)
    assert qvrepo(option, package) == added(1)
    assert master.requests() == [("POST", PACKAGES)]
    body = creation_body(SINGLE, [(SINGLE, package.stat().st_size)])
    assert json.loads(master.exchanges()[0]["body"]) == body
    assert master.exchanges()[0]["contentType"] == "application/json"
    assert repository() == [SINGLE]
    assert (REPOSITORY / SINGLE).read_bytes() == package.read_bytes()


def test_a_bundle_is_registered_with_its_files_and_extracted(qvrepo, master, repository, tmp_path):
    package = make_bundle(tmp_path)
    before = package.read_bytes()
    assert qvrepo("-add", package) == added(1)
    (registered,) = master.packages()
    assert registered["items"] == [(INNER[1], 13), (INNER[0], 13)], "last entry of the archive first"
    assert repository() == sorted(INNER)
    assert (REPOSITORY / INNER[0]).read_bytes() == b"inner client\n"
    assert (REPOSITORY / INNER[1]).read_bytes() == b"inner server\n"
    assert package.read_bytes() == before, "the administrator's own file is not consumed"


def test_ids_are_those_that_the_service_assigns(qvrepo, master, tmp_path):
    for number in (1, 2, 3):
        assert qvrepo("-add", make_single(tmp_path, f"qvclient_8.{number}_redhat_x64.sja")) == added(number)


def test_a_file_that_lies_in_the_repository_already_is_not_copied(qvrepo, master, repository, log_records):
    package = make_single(REPOSITORY)
    inode = package.stat().st_ino
    assert qvrepo("-add", package) == added(1)
    assert repository() == [SINGLE]
    assert package.stat().st_ino == inode
    assert (4, "QvRepoHelper::copySja",
            f"[{package}] to [{package}] are the same file, no file copy necessary.") in log_records()


def test_a_file_of_the_same_name_is_replaced(qvrepo, master, repository, tmp_path):
    (REPOSITORY / SINGLE).write_bytes(b"an older one")
    package = make_single(tmp_path)
    assert qvrepo("-add", package) == added(1)
    assert (REPOSITORY / SINGLE).read_bytes() == package.read_bytes()


def test_modes_of_copies_and_extracted_files(qvrepo, master, tmp_path):
    single = make_single(tmp_path)
    single.chmod(0o4777)
    assert qvrepo("-add", single) == added(1)
    assert (REPOSITORY / SINGLE).stat().st_mode & 0o7777 == 0o755, "no set-id bit, and less the mask 022"
    bundle = tmp_path / BUNDLE
    bundle.write_bytes(signed(archive((INNER[0], b"x", 0o4750), (INNER[1], b"y", 0o170600))))
    assert qvrepo("-add", bundle) == added(2)
    assert (REPOSITORY / INNER[0]).stat().st_mode & 0o7777 == 0o4750
    assert (REPOSITORY / INNER[1]).stat().st_mode & 0o7777 == 0o600


def test_a_path_in_double_quotes_is_verified_without_them(qvrepo, master, tmp_path, log_records):
    # A file whose name holds the quotes must exist too: the first check uses the path as typed.
    package = make_single(tmp_path)
    quoted = tmp_path / f'"{SINGLE}"'
    shutil.copy(package, quoted)
    outcome = qvrepo("-add", quoted)
    assert (4, "QvRepoHelper::verifySja", f"Signature of SJA file [{quoted}] is verified.") in log_records()
    assert outcome.status == 7265 & 0xFF, "the quoted name has no known type"


@pytest.mark.parametrize("make", [make_single, make_bundle])
@pytest.mark.parametrize("quoted", ['x"/{}', '"x"/{}', 'x/"{}', 'x/{}"'])
def test_an_unsigned_file_does_not_pass_for_a_signed_one_without_its_quotes(
        qvrepo, untouched, tmp_path, log_records, make, quoted):
    (tmp_path / "x").mkdir()
    package = make(tmp_path / "x")
    unsigned = tmp_path / quoted.format(package.name)
    unsigned.parent.mkdir(exist_ok=True)
    unsigned.write_bytes(package.read_bytes())
    flip_byte(unsigned, -1)
    assert qvrepo("-add", unsigned) == INVALID_SIGNATURE
    assert (16, "QvRepoHelper::verifySja", f"Signature invalid for SJA file [{unsigned}].") in log_records()


@pytest.mark.parametrize("pipe", ["package", "key"])
def test_an_add_does_not_wait_for_a_pipe(qvrepo, untouched, tmp_path, pipe):
    package = make_single(tmp_path)
    replaced = package if pipe == "package" else PUBLIC_KEY
    content = replaced.read_bytes()
    replaced.unlink()
    os.mkfifo(replaced)
    try:
        assert qvrepo("-add", package) == (NOT_OPENED if pipe == "package" else NO_PUBLIC_KEY)
    finally:
        replaced.unlink()
        replaced.write_bytes(content)


@pytest.mark.parametrize("make", [make_single, make_bundle])
def test_an_add_does_not_wait_for_a_lock_on_the_repository(qvrepo, master, repository, tmp_path, make):
    directory = os.open(REPOSITORY, os.O_RDONLY)
    try:
        fcntl.flock(directory, fcntl.LOCK_EX)
        for number in (1, 2):
            assert qvrepo("-add", make(tmp_path)) == added(number), "the second over earlier files"
            assert master.delete(number).status == 204
    finally:
        os.close(directory)


def test_the_log_of_a_whole_add(qvrepo, master, tmp_path, log_records):
    package = make_single(tmp_path)
    assert qvrepo("-add", package) == added(1)
    exchange = master.exchanges()[0]
    shown = master.get(f"{PACKAGES}/1").body.decode()
    records = log_records()
    verified = [
        (4, "QvRepoHelper::verifySja", f"Trying to get Pubkey [{PUBLIC_KEY}]"),
        (4, "QvRepoHelper::verifySja", "Public key found. Proceeding with verification"),
        (4, "QvRepoHelper::verifySja", f"Signature of SJA file [{package}] is verified.")]
    assert records[2:17] == [
        *verified,
        (4, "QvRepoHelper::readSjaContents", f"Reading package contents in [{package}]."),
        (4, "QvRepoHelper::isSjaEnvelope", "Contents of the sja file:"),
        (4, "QvRepoHelper::isSjaEnvelope", "payload.txt|11|644"),
        (4, "QvRepoHelper::isSjaEnvelope", "The package is not an sja envelope."),
        (4, "QvRepoAddInfo::getJSONPackageDetails", f"Package details in JSON format: {exchange['body']}"),
        (2, "curlSendRequest", "Sending curl request with URI : quorvelle/deployment/packages."),
        (2, "curlSendRequest", f"Request body: {exchange['body']}."),
        (2, "curlSendRequest", f"Http response body: {shown}"),
        (2, "curlSendRequest", "Actual http response code: 201 , expected http response code: 201"),
        (4, "QvRepoPackage::isBundle", f"Package file [{SINGLE}] is a single sja."),
        *verified[:2]]
    # Verified once more by each form of the copy, then measured and copied.
    assert records[17:21] == [verified[2], *verified]
    assert [text.split(":")[0] for text in texts(records[21:26])] == [
        "Package size", "Total disk space", "Free disk space", "Percent free", "Required disk space"]
    assert {record[:2] for record in records[21:26]} == {(2, "QvRepoHelper::copySja")}
    assert records[26:] == [
        (4, "QvRepoHelper::copySja", f"Copied package file [{package}] to [{REPOSITORY / SINGLE}]."),
        (4, "addPackagesCmd", "Successfully added deployment package ID: 1 to the repository.")]


# Files that are refused before anything is registered


@pytest.mark.usefixtures("untouched")
class TestRefusedFiles:
    def test_a_path_that_does_not_exist(self, qvrepo, log_records):
        assert qvrepo("-add", "/tmp/none.sja") == NO_FILE
        assert log_records()[2:] == [
            (16, "addPackagesCmd", "Failed to read package content. Supplied .sja file [/tmp/none.sja] does not exist."),
            (16, "main", "A required file or directory was not found. Input file path does not exist."),
            (4, "main", "qvrepo exit status: [7225]")]

    def test_an_empty_path(self, qvrepo):
        assert qvrepo("-add", "") == NO_FILE

    def test_a_directory(self, qvrepo, tmp_path):
        assert qvrepo("-add", tmp_path) == INVALID_SIGNATURE

    def test_an_empty_file(self, qvrepo, tmp_path):
        (tmp_path / SINGLE).write_bytes(b"")
        assert qvrepo("-add", tmp_path / SINGLE) == INVALID_SIGNATURE

    @pytest.mark.parametrize("length", [1, 511])
    def test_a_file_shorter_than_a_signature(self, qvrepo, tmp_path, length):
        (tmp_path / SINGLE).write_bytes(b"x" * length)
        assert qvrepo("-add", tmp_path / SINGLE) == INVALID_SIGNATURE

    def test_a_path_that_is_there_only_with_its_quotes(self, qvrepo, tmp_path, log_records):
        quoted = make_single(tmp_path, f'"{SINGLE}"')
        assert qvrepo("-add", quoted) == NOT_OPENED
        assert (16, "QvRepoHelper::verifySja", f"Could not open SJA file at path [{tmp_path / SINGLE}].") in log_records()

    def test_an_unsigned_archive(self, qvrepo, tmp_path):
        (tmp_path / SINGLE).write_bytes(archive(("a", b"x" * 1000)))
        assert qvrepo("-add", tmp_path / SINGLE) == INVALID_SIGNATURE

    @pytest.mark.parametrize("offset", [0, 511, 512, 516, -1])
    def test_one_flipped_byte_in_signature_header_or_data(self, qvrepo, tmp_path, log_records, offset):
        package = make_single(tmp_path)
        flip_byte(package, offset)
        assert qvrepo("-add", package) == INVALID_SIGNATURE
        assert log_records()[-3:] == [
            (16, "QvRepoHelper::verifySja", f"Signature invalid for SJA file [{package}]."),
            (16, "main", "The Dunmarel package signature is invalid."),
            (4, "main", "qvrepo exit status: [7236]")]

    def test_bytes_appended_to_the_signed_ones(self, qvrepo, tmp_path):
        package = make_single(tmp_path)
        with open(package, "ab") as file:
            file.write(b"x")
        assert qvrepo("-add", package) == INVALID_SIGNATURE

    def test_another_key(self, qvrepo, tmp_path):
        subprocess.run(["openssl", "genrsa", "-out", tmp_path / "other.key", "4096"], check=True, capture_output=True)
        (tmp_path / SINGLE).write_bytes(signed(archive(("a", b"x")), tmp_path / "other.key"))
        assert qvrepo("-add", tmp_path / SINGLE) == INVALID_SIGNATURE

    def test_a_key_of_another_size(self, qvrepo, tmp_path):
        subprocess.run(["openssl", "genrsa", "-out", tmp_path / "small.key", "2048"], check=True, capture_output=True)
        subprocess.run(["openssl", "rsa", "-in", tmp_path / "small.key", "-pubout", "-out", PUBLIC_KEY], check=True,
                       capture_output=True)
        content = archive(("a", b"x"))
        (tmp_path / SINGLE).write_bytes(signature(content, tmp_path / "small.key") * 2 + content)
        assert qvrepo("-add", tmp_path / SINGLE) == INVALID_SIGNATURE

    def test_no_key(self, qvrepo, tmp_path, log_records):
        PUBLIC_KEY.unlink()
        assert qvrepo("-add", make_single(tmp_path)) == NO_PUBLIC_KEY
        assert (16, "QvRepoHelper::verifySja", f"Public key [{PUBLIC_KEY}] not found.") in log_records()

    @pytest.mark.parametrize("length", [0, 65536, 100000])
    def test_a_key_file_that_is_empty_or_too_large(self, qvrepo, tmp_path, length):
        package = make_single(tmp_path)
        PUBLIC_KEY.write_bytes(PUBLIC_KEY.read_bytes().ljust(length, b"\n")[:length])
        assert qvrepo("-add", package) == NO_PUBLIC_KEY

    def test_a_key_that_is_a_directory(self, qvrepo, tmp_path):
        PUBLIC_KEY.unlink()
        PUBLIC_KEY.mkdir()
        assert qvrepo("-add", make_single(tmp_path)) == NO_PUBLIC_KEY

    @pytest.mark.parametrize("content", [
        b"no key\n", b"-----BEGIN PUBLIC KEY-----\nAAAA\n-----END PUBLIC KEY-----\n", pytest.param(b"\x00" * 65535, id="65535 zeros"),
        b"-----BEGIN PUBLIC KEY-----\n", b"x"])
    def test_a_damaged_key_file_shows_as_an_invalid_signature(self, qvrepo, tmp_path, content):
        package = make_single(tmp_path)
        PUBLIC_KEY.write_bytes(content)
        assert qvrepo("-add", package) == INVALID_SIGNATURE

    def test_a_key_of_another_kind_shows_as_an_invalid_signature(self, qvrepo, tmp_path):
        package = make_single(tmp_path)
        made = subprocess.run(["openssl", "ecparam", "-name", "prime256v1", "-genkey", "-noout"], capture_output=True,
                              check=True)
        subprocess.run(["openssl", "ec", "-pubout", "-out", PUBLIC_KEY], input=made.stdout, capture_output=True, check=True)
        assert qvrepo("-add", package) == INVALID_SIGNATURE

    def test_a_signed_file_that_is_not_an_archive(self, qvrepo, tmp_path, log_records):
        for content in (b"", b"JAN", b"no archive", b"JANK"):
            (tmp_path / SINGLE).write_bytes(signed(content))
            assert qvrepo("-add", tmp_path / SINGLE) == refused(
                7215, "Input package file verification failed. Failed to stat Dunmarel package.")
        assert (16, "QvRepoHelper::readSjaContents", f"Failed to stat sja file [{tmp_path / SINGLE}].") in log_records()

    def test_a_signed_archive_with_a_name_cut_off(self, qvrepo, tmp_path):
        (tmp_path / SINGLE).write_bytes(signed(archive(("a", b"x")) + b"\xff" + b"\0" * 10 + b"short"))
        assert qvrepo("-add", tmp_path / SINGLE).status == 7215 & 0xFF

    @pytest.mark.parametrize("name, status, text", [
        ("qvclient_8.3_redhat.sja", 7216, "Unrecognized package name."),
        ("dunmarel_.sja", 7216, "Unrecognized package name."),
        ("dunmarel_", 7216, "Unrecognized package name."),
        ("qvtool_8.3_redhat_x64.sja", 7265, "Package type is not supported."),
        ("x_dunmarel_qvclient_8.3_redhat_x64.sja", 7265, "Package type is not supported."),
        ("qvclient_7.6_redhat_x64.sja", 7264, "Package version is not supported."),
        ("qvclient_8.3_centos_x64.sja", 7266, "Package operating system is not supported."),
        ("qveeb_3.1a_8.3_redhat_x64.sja", 7267, "Package EEB version is not supported.")])
    def test_a_name_that_breaks_the_grammar(self, qvrepo, tmp_path, name, status, text):
        assert qvrepo("-add", make_single(tmp_path, name)) == refused(status, text)

    def test_a_broken_archive_is_reported_before_a_wrong_name(self, qvrepo, tmp_path):
        (tmp_path / "nonsense").write_bytes(signed(b"no archive"))
        assert qvrepo("-add", tmp_path / "nonsense").status == 7215 & 0xFF


# The service's side


def test_a_name_that_is_registered_already_is_refused_and_its_file_stays(qvrepo, master, repository, tmp_path):
    package = make_single(tmp_path)
    assert qvrepo("-add", package) == added(1)
    other = make_single(tmp_path, data=b"another content")
    assert qvrepo("-add", other) == refused(7218, "Package already exists in the repository.")
    assert (REPOSITORY / SINGLE).read_bytes() != other.read_bytes()
    assert len(master.packages()) == 1


def test_a_service_that_is_down_leaves_the_repository_as_it_was(qvrepo, tree, repository, tmp_path, log_records):
    assert qvrepo("-add", make_single(tmp_path)) == refused(7, "qvrepo operation failed with status [7].")
    assert repository() == []
    assert (16, "addPackagesCmd", "Failed to add deployment package metadata. Error code returned from "
                                  "curlSendRequest: 7.") in log_records()


@pytest.mark.parametrize("reply", [answer(200, '{"data": {}}'), answer(500, "<html>"), answer(201, "nonsense")])
def test_a_registration_answered_with_nonsense_is_an_unexpected_response(qvrepo, tree, repository, tmp_path, reply):
    with ScriptedService(reply) as service:
        assert qvrepo("-add", make_single(tmp_path)) == refused(9103, "Unexpected response from the web service.")
    assert [line for line, _, _ in service.requests] == [f"POST {PACKAGES} HTTP/1.1"], "no clean-up is sent"
    assert repository() == []


def test_a_registration_whose_answer_cannot_be_read_stays_and_is_logged(qvrepo, tree, tmp_path, log_records):
    with ScriptedService(answer(201, "nonsense")):
        qvrepo("-add", make_single(tmp_path))
    assert log_records()[-3] == (
        16, "addPackagesCmd", "Failed to add deployment package to repository location. Error code returned from "
                              "QvRepoPackage: 0. ")


# The repository's side


def clean_up_was_sent(master, log_records):
    """The registration was taken back: the service answers a deletion with 204, and the record of it says that this
    is not the 404 that was expected."""
    assert master.requests() == [("POST", PACKAGES), ("DELETE", f"{PACKAGES}/1")]
    assert [exchange["status"] for exchange in master.exchanges()] == [201, 204]
    assert master.packages() == []
    assert log_records()[-6:] == [
        (2, "curlSendRequest", "Http response body: "),
        (2, "curlSendRequest", "Actual http response code: 204 , expected http response code: 404"),
        (16, "parseJSONErrorResponse", "Failed to parse error response received from server. Error response is: ."),
        (16, "addPackagesCmd", "Package was not added into the repository, but qvrepo failed to remove its metadata. "
                               "Status code returned from curlSendRequest: 9103."),
        *log_records()[-2:]]


def file_failure(status):
    return [
        (16, "addPackagesCmd", "Failed to extract deployment package items to the repository. Error code returned from "
                               f"QvRepoAddInfo:extractSja: {status}."),
        (4, "addPackagesCmd", "Deleting the stale package metadata.")]


def contains_in_order(records, wanted):
    place = records.index(wanted[0])
    return records[place:place + len(wanted)] == wanted


def test_the_copy_finds_that_the_repository_is_missing_and_the_registration_is_taken_back(
        qvrepo, master, tmp_path, log_records):
    REPOSITORY.rmdir()
    assert qvrepo("-add", make_single(tmp_path)) == refused(7217, "Package repository location does not exist.")
    assert contains_in_order(log_records(), [
        (16, "QvRepoHelper::copySja", f"Package repository location does not exist: [{REPOSITORY}]."),
        *file_failure(7217)])
    clean_up_was_sent(master, log_records)


def test_the_extraction_finds_that_the_repository_is_missing_while_its_temporary_path_is_still_empty(
        qvrepo, master, tmp_path, log_records):
    REPOSITORY.rmdir()
    assert qvrepo("-add", make_bundle(tmp_path)) == refused(7217, "Package repository location does not exist.")
    assert contains_in_order(log_records(), [
        (16, "QvRepoHelper::copySja", f"Package repository location does not exist: [{REPOSITORY}]."),
        (16, "QvRepoHelper::extractSja", "Failed to copy the input sja file to repository. Error code returned from "
                                         "copySja 7217."),
        (4, "QvRepoHelper::extractSja", "Removing temporary package file []."),
        (16, "QvRepoHelper::extractSja", "Could not delete temporary package file []."),
        *file_failure(7217)])
    clean_up_was_sent(master, log_records)


@pytest.mark.parametrize("make", [make_single, make_bundle])
def test_a_repository_without_space_refuses_the_package(qvrepo, master, repository, volume, tmp_path, log_records, make):
    volume("size=4m")
    package = make(tmp_path) if make is make_bundle else make(tmp_path, data=b"x" * (5 << 20))
    if make is make_bundle:
        package = make_bundle(tmp_path, inner={INNER[0]: b"x" * (5 << 20)})
    assert qvrepo("-add", package) == NOT_COPIED
    assert repository() == []
    records = log_records()
    assert (2, "QvRepoHelper::copySja", "Package size: [5] MB.") in records
    assert (2, "QvRepoHelper::copySja", "Required disk space: [5] MB.") in records
    assert (16, "QvRepoHelper::copySja", "Not enough disk space to copy the package file.") in records
    clean_up_was_sent(master, log_records)


def test_a_disk_that_fills_up_during_the_copy_leaves_no_half_file(qvrepo, master, repository, volume, tmp_path, log_records):
    # The space suffices in whole megabytes, rounded down, but not in bytes.
    volume("size=3m")
    package = make_single(tmp_path, data=b"x" * ((3 << 20) + 500000))
    assert qvrepo("-add", package) == NOT_COPIED
    assert repository() == []
    assert contains_in_order(log_records(), [
        (4, "QvRepoHelper::copySja", f"Copied package file [{package}] to [{REPOSITORY / SINGLE}]."),
        (16, "QvRepoHelper::copySja", f"Unable to copy package file [{package}] to [{REPOSITORY}]."),
        *file_failure(7214)])
    clean_up_was_sent(master, log_records)


def test_a_disk_that_fills_up_during_the_extraction_leaves_only_whole_files(
        qvrepo, master, repository, volume, tmp_path, log_records):
    # There is space for the temporary copy, but not for the first entry written out, which is the last one.
    volume("size=7m")
    package = make_bundle(tmp_path, inner={INNER[0]: b"x", INNER[1]: b"y" * (4 << 20)})
    assert qvrepo("-add", package) == NOT_EXTRACTED
    assert repository() == []
    assert contains_in_order(log_records(), [
        (16, "QvRepoHelper::extractSja", f"Failed extracting [{package}] to directory [{REPOSITORY}]"),
        *file_failure(7252)])
    clean_up_was_sent(master, log_records)


@pytest.mark.parametrize("make, outcome", [(make_single, NOT_COPIED), (make_bundle, NOT_COPIED)])
def test_a_read_only_repository(qvrepo, master, repository, volume, tmp_path, log_records, make, outcome):
    volume("ro")
    assert qvrepo("-add", make(tmp_path)) == outcome
    assert repository() == []
    clean_up_was_sent(master, log_records)


def test_an_entry_that_cannot_be_written_keeps_what_was_extracted_before(
        qvrepo, master, repository, tmp_path, log_records):
    (REPOSITORY / INNER[0]).mkdir()
    assert qvrepo("-add", make_bundle(tmp_path)) == NOT_EXTRACTED
    assert repository() == sorted(INNER), "the directory in the way, and the entry after it"
    assert (REPOSITORY / INNER[1]).read_bytes() == b"inner server\n"
    clean_up_was_sent(master, log_records)


def test_a_service_that_goes_away_before_the_clean_up_leaves_the_registration_and_says_so_in_the_log(
        qvrepo, tree, tmp_path, log_records):
    (REPOSITORY / SINGLE).mkdir()
    with ScriptedService(answer(201, GOOD_PACKAGE), b"") as service:
        assert qvrepo("-add", make_single(tmp_path)) == NOT_COPIED
    assert [line for line, _, _ in service.requests] == [
        f"POST {PACKAGES} HTTP/1.1", f"DELETE {PACKAGES}/7 HTTP/1.1"]
    assert (16, "addPackagesCmd", "Package was not added into the repository, but qvrepo failed to remove its metadata. "
                                  "Status code returned from curlSendRequest: 52.") in log_records()


def test_an_expected_404_of_the_clean_up_is_not_a_failure(qvrepo, tree, tmp_path, log_records):
    (REPOSITORY / SINGLE).mkdir()
    gone = '{"errorCode": 227, "errorMessage": "gone"}'
    with ScriptedService(answer(201, GOOD_PACKAGE), answer(404, gone)):
        assert qvrepo("-add", make_single(tmp_path)) == NOT_COPIED
    assert log_records()[-3:] == [
        (2, "curlSendRequest", "Actual http response code: 404 , expected http response code: 404"),
        (16, "main", "Failed to copy the specified file. Could not copy package to repository."),
        (4, "main", "qvrepo exit status: [7214]")]


def test_a_listing_of_sixteen_entries_loses_its_middle(qvrepo, master, repository, tmp_path):
    names = [f"qvclient_8.{n}_redhat_x64.sja" for n in range(16)]
    package = tmp_path / BUNDLE
    package.write_bytes(signed(archive(*((name, b"x") for name in names))))
    assert qvrepo("-add", package) == added(1)
    (registered,) = master.packages()
    assert registered["items"] == [(names[15], 1), (names[14], 1)]
    assert repository() == sorted(names), "all are extracted"


def test_the_mask_of_the_caller_does_not_matter(qvrepo, master, tmp_path):
    package = make_single(tmp_path)
    before = os.umask(0o077)
    try:
        assert qvrepo("-add", package) == added(1)
    finally:
        os.umask(before)
    assert (REPOSITORY / SINGLE).stat().st_mode & 0o777 == 0o644


def test_a_package_made_by_sjapack_is_added(qvrepo, master, repository, tmp_path):
    (tmp_path / "payload").write_bytes(os.urandom(100000))
    subprocess.run([PROGRAMS / "sjapack", "create", tmp_path / SINGLE, tmp_path / "payload", "--key",
                    ROOT / "publisher/signing.key"], check=True, capture_output=True)
    assert qvrepo("-add", tmp_path / SINGLE) == added(1)
    assert repository() == [SINGLE]
