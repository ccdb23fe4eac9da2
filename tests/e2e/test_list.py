"""-list: what is asked of the service, and the table that is printed."""

import json

import pytest
from scripted_service import ScriptedService, answer
from world import MEDIA_TYPE, PACKAGES

REPOSITORY_IS_EMPTY = "0 deployment packages in the repository.\n"
UNEXPECTED = "Error: Unexpected response from the web service.\n"
STATUS_9103 = 9103 & 0xFF


@pytest.fixture
def three_packages(master):
    master.register("dunmarel_qvclient_8.3.0.1_redhat_x64.sja", type="qvclient", version="8.3.0.1")
    master.register("dunmarel_maint.qv_8.2_windows_x64.sja", type="maint.qv", os="windows_x64", version="8.2")
    master.register("dunmarel_qveeb.server_3.1_8.1.2_suse_ppc64le.sja", type="qveeb.server", os="suse_ppc64le",
                    version="8.1.2")
    return master


def test_the_table_of_all_packages(qvrepo, three_packages):
    assert qvrepo("-list") == (
        "ID Type          Version OS           File Name                                       \n"
        "-- ------------- ------- ------------ ------------------------------------------------\n"
        "1  client        8.3.0.1 redhat_x64   dunmarel_qvclient_8.3.0.1_redhat_x64.sja        \n"
        "2  server+client 8.2     windows_x64  dunmarel_maint.qv_8.2_windows_x64.sja           \n"
        "3  server eeb    8.1.2   suse_ppc64le dunmarel_qveeb.server_3.1_8.1.2_suse_ppc64le.sja\n", "", 0)
    assert three_packages.requests()[-1] == ("GET", PACKAGES)


@pytest.mark.parametrize("option", ["-list", "-l"])
def test_both_forms_of_the_option_list(qvrepo, master, option):
    assert qvrepo(option) == (REPOSITORY_IS_EMPTY, "", 0)


@pytest.mark.parametrize("arguments, query, ids", [
    (["-version", "8.2"], "version%20eq%20'8.2'", ["2"]),
    (["-os", "redhat_x64"], "os%20eq%20'redhat_x64'", ["1"]),
    (["-type", "qveeb.server"], "package-type%20eq%20'qveeb.server'", ["3"])])
def test_a_filter_narrows_the_list(qvrepo, three_packages, arguments, query, ids):
    outcome = qvrepo("-list", *arguments)
    assert [line.split()[0] for line in outcome.stdout.splitlines()[2:]] == ids
    assert (outcome.stderr, outcome.status) == ("", 0)
    assert three_packages.requests()[-1] == ("GET", f"{PACKAGES}?filter={query}")


def test_a_filter_that_matches_nothing_says_that_there_are_none(qvrepo, three_packages):
    assert qvrepo("-list", "-type", "qveeb") == (REPOSITORY_IS_EMPTY, "", 0)


@pytest.mark.parametrize("value, wire", [
    ("red hat", "red%20hat"), ("a'b", "a'b"), ("ü", "%C3%BC"), ("a#b", "a%23b"), ("a+b&c=d?e", "a+b&c=d?e"),
    ("\t\r\nHost: x", "%09%0D%0AHost:%20x"), ('"<>\\^`{|}', '"<>\\^`{|}')])
def test_the_service_decodes_a_filter_value_exactly_as_it_was_typed(qvrepo, master, value, wire):
    master.register("odd.sja", version=value)
    master.register("plain.sja", version="8.3")
    outcome = qvrepo("-list", "-version", value)
    assert master.requests()[-1] == ("GET", f"{PACKAGES}?filter=version%20eq%20'{wire}'")
    assert (outcome.stderr, outcome.status) == ("", 0)
    assert "odd.sja" in outcome.stdout and "plain.sja" not in outcome.stdout


def test_a_request_carries_the_media_type_the_agent_and_no_body(qvrepo):
    with ScriptedService(answer(200, '{"data": []}')) as service:
        assert qvrepo("-list") == (REPOSITORY_IS_EMPTY, "", 0)
    ((line, headers, body),) = service.requests
    assert line == f"GET {PACKAGES} HTTP/1.1"
    assert headers["Accept"] == MEDIA_TYPE
    assert headers["User-Agent"].startswith("qvrepo/")
    assert headers["Host"] == "master.example.com:1556"
    assert "Content-Type" not in headers
    assert body == ""


def test_the_log_of_a_whole_list(qvrepo, master, log_records):
    qvrepo("-list")
    body = '{"data": []}'
    assert log_records()[2:] == [
        (2, "curlSendRequest", "Sending curl request with URI : quorvelle/deployment/packages."),
        (2, "curlSendRequest", f"Http response body: {body}"),
        (2, "curlSendRequest", "Actual http response code: 200 , expected http response code: 200"),
        (4, "listPackagesCmd", "Successfully retrieved deployment package list from the repository."),
        (4, "listPackagesCmd", "0 deployment packages in the repository.")]


ODD_TEXTS = ["tab\there", "esc\x1b[31mred", "new\nline", "grüße", "日本語", "%s%n%d", "a" * 500, "\x7f", "\u202eltr"]


