"""What qvmaster answers, row by row of its table of requests."""

import re
import sqlite3

import pytest
from world import MEDIA_TYPE, PACKAGES, creation_body

NAME = "dunmarel_qvclient_8.3_redhat_x64.sja"
NOT_UNDERSTOOD = 9103
UNUSABLE = 20
UNKNOWN = 227
SAME_NAME = 7218
NO_ID = 8626


def test_an_empty_service_lists_nothing(master):
    reply = master.get()
    assert (reply.status, reply.body) == (200, b'{"data": []}')


def test_a_created_package_is_answered_with_all_its_members(master):
    package = master.register(
        NAME, [("inner_a.sja", 5), ("inner_b.sja", 70)], type="maint.qv", os="windows_x64", version="8.3.0.1"
    )
    attributes = package["attributes"]
    times = {attributes.pop(f"{name}") for name in (
        "createdDateTimeUTC", "lastModifiedDateTimeUTC", "lastValidatedUTC")}
    assert len(times) == 1
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", times.pop())
    assert package == {
        "type": "package",
        "id": "1",
        "attributes": {
            "packageName": "qvclient_8.3_redhat_x64",
            "packageFileName": NAME,
            "packageItemFilePaths": [
                "/usr/ormex/var/global/repo/inner_a.sja",
                "/usr/ormex/var/global/repo/inner_b.sja",
            ],
            "packageType": "maint.qv",
            "os": "windows_x64",
            "version": "8.3.0.1",
            "size": 75,
        },
    }


def test_creation_list_and_details_show_the_same_package(master):
    created = master.register(NAME)
    assert master.get(f"{PACKAGES}/1").json == {"data": created}
    assert master.get().json == {"data": [created]}


def test_a_list_is_in_order_of_id(master):
    for name in ("zebra.sja", "ape.sja", "lion.sja"):
        master.register(name)
    listed = [(package["id"], package["attributes"]["packageFileName"]) for package in master.get().json["data"]]
    assert listed == [("1", "zebra.sja"), ("2", "ape.sja"), ("3", "lion.sja")]


def test_a_deleted_package_is_gone_and_its_answer_has_no_body(master):
    master.register(NAME, [("a.sja", 1), ("b.sja", 2)])
    reply = master.delete(1)
    assert (reply.status, reply.body) == (204, b"")
    assert "content-length" not in reply.headers and "content-type" not in reply.headers
    assert master.get(f"{PACKAGES}/1").error == (404, UNKNOWN)
    assert master.delete(1).error == (404, UNKNOWN)
    assert master.get().json == {"data": []}
    assert master.packages() == []


def test_a_second_package_of_the_same_file_name_is_refused_and_the_first_stays(master):
    first = master.register(NAME, version="8.3")
    assert master.post(creation_body(NAME, version="9.0")).error == (409, SAME_NAME)
    assert master.get().json == {"data": [first]}


def test_an_item_name_that_another_package_has_is_refused_until_that_is_deleted(master):
    bundle = master.register("bundle.sja", [("inner_a.sja", 5), ("inner_b.sja", 7)])
    assert master.post(creation_body("inner_b.sja")).error == (409, SAME_NAME)
    assert master.get().json == {"data": [bundle]}
    master.delete(1)
    assert master.register("inner_b.sja")["id"] == "2"


def test_a_file_name_is_free_again_after_its_package_was_deleted(master):
    master.register(NAME)
    master.delete(1)
    assert master.register(NAME)["id"] == "2"


@pytest.mark.parametrize("method", ["GET", "DELETE"])
@pytest.mark.parametrize(
    "text, error",
    [
        ("7", (404, UNKNOWN)),
        ("007", (404, UNKNOWN)),
        ("9223372036854775807", (404, UNKNOWN)),
        ("9223372036854775808", (400, NO_ID)),
        ("99999999999999999999999", (400, NO_ID)),
        ("0", (400, NO_ID)),
        ("-3", (400, NO_ID)),
        ("+7", (400, NO_ID)),
        ("7a", (400, NO_ID)),
        ("0x7", (400, NO_ID)),
        ("7.0", (400, NO_ID)),
        ("%207", (400, NO_ID)),
        ("", (400, NO_ID)),
        ("7/items", (404, NOT_UNDERSTOOD)),
    ],
)
def test_a_package_id_is_a_positive_number_in_digits(master, method, text, error):
    assert master.request(method, f"{PACKAGES}/{text}").error == error


@pytest.mark.parametrize("version", ["4.0", "5.0", "6.0"])
def test_an_answer_has_the_version_that_was_asked_for(master, version):
    media_type = f"application/vnd.quorvelle+json;version={version}"
    reply = master.get(headers={"Accept": media_type})
    assert (reply.status, reply.headers["content-type"]) == (200, media_type)
    reply = master.get(f"{PACKAGES}/5", headers={"Accept": media_type})
    assert (reply.error, reply.headers["content-type"]) == ((404, UNKNOWN), media_type)


