"""The judge of the load tests judges right: each row breaks one promise."""

import pytest
from record import UNANSWERED, Add, Delete, Listing, Record, Refusal


@pytest.fixture(autouse=True)
def tree():
    """None: nothing runs here."""


A, B = Add("a", 1, 10, 11), Add("b", 2, 12, 13)

KEPT = {
    "nothing": {},
    "adds at the same time in any order": {"adds": [Add("a", 2, 10, 13), Add("b", 1, 11, 12)]},
    "a name again after its package was deleted": {
        "adds": [A, Add("a", 2, 15, 16)], "deletes": [Delete(1, 13, 14)]},
    "a name refused while its package was being deleted": {
        "adds": [A], "deletes": [Delete(1, 13, 16)], "refusals": [Refusal("a", 14, 15)]},
    "a list with a package that was being deleted": {
        "adds": [A, B], "deletes": [Delete(1, 14, 17)], "listings": [Listing([1, 2], 15, 16)]},
    "a list without a package that was being deleted": {
        "adds": [A, B], "deletes": [Delete(1, 14, 17)], "listings": [Listing([2], 15, 16)]},
    "a list without a package whose deletion was never answered": {
        "adds": [A, B], "deletes": [Delete(1, 14, UNANSWERED)], "listings": [Listing([2], 15, 16)]},
}

BROKEN = {
    "an ID was given twice": {"adds": [A, Add("b", 1, 12, 13)], "deletes": [Delete(1, 11.1, 11.2)]},
    "ID 1 came after 2": {"adds": [Add("a", 2, 10, 11), Add("b", 1, 12, 13)]},
    "a had two packages": {"adds": [A, Add("a", 2, 12, 13)], "deletes": [Delete(1, 14, 15)]},
    "a was refused while it was free": {
        "adds": [A], "deletes": [Delete(1, 12, 13)], "refusals": [Refusal("a", 14, 15)]},
    "not in order of ID": {"adds": [A, B], "listings": [Listing([2, 1], 14, 15)]},
    "package 1 is missing": {"adds": [A, B], "listings": [Listing([2], 14, 15)]},
    "package 2 is in a list before or after": {"adds": [A, B], "listings": [Listing([1, 2], 11.2, 11.5)]},
    "package 1 is in a list before or after": {
        "adds": [A, B], "deletes": [Delete(1, 14, 15)], "listings": [Listing([1, 2], 16, 17)]},
    "a package that nobody added": {"adds": [A], "listings": [Listing([1, 7], 12, 13)]},
}


def record_of(entries):
    record = Record()
    vars(record).update(entries)
    return record


@pytest.mark.parametrize("entries", KEPT.values(), ids=KEPT)
def test_a_record_that_keeps_all_promises_passes(entries):
    record_of(entries).check()


@pytest.mark.parametrize("complaint", BROKEN)
def test_a_broken_promise_is_found(complaint):
    with pytest.raises(AssertionError, match=complaint):
        record_of(BROKEN[complaint]).check()
