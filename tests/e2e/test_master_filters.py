"""Filtered lists: FIELD eq 'VALUE', sent as an administrator typed the value."""

from urllib.parse import quote

import pytest
from world import PACKAGES, raw_request, read_answers

UNUSABLE = 20


def listed(master, query):
    """The file names listed for a query, sent byte by byte as it is."""
    query = query.encode() if isinstance(query, str) else query
    with master.open_tls() as connection:
        connection.sendall(raw_request("GET", PACKAGES.encode() + b"?" + query))
        (answer,) = read_answers(connection, 1)
    if answer.status != 200:
        return answer.error
    return [package["attributes"]["packageFileName"] for package in answer.json["data"]]


@pytest.mark.parametrize(
    "query, names",
    [
        ("filter=version%20eq%20'8.3'", ["a", "b"]),
        ("filter=os%20eq%20'redhat_x64'", ["a", "c"]),
        ("filter=package-type%20eq%20'qveeb'", ["b", "c"]),
        ("filter=os%20eq%20'windows'", []),
        ("filter=%6fs%20eq%20%27redhat_x64%27", ["a", "c"]),
    ],
)
def test_a_filter_lists_the_packages_whose_field_equals_the_value(master, query, names):
    master.register("a", version="8.3", os="redhat_x64", type="qv")
    master.register("b", version="8.3", os="windows_x64", type="qveeb")
    master.register("c", version="8.3.0.1", os="redhat_x64", type="qveeb")
    assert listed(master, query) == names


def test_a_filtered_list_shows_packages_with_all_their_items(master):
    package = master.register("a", [("x", 1), ("y", 2)], os="one")
    master.register("b", os="two")
    assert master.get(f"{PACKAGES}?filter=os%20eq%20'one'").json == {"data": [package]}


ODD_VALUES = [
    "",
    " ",
    "it's",
    "'",
    "''",
    "a' or 'b",
    "x' OR '1'='1",
    "a+b",
    "a&filter=b",
    "a&b=c",
    "a?b??",
    "a#b",
    "50%",
    "%41",
    "100%zz",
    "%",
    "ünïcode ☃",
    '"double"',
    "back\\slash",
    "tab\tline\nend\r",
    ";--",
    "*",
    "_",
    "8.3 eq '8.3'",
]


@pytest.mark.parametrize("value", ODD_VALUES, ids=ascii)
def test_any_value_is_matched_exactly_when_encoded(master, value):
    master.register("wanted", os=value)
    master.register("other", os=value + "x")
    assert listed(master, "filter=os%20eq%20'" + quote(value, safe="") + "'") == ["wanted"]


@pytest.mark.parametrize("value", ["it's", "'", "a+b", "a&b=c", "a?b", "a#b", "50%", "100%zz", "%4", "x'OR'1'='1"])
def test_a_value_need_not_be_encoded_where_it_reads_only_one_way(master, value):
    master.register("wanted", os=value)
    assert listed(master, f"filter=os%20eq%20'{value}'") == ["wanted"]


def test_a_percent_code_is_decoded_once(master):
    master.register("once", os="%41")
    master.register("twice", os="A")
    assert listed(master, "filter=os%20eq%20'%2541'") == ["once"]
    assert listed(master, "filter=os%20eq%20'%41'") == ["twice"]


def test_letter_case_counts_in_a_value(master):
    master.register("a", os="Redhat")
    assert listed(master, "filter=os%20eq%20'redhat'") == []


@pytest.mark.parametrize("value", [b"\xff", b"\xc3", b"%ff", b"%00", b"a%00b", "ünïcode".encode("latin-1")])
def test_bytes_that_are_no_text_match_nothing(master, value):
    master.register("a", os="a")
    assert listed(master, b"filter=os%20eq%20'" + value + b"'") == []


def test_bytes_above_ascii_are_taken_as_they_are(master):
    master.register("a", os="ünïcode")
    assert listed(master, "filter=os%20eq%20'ünïcode'") == ["a"]


@pytest.mark.parametrize(
    "query",
    [
        "",
        "filter",
        "filter=",
        "filter=os",
        "filter=os%20eq",
        "filter=os%20eq%20",
        "filter=os%20eq%20'",
        "filter=os%20eq%20'a",
        "filter=os%20eq%20a'",
        "filter=os%20eq%20a",
        "filter=os%20eq%20'a'%20",
        "filter=os%20eq%20'a'x",
        "filter=os%20eq%20'a'&limit=1",
        "filter=%20os%20eq%20'a'",
        "filter=os%20%20eq%20'a'",
        "filter=os+eq+'a'",
        "filter=oseq'a'",
        "filter=os%09eq%20'a'",
        'filter=os%20eq%20"a"',
        "filter=os%20ne%20'a'",
        "filter=os%20EQ%20'a'",
        "filter=OS%20eq%20'a'",
        "filter=name%20eq%20'a'",
        "filter=packageType%20eq%20'a'",
        "filter=%20eq%20'a'",
        "Filter=os%20eq%20'a'",
        "os%20eq%20'a'",
        "x=1&filter=os%20eq%20'a'",
        "&filter=os%20eq%20'a'",
        "%66ilter=os%20eq%20'a'",
    ],
)
def test_any_other_query_is_refused(master, query):
    master.register("a", os="a")
    assert listed(master, query) == (400, UNUSABLE)


def test_the_access_log_has_the_query_byte_by_byte(master):
    query = "filter=os%20eq%20'a?b#c&d+%zz\"\\'"
    listed(master, query)
    assert master.requests() == [("GET", f"{PACKAGES}?{query}")]


def test_the_access_log_shows_bytes_that_are_no_text_as_escapes(master):
    listed(master, b"filter=os%20eq%20'\xff\xc3\xbc'")
    assert master.requests() == [("GET", f"{PACKAGES}?filter=os%20eq%20'\u00ffü'")]
