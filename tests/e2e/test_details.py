"""-pkgDetails: one package's block."""

import pytest
from scripted_service import ScriptedService, answer
from world import PACKAGES

INVALID_ID = ("", "Error: Invalid package ID.\n", 7219 & 0xFF)
NOT_FOUND = ("", "Error: Deployment package is not found in the repository.\n", 7220 & 0xFF)
UNEXPECTED = ("", "Error: Unexpected response from the web service.\n", 9103 & 0xFF)


@pytest.mark.parametrize("option", ["-pkgDetails", "-p"])
def test_the_details_of_a_package(qvrepo, master, option):
    package = master.register("dunmarel_qv_8.3_redhat_x64.sja", [("a.sja", 3414444441)], type="qv")
    created = package["attributes"]["createdDateTimeUTC"][:19].replace("T", " ")
    assert qvrepo(option, "1") == (
        "                  Package ID: 1\n"
        "           Package File Name: dunmarel_qv_8.3_redhat_x64.sja\n"
        "                Package Type: server+client\n"
        "            Operating System: redhat_x64\n"
        "             Release Version: 8.3\n"
        "                Installables: qvclient_8.3\n"
        "                              qvserver_8.3\n"
        "                Package Size: 3.18 GB\n"
        f"     Created Date/Time (UTC): {created}\n", "", 0)
    assert master.requests()[-1] == ("GET", f"{PACKAGES}/1")


@pytest.mark.parametrize("typed", ["007", "+7", " 7"])
def test_an_id_is_sent_as_a_plain_number(qvrepo, master, log_records, typed):
    assert qvrepo("-p", typed) == NOT_FOUND
    assert master.requests() == [("GET", f"{PACKAGES}/7")]
    assert log_records()[-4:] == [
        (2, "getPackageDetailsCmd", "Failed to retrieve deployment package in the repository. Error code returned "
                                    "from curlSendRequest: 227."),
        (16, "getPackageDetailsCmd", f"Package ID [{typed}] does not exist in the repository."),
        (16, "main", "Deployment package is not found in the repository."),
        (4, "main", "qvrepo exit status: [7220]")]


@pytest.mark.parametrize("typed", ["0", "-4", "12x", "", "abc", "0x7", "7 "])
def test_an_invalid_id_is_refused_before_any_request(qvrepo, master, log_records, typed):
    assert qvrepo("-p", typed) == INVALID_ID
    assert master.requests() == []
    assert log_records()[2:] == [
        (16, "validatePackageId", f"[{typed}] is not a valid package ID."),
        (16, "main", "Invalid package ID."),
        (4, "main", "qvrepo exit status: [7219]")]


def test_an_id_beyond_64_bits_is_requested_as_the_largest(qvrepo, master):
    assert qvrepo("-p", "99999999999999999999") == NOT_FOUND
    assert master.requests() == [("GET", f"{PACKAGES}/9223372036854775807")]


def test_an_id_that_the_service_rejects_is_invalid(qvrepo, log_records):
    with ScriptedService(answer(400, '{"errorCode": 8626, "errorMessage": "x"}')):
        assert qvrepo("-p", "7") == INVALID_ID
    assert (16, "getPackageDetailsCmd", "[7] is not a valid package ID.") in log_records()


@pytest.mark.parametrize("body", ["", "<html>", '{"data": []}', '{"data": {}}', "{}"])
def test_an_answer_that_is_not_a_package_is_an_unexpected_response(qvrepo, log_records, body):
    with ScriptedService(answer(200, body)):
        assert qvrepo("-p", "7") == UNEXPECTED
    assert log_records()[-3:] == [
        (2, "getPackageDetailsCmd", "Failed to retrieve deployment package in the repository. Error code returned "
                                    "from QvRepoPackage: 9103."),
        (16, "main", "Unexpected response from the web service."),
        (4, "main", "qvrepo exit status: [9103]")]


def test_the_log_of_a_whole_run(qvrepo, master, log_records):
    master.register("a.sja")
    body = master.get(f"{PACKAGES}/1").body.decode()
    qvrepo("-p", "1")
    assert log_records()[2:] == [
        (2, "curlSendRequest", "Sending curl request with URI : quorvelle/deployment/packages/1."),
        (2, "curlSendRequest", f"Http response body: {body}"),
        (2, "curlSendRequest", "Actual http response code: 200 , expected http response code: 200"),
        (4, "getPackageDetailsCmd", "Successfully retrieved deployment package details from the repository.")]