def padded(text, width):
    """The text as it stands in a column at least `width` wide; columns are measured in bytes."""
    return text + " " * (width - len(text.encode()))


@pytest.mark.parametrize("text", ODD_TEXTS)
def test_unusual_texts_of_the_service_come_out_as_they_came_in(qvrepo, log_records, text):
    attributes = {
        "packageName": text, "packageFileName": text, "packageItemFilePaths": [], "packageType": "qvclient", "os": text,
        "version": "8.3", "size": 1, "createdDateTimeUTC": "", "lastModifiedDateTimeUTC": "", "lastValidatedUTC": ""}
    with ScriptedService(answer(200, json.dumps({"data": [{"id": "1", "attributes": attributes}]}))):
        outcome = qvrepo("-list")
    assert (outcome.stderr, outcome.status) == ("", 0)
    assert outcome.stdout.endswith(f"1  client   8.3     {padded(text, 2)} {padded(text, 9)}\n")
    log_records()  # every line of the log is still a record


def test_an_error_code_of_the_service_becomes_its_text(qvrepo, log_records):
    error = '{"errorCode": 8000, "errorMessage": "not you"}'
    with ScriptedService(answer(401, error)):
        assert qvrepo("-list") == ("", "Error: authorization failed.\n", 8000 & 0xFF)
    assert log_records()[2:] == [
        (2, "curlSendRequest", "Sending curl request with URI : quorvelle/deployment/packages."),
        (2, "curlSendRequest", f"Http response body: {error}"),
        (2, "curlSendRequest", "Actual http response code: 401 , expected http response code: 200"),
        (16, "parseJSONErrorResponse", "Error code returned by server is : 8000."),
        (16, "parseJSONErrorResponse", "Error message returned by server: not you."),
        (2, "listPackagesCmd", "Failed to list deployment packages in the repository. Error code returned from "
                               "curlSendRequest: 8000."),
        (16, "main", "authorization failed."),
        (4, "main", "qvrepo exit status: [8000]")]


def test_an_error_code_without_a_text_gets_the_general_one(qvrepo, log_records):
    with ScriptedService(answer(500, '{"errorCode": 12345, "errorMessage": "x"}')):
        assert qvrepo("-list") == ("", "Error: qvrepo operation failed with status [12345].\n", 12345 & 0xFF)
    assert log_records()[-2:] == [(16, "main", "status code 12345"), (4, "main", "qvrepo exit status: [12345]")]


def test_an_error_code_of_0_counts_as_a_success_whose_body_is_then_read(qvrepo):
    with ScriptedService(answer(500, '{"errorCode": 0, "errorMessage": "x", "data": []}')):
        assert qvrepo("-list") == (REPOSITORY_IS_EMPTY, "", 0)


@pytest.mark.parametrize("status, body", [
    (500, ""), (500, "<html>"), (404, "{}"), (404, '{"errorCode": "7", "errorMessage": "x"}'),
    (404, '{"errorCode": 7}'), (301, '{"data": []}'), (204, ""), (201, '{"data": []}')])
def test_an_unexpected_code_without_an_error_body_is_an_unexpected_response(qvrepo, status, body):
    with ScriptedService(answer(status, body)) as service:
        assert qvrepo("-list") == ("", UNEXPECTED, STATUS_9103)
    assert len(service.requests) == 1


@pytest.mark.parametrize("body, log", [
    ("", "Failed to parse package details from response received from server and the response is: ."),
    ("<html>", "Failed to parse package details from response received from server and the response is: <html>."),
    ('{"data": [', 'Failed to parse package details from response received from server and the response is: {"data": [.'),
    ("{}", "No data in response."), ('{"data": {}}', "No data in response."), ("[]", "No data in response."),
    ('{"data": [1]}', "No package details in response."),
    ('{"data": [{}]}', "Error reading package details in response. Error code: 9103.")])
def test_an_answer_that_is_not_a_package_list_is_an_unexpected_response(qvrepo, log_records, body, log):
    with ScriptedService(answer(200, body)):
        assert qvrepo("-list") == ("", UNEXPECTED, STATUS_9103)
    assert log_records()[-4:] == [
        (16, "QvRepoPackage::parseJSONResponsePackage", log),
        (2, "listPackagesCmd", "Failed to list deployment packages in the repository. Error code returned from "
                               "parseJSONResponsePackageArray: 9103."),
        (16, "main", "Unexpected response from the web service."),
        (4, "main", "qvrepo exit status: [9103]")]


def test_an_answer_cut_off_in_the_middle_fails_with_the_clients_code(qvrepo):
    with ScriptedService(answer(200, '{"data": [', length=1000)):
        assert qvrepo("-list") == ("", "Error: qvrepo operation failed with status [18].\n", 18)


def test_a_long_list_comes_whole(qvrepo, master):
    master.register_many(3000)
    lines = qvrepo("-list").stdout.splitlines()
    assert len(lines) == 3002
    assert lines[-1].split()[0] == "3000"
    assert len({len(line) for line in lines}) == 1
