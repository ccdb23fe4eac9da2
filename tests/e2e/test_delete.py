"""-delete: the question, the service, and the files."""

import pytest
from packages import INNER, make_bundle, make_single
from scripted_service import ScriptedService, answer
from world import PACKAGES, REPOSITORY

PROMPT = "qvrepo: delete package ID 1 [y/n]? (n) "
DELETED = "Package ID 1 has been deleted from the repository.\n"
CANCELED = (PROMPT, "Package delete operation was canceled.\n", 7221 & 0xFF)
NOT_FOUND = ("", "Error: Deployment package is not found in the repository.\n", 7220 & 0xFF)
INVALID_ID = ("", "Error: Invalid package ID.\n", 7219 & 0xFF)


@pytest.fixture
def bundle(qvrepo, master, tmp_path):
    """Package 1, a bundle of two files, in the repository."""
    assert qvrepo("-add", make_bundle(tmp_path)).status == 0
    return master


@pytest.mark.parametrize("option", ["-delete", "-d"])
@pytest.mark.parametrize("yes", ["y\n", "Y\n", "yes\n", "y please\n", "y", "yn\n"])
def test_a_yes_deletes_the_package_and_its_files(qvrepo, bundle, repository, option, yes):
    assert qvrepo(option, "1", stdin=yes) == (PROMPT + DELETED, "", 0)
    assert bundle.requests()[-2:] == [("GET", f"{PACKAGES}/1"), ("DELETE", f"{PACKAGES}/1")]
    assert bundle.packages() == []
    assert repository() == []


@pytest.mark.parametrize("no", ["n\n", "\n", "", " y\n", "no\n", "x\ny\n", "\ny\n"])
def test_anything_else_is_a_no_and_changes_nothing(qvrepo, bundle, repository, log_records, no):
    assert qvrepo("-delete", "1", stdin=no) == CANCELED
    assert bundle.requests()[-1] == ("GET", f"{PACKAGES}/1")
    assert len(bundle.packages()) == 1
    assert repository() == sorted(INNER)
    assert log_records()[-3:] == [
        (4, "deletePackageCmd", "qvrepo operation aborted. Package ID [1] has not been deleted."),
        (16, "main", "Package delete operation was canceled."),
        (4, "main", "qvrepo exit status: [7221]")]


def test_the_id_as_typed_is_quoted_and_its_number_is_asked_and_sent(qvrepo, bundle, log_records):
    assert qvrepo("-delete", "+01", stdin="y\n") == (
        PROMPT + "Package ID +01 has been deleted from the repository.\n", "", 0)
    assert bundle.requests()[-2:] == [("GET", f"{PACKAGES}/1"), ("DELETE", f"{PACKAGES}/1")]
    assert log_records()[-1] == (4, "deletePackageCmd", "Package ID +01 has been deleted from the repository.")


def test_the_log_of_a_whole_deletion(qvrepo, bundle, tree, log_records):
    body = bundle.get(f"{PACKAGES}/1").body.decode()
    for log in (tree / "quorvelle/logs/qvrepo").iterdir():
        log.unlink()
    qvrepo("-delete", "1", stdin="y\n")
    uri = "quorvelle/deployment/packages/1"
    assert log_records()[2:] == [
        (2, "curlSendRequest", f"Sending curl request with URI : {uri}."),
        (2, "curlSendRequest", f"Http response body: {body}"),
        (2, "curlSendRequest", "Actual http response code: 200 , expected http response code: 200"),
        (4, "deletePackageCmd", "Successfully retrieved deployment package details from the repository."),
        (2, "curlSendRequest", f"Sending curl request with URI : {uri}."),
        (2, "curlSendRequest", "Http response body: "),
        (2, "curlSendRequest", "Actual http response code: 204 , expected http response code: 204"),
        (2, "deletePackageCmd", "Successfully deleted package 0 metadata."),
        (4, "QvRepoHelper::deletePackageItems", f"Deleted package item {REPOSITORY}/{INNER[1]}."),
        (4, "QvRepoHelper::deletePackageItems", f"Deleted package item {REPOSITORY}/{INNER[0]}."),
        (4, "deletePackageCmd", "Package ID 1 has been deleted from the repository.")]


def test_an_unknown_id_is_not_found_and_nothing_is_asked(qvrepo, master, log_records):
    assert qvrepo("-delete", "007", stdin="y\n") == NOT_FOUND
    assert master.requests() == [("GET", f"{PACKAGES}/7")]
    assert log_records()[-4:-2] == [
        (16, "deletePackageCmd", "Failed to retrieve deployment package in the repository. Error code returned from "
                                 "curlSendRequest: 227."),
        (16, "deletePackageCmd", "Package ID [007] does not exist in the repository.")]


@pytest.mark.parametrize("typed", ["0", "-1", "abc", "1x", ""])
def test_an_invalid_id_is_refused_before_any_request(qvrepo, master, log_records, typed):
    assert qvrepo("-delete", typed, stdin="y\n") == INVALID_ID
    assert master.requests() == []
    assert log_records()[2] == (16, "validatePackageId", f"[{typed}] is not a valid package ID.")


def test_a_missing_file_is_logged_and_the_deletion_still_succeeds(qvrepo, bundle, repository, log_records):
    (REPOSITORY / INNER[1]).unlink()
    assert qvrepo("-delete", "1", stdin="y\n") == (PROMPT + DELETED, "", 0)
    assert repository() == []
    assert log_records()[-5:] == [
        (16, "QvRepoHelper::deletePackageItems", f"Package item {REPOSITORY}/{INNER[1]} does not exist."),
        (16, "QvRepoHelper::deletePackageItems", f"Failed to delete package item {REPOSITORY}/{INNER[1]}."),
        (4, "QvRepoHelper::deletePackageItems", f"Deleted package item {REPOSITORY}/{INNER[0]}."),
        (16, "deletePackageCmd", "Package metadata has been deleted, but one or more package file items have not been "
                                 "deleted. "),
        (4, "deletePackageCmd", "Package ID 1 has been deleted from the repository.")]


def test_a_file_that_cannot_be_deleted_is_logged_and_the_deletion_still_succeeds(qvrepo, bundle, repository, log_records):
    (REPOSITORY / INNER[1]).unlink()
    (REPOSITORY / INNER[1]).mkdir()
    assert qvrepo("-delete", "1", stdin="y\n") == (PROMPT + DELETED, "", 0)
    assert repository() == [INNER[1]]
    assert (16, "QvRepoHelper::deletePackageItems", f"Failed to delete package item {REPOSITORY}/{INNER[1]}.") \
        in log_records()
    assert bundle.packages() == []


@pytest.mark.parametrize("reply, status, text", [
    (answer(200, "{}"), 9103, "Unexpected response from the web service."),
    (answer(403, '{"errorCode": 8000, "errorMessage": "x"}'), 8000, "authorization failed."),
    (b"", 52, "qvrepo operation failed with status [52].")])
def test_a_service_that_does_not_delete_keeps_the_files(qvrepo, master, repository, tmp_path, reply, status, text):
    qvrepo("-add", make_single(tmp_path))
    package = master.get(f"{PACKAGES}/1").body
    files = repository()
    master.stop()
    with ScriptedService(answer(200, package), reply) as service:
        assert qvrepo("-delete", "1", stdin="y\n") == (PROMPT, f"Error: {text}\n", status & 0xFF)
    assert [line.split()[0] for line, _, _ in service.requests] == ["GET", "DELETE"]
    assert repository() == files