@pytest.mark.parametrize(
    "accept", [" application/vnd.quorvelle+json ; version=6.0 ", "Application/vnd.Quorvelle+JSON;Version=6.0"]
)
def test_blanks_and_letter_case_in_accept_do_not_count(master, accept):
    reply = master.get(headers={"Accept": accept})
    assert (reply.status, reply.headers["content-type"]) == (200, MEDIA_TYPE)


@pytest.mark.parametrize(
    "accept",
    [
        None,
        "",
        "*/*",
        "application/json",
        "application/vnd.quorvelle+json",
        "application/vnd.quorvelle+json;version=3.0",
        "application/vnd.quorvelle+json;version=7.0",
        "application/vnd.quorvelle+json;version=6.00",
        "application/vnd.quorvelle+json;version=6.0;q=1",
        "application/vnd.quorvelle+json;q=6.0",
        "application/vnd.quorvelle+octet-stream;version=6.0",
    ],
)
@pytest.mark.parametrize(
    "method, target", [("GET", PACKAGES), ("POST", PACKAGES), ("DELETE", f"{PACKAGES}/1"), ("PUT", "/nowhere")]
)
def test_another_accept_is_refused_before_anything_else(master, accept, method, target):
    body = creation_body(NAME) if method == "POST" else None
    reply = master.request(method, target, body=body, headers={"Accept": accept})
    assert (reply.error, reply.headers["content-type"]) == ((406, NOT_UNDERSTOOD), MEDIA_TYPE)
    assert master.packages() == []


@pytest.mark.parametrize("target", ["/", "/quorvelle", "/quorvelle/ping", PACKAGES + "s", "/x" + PACKAGES, "*"])
def test_another_resource_is_not_found(master, target):
    assert master.get(target).error == (404, NOT_UNDERSTOOD)


@pytest.mark.parametrize("method", ["PUT", "PATCH", "DELETE", "OPTIONS", "TRACE", "CONNECT"])
def test_the_package_list_knows_get_and_post_only(master, method):
    reply = master.request(method, PACKAGES)
    assert (reply.error, reply.headers["allow"]) == ((405, NOT_UNDERSTOOD), "GET, POST")


@pytest.mark.parametrize("method", ["PUT", "PATCH", "POST", "OPTIONS"])
def test_one_package_knows_get_and_delete_only(master, method):
    reply = master.request(method, f"{PACKAGES}/1", body="{}")
    assert (reply.error, reply.headers["allow"]) == ((405, NOT_UNDERSTOOD), "GET, DELETE")


def test_head_is_refused_without_a_body(master):
    reply = master.request("HEAD", PACKAGES)
    assert (reply.status, reply.body) == (405, b"")


def without(member):
    body = creation_body(NAME)
    del body["data"]["attributes"][member]
    return body


def with_items(*items):
    return creation_body(NAME, packageItems=list(items))


MEMBERS = ["packageFileName", "packageName", "os", "version", "packageType", "packageItems"]
TEXTS = MEMBERS[:-1]


@pytest.mark.parametrize(
    "body",
    [
        "",
        "no json",
        "{",
        "[]",
        "7",
        "{}",
        '{"data": []}',
        '{"data": {"type": "newPackageAttributes"}}',
        '{"data": {"type": "newPackageAttributes", "attributes": []}}',
        {"data": {**creation_body(NAME)["data"], "type": "package"}},
        {"data": {**creation_body(NAME)["data"], "type": 1}},
        {"data": {"attributes": creation_body(NAME)["data"]["attributes"]}},
        b'{"data": "\xff"}',
        *[without(member) for member in MEMBERS],
        *[creation_body(NAME, **{member: 7}) for member in MEMBERS],
        *[creation_body(NAME, **{member: None}) for member in MEMBERS],
        *[creation_body(NAME, **{member: "a\0b"}) for member in TEXTS],
        *[creation_body(NAME, packageFileName=name) for name in ("", ".", "..", "/", "a/b", "../up")],
        *[creation_body(NAME, packageName=name) for name in ("", ".", "..", "a/b")],
        *[with_items({"fileName": name, "fileSize": 1}) for name in ("", ".", "..", "a/b", "a\0b", 7, None)],
        *[with_items({"fileName": "a", "fileSize": size}) for size in (-1, 1.0, 1.5, "1", None, True, 2**63)],
        with_items({"fileName": "a"}),
        with_items({"fileSize": 1}),
        with_items("a"),
        with_items({"fileName": "a", "fileSize": 2**63 - 1}, {"fileName": "b", "fileSize": 1}),
    ],
    ids=lambda body: str(body)[-80:],
)
def test_an_unusable_creation_body_is_refused_and_changes_nothing(master, body):
    assert master.post(body).error == (400, UNUSABLE)
    assert master.packages() == []


def test_members_beyond_those_needed_are_ignored(master):
    body = creation_body(NAME, colour="red", packageItems=[{"fileName": "a", "fileSize": 1, "mode": 0}])
    body["data"]["id"] = "99"
    body["meta"] = None
    assert master.post(body).status == 201
    assert [(package["id"], package["items"]) for package in master.packages()] == [(1, [("a", 1)])]


def test_a_package_without_items_has_size_0(master):
    attributes = master.register(NAME, [])["attributes"]
    assert (attributes["size"], attributes["packageItemFilePaths"]) == (0, [])


def test_sizes_up_to_63_bits_are_kept(master):
    assert master.register(NAME, [("a", 2**63 - 2), ("b", 1)])["attributes"]["size"] == 2**63 - 1


@pytest.mark.parametrize(
    "file_name, name",
    [
        ("dunmarel_a.sja", "a"),
        ("a.sja", "a"),
        ("dunmarel_a", "a"),
        ("a", "a"),
        ("x_dunmarel_a.sja.sja", "x_dunmarel_a.sja"),
        ("dunmarel_dunmarel_a.SJA", "dunmarel_a.SJA"),
        ("dunmarel_.sja", ""),
        (".sja", ""),
    ],
)
def test_a_package_name_is_the_file_name_without_prefix_and_ending(master, file_name, name):
    assert master.register(file_name, packageName="unused")["attributes"]["packageName"] == name


ODD_TEXTS = ['quote " and \\', "tab\tline\nend", "\x01\x1f\x7f", "ünïcode ☃ 𝄞", "%41%00 +&?#'", "x" * 5000]


@pytest.mark.parametrize("text", ODD_TEXTS, ids=ascii)
def test_unusual_texts_come_out_as_they_came_in(master, text):
    package = master.register(text, [(text, 1)], type=text, os=text, version=text)
    attributes = package["attributes"]
    assert [attributes[member] for member in ("packageFileName", "packageType", "os", "version")] == [text] * 4
    assert attributes["packageItemFilePaths"] == ["/usr/ormex/var/global/repo/" + text]
    assert master.get().json["data"] == [package]
    assert master.get(f"{PACKAGES}/1").json["data"] == package


def test_item_paths_lie_in_the_repository_directory_that_was_given(idle_master):
    idle_master.start("--repo", "/srv/packages/")
    assert idle_master.register(NAME)["attributes"]["packageItemFilePaths"] == [f"/srv/packages/{NAME}"]


def test_answers_are_never_compressed(master):
    reply = master.get(headers={"Accept-Encoding": "gzip, br, deflate"})
    assert "content-encoding" not in reply.headers
    assert reply.body == b'{"data": []}'


def test_a_failing_database_is_answered_with_an_error_body_and_reported(master):
    master.register(NAME)
    with sqlite3.connect(master.database) as database:
        database.execute("DROP TABLE packageItems")
    database.close()
    assert master.get().error == (500, NOT_UNDERSTOOD)
    assert master.get(f"{PACKAGES}/1").error == (500, NOT_UNDERSTOOD)
    assert master.post(creation_body("b.sja")).error == (500, NOT_UNDERSTOOD)
    assert master.delete(1).error == (500, NOT_UNDERSTOOD)
    problem = "qvmaster: the database refuses a statement: no such table: packageItems"
    failing = "qvmaster: the database fails: no such table: packageItems"
    assert set(master.problems()) <= {problem, failing} and len(master.problems()) == 4


def test_the_access_log_tells_every_request(master):
    body = '{"data": "quote \\" ünïcode"}'
    master.get()
    master.post(body, headers={"Content-Type": "text/x"})
    master.delete(3)
    master.get("/nowhere", headers={"Accept": None})
    exchanges = master.exchanges()
    for exchange in exchanges:
        assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z", exchange.pop("time"))
    usual = {"accept": MEDIA_TYPE, "contentType": "", "body": ""}
    assert exchanges == [
        {**usual, "method": "GET", "target": PACKAGES, "status": 200},
        {**usual, "method": "POST", "target": PACKAGES, "status": 400, "contentType": "text/x", "body": body},
        {**usual, "method": "DELETE", "target": f"{PACKAGES}/3", "status": 404},
        {**usual, "method": "GET", "target": "/nowhere", "status": 406, "accept": ""},
    ]


def test_the_access_log_keeps_64_kib_of_a_body(master):
    master.post("x" * 70000)
    assert [exchange["body"] for exchange in master.exchanges()] == ["x" * 65536]
