"""Single faults and their exact results: the cases in which something is left over, and those that once went
wrong."""

import re

import pytest
from campaign import SCENARIOS
from injector import Fault, run_with_a_stop
from packages import BUNDLE, INNER, SINGLE
from scenarios import EARLIER, EXISTS, NOT_FOUND, digest, digests
from test_add import ADDING, NOT_COPIED, NOT_EXTRACTED
from world import PACKAGES, REPOSITORY

NOT_READABLE = (
    ADDING, "Error: Input package file verification failed. Failed to stat Dunmarel package.\n", 7215 & 0xFF)
NO_SUCH_PACKAGE = ("", NOT_FOUND, 7220 & 0xFF)
CANCELED = "Package delete operation was canceled.\n"
RESET = "Error: qvrepo operation failed with status [56].\n"
TEMPORARY = f"tmp_{BUNDLE}"


@pytest.fixture
def scenario(master, tmp_path, report):
    """scenario(name) makes one of the scenarios."""

    def make(name):
        return SCENARIOS[name](master, tmp_path, report)

    return make


def calls_to(scenario, name, *parts):
    """The calls `name` of an undisturbed run whose text holds all parts."""
    found = [call for call in scenario.trace() if call.name == name and all(part in call.text for part in parts)]
    assert found, f"there is no call {name} with {parts}"
    return found


def hit(scenario, call, error):
    """Runs the scenario in a fresh world with `call` failing with `error`, or killed there where that is None."""
    scenario.reset()
    run = scenario.run(Fault(call.name, call.number, error))
    assert run.reached, f"the run did not come to {call}"
    return run


def ending(run):
    return run.stdout, run.stderr, run.status


def names():
    return sorted(entry.name for entry in REPOSITORY.iterdir())


def lose_answer(scenario, was_carried_out):
    """Runs the scenario so that the answer to its last request is lost: a receiving call after it fails. How many
    such calls there are before varies with how fast the service is, so the right one is searched for, and counted
    anew where a busy machine made the count a poor guide."""
    for reach in (6, 8, 10, 12):
        scenario.reset()
        last = calls_to(scenario, "recvfrom")[-1].number
        for number in range(max(1, last - reach), last + reach):
            scenario.reset()
            run = scenario.run(Fault("recvfrom", number, "ECONNRESET"))
            if run.status != 0 and was_carried_out():
                return run
    raise AssertionError("no answer was lost")


# A registration without files


def test_a_lost_answer_leaves_the_registration_and_the_next_add_reports_it(scenario):
    add = scenario("add a single package")
    run = lose_answer(add, was_carried_out=add.registered)
    assert ending(run) == (ADDING, RESET, 56)
    assert len(add.registered()) == 1
    assert names() == []
    assert ending(add.run()) == (ADDING, EXISTS, 7218 & 0xFF)


@pytest.mark.parametrize("name", ["add a single package", "add a bundle"])
def test_a_kill_between_registration_and_copy_is_repaired_by_deleting_and_adding(scenario, qvrepo, name):
    add = scenario(name)
    assert hit(add, calls_to(add, "openat", "O_TMPFILE")[0], None).status < 0
    (package_id,) = add.registered()
    assert names() == []
    assert ending(add.run()) == (ADDING, EXISTS, 7218 & 0xFF)
    assert qvrepo("-delete", str(package_id), stdin="y\n").status == 0
    assert add.run().status == 0
    assert digests(REPOSITORY) == add.wanted


# Files without a registration


def test_a_lost_answer_to_a_deletion_leaves_the_files_of_a_package_that_is_gone(scenario, master):
    delete = scenario("delete a bundle")
    run = lose_answer(delete, was_carried_out=lambda: not delete.registered())
    assert (run.stderr, run.status) == (RESET, 56)
    target = f"{PACKAGES}/{delete.id}"
    assert master.requests()[-2:] == [("GET", target), ("DELETE", target)]
    assert delete.registered() == []
    assert names() == sorted(INNER)
    assert ending(delete.run()) == NO_SUCH_PACKAGE


def test_a_kill_between_the_two_halves_of_a_deletion_leaves_files_that_the_next_add_replaces(scenario, tmp_path):
    delete = scenario("delete a bundle")
    assert hit(delete, calls_to(delete, "unlink")[0], None).status < 0
    assert (delete.registered(), names()) == ([], sorted(INNER))
    assert ending(delete.run()) == NO_SUCH_PACKAGE
    add = scenario("add a bundle")
    assert add.run().status == 0
    assert digests(REPOSITORY) == add.wanted


def test_a_file_that_cannot_be_deleted_stays_and_is_logged(scenario, log_records):
    delete = scenario("delete a bundle")
    run = hit(delete, calls_to(delete, "unlink", INNER[0])[0], "EIO")
    assert (run.stderr, run.status) == ("", 0)
    assert (delete.registered(), names()) == ([], [INNER[0]])
    assert (16, "QvRepoHelper::deletePackageItems", f"Failed to delete package item {REPOSITORY}/{INNER[0]}.") \
        in log_records()


def test_an_extraction_that_fails_keeps_the_files_that_were_extracted_before(scenario):
    add = scenario("add a bundle")
    run = hit(add, calls_to(add, "linkat", INNER[0])[0], "EIO")
    assert ending(run) == NOT_EXTRACTED
    assert (add.registered(), names()) == ([], [INNER[1]])
    assert digests(REPOSITORY)[INNER[1]] == add.wanted[INNER[1]]


# Temporary files


def test_a_temporary_copy_that_cannot_be_removed_stays_until_the_next_add(scenario):
    add = scenario("add a bundle")
    run = hit(add, calls_to(add, "unlink", TEMPORARY)[0], "EIO")
    assert (run.stderr, run.status) == ("", 0)
    assert names() == sorted([*INNER, TEMPORARY])
    assert add.again() == []
    assert names() == sorted(INNER)


def test_a_kill_before_an_earlier_file_is_replaced_leaves_a_hidden_file_until_the_next_add(scenario):
    add = scenario("add a single package over an earlier file")
    assert hit(add, calls_to(add, "renameat", SINGLE)[0], None).status < 0
    hidden, _ = names()
    assert re.fullmatch(rf"\.{SINGLE}\.[0-9a-f]{{16}}\.part", hidden), hidden
    assert digests(REPOSITORY)[SINGLE] == digest(EARLIER)
    assert add.again() == []
    assert names() == [SINGLE]


def test_a_bundle_is_refused_while_another_process_extracts_its_temporary_copy(scenario, master, qvrepo, report):
    add = scenario("add a bundle")
    cut = calls_to(add, "ftruncate", TEMPORARY)[0]
    add.reset()

    def add_again():
        assert master.delete(add.registered()[0]).status == 204
        assert qvrepo("-add", add.package) == NOT_EXTRACTED
        assert add.registered() == []
        assert names() == sorted([INNER[1], TEMPORARY])

    run = run_with_a_stop(add.command(), report, cut, add_again)
    assert (run.stderr, run.status) == ("", 0)
    assert digests(REPOSITORY) == add.wanted


# Once went wrong


@pytest.mark.parametrize("call", ["lseek", "read"])
def test_an_archive_that_cannot_be_read_to_its_end_is_not_mistaken_for_a_shorter_one(scenario, call):
    # It was extracted as far as it could be read, then deleted, and reported as added.
    add = scenario("add a bundle")
    for place in calls_to(add, call, f"{TEMPORARY}>"):
        run = hit(add, place, "EIO")
        if run.status == 0:
            assert digests(REPOSITORY) == add.wanted, place
        else:
            assert ending(run) == NOT_EXTRACTED, place
            assert add.registered() == [], place


def test_a_package_that_cannot_be_read_to_its_end_is_not_listed_as_a_shorter_one(scenario, master):
    add = scenario("add a bundle")
    package = f"{add.package}>"
    refusals = set()
    for name in ("lseek", "read"):
        for place in calls_to(add, name, package):
            run = hit(add, place, "EIO")
            refusals.add(ending(run))
            if run.status == 0:
                (registered,) = master.packages()
                assert sorted(name for name, _ in registered["items"]) == sorted(INNER), place
    assert NOT_READABLE in refusals


def test_signing_never_loses_the_package_even_when_its_directory_cannot_be_flushed(scenario):
    # Both the earlier file and the new one were gone.
    sign = scenario("sign an archive")
    run = hit(sign, calls_to(sign, "fsync", "/output>")[0], "EIO")
    assert ending(run) == ("", f"sjapack: cannot write {sign.output}: Input/output error\n", 1)
    assert sign.output.read_bytes() == sign.wanted
    assert [entry.name for entry in sign.output.parent.iterdir()] == [SINGLE]


def test_a_copy_whose_directory_cannot_be_flushed_is_removed_again_unless_it_replaced_a_file(scenario):
    for name, left in (("add a single package", []), ("add a single package over an earlier file", [SINGLE])):
        add = scenario(name)
        run = hit(add, calls_to(add, "fsync", "/repo>")[0], "EIO")
        assert ending(run) == NOT_COPIED, name
        assert (add.registered(), names()) == ([], left), name
    assert digests(REPOSITORY) == add.wanted


# Input and output of the program itself


def test_a_success_that_cannot_be_printed_is_a_success_all_the_same(scenario):
    add = scenario("add a single package")
    run = hit(add, calls_to(add, "write", "1<", "Successfully")[0], "ENOSPC")
    assert ending(run) == (ADDING, "", 0)
    assert digests(REPOSITORY) == add.wanted


def test_an_archive_whose_summary_cannot_be_printed_stays(scenario):
    create = scenario("create an archive")
    run = hit(create, calls_to(create, "write", "1<")[0], "ENOSPC")
    assert ending(run) == ("", "sjapack: cannot write to standard output\n", 1)
    assert create.output.read_bytes() == create.wanted


def test_an_answer_of_the_user_that_cannot_be_read_is_a_no(scenario):
    delete = scenario("delete a bundle")
    run = hit(delete, calls_to(delete, "read", "0<")[0], "EIO")
    assert (run.stderr, run.status) == (CANCELED, 7221 & 0xFF)
    assert (len(delete.registered()), names()) == (1, sorted(INNER))


def test_a_package_whose_size_cannot_be_read_is_registered_with_none(scenario, master):
    add = scenario("add a single package")
    assert hit(add, calls_to(add, "newfstatat", f'"{add.package}"')[0], "EIO").status == 0
    (registered,) = master.packages()
    assert registered["items"] == [(SINGLE, 0)]
    assert digests(REPOSITORY) == add.wanted


def test_a_log_that_cannot_be_written_stops_nothing(scenario, log_records):
    add = scenario("add a single package")
    records = calls_to(add, "write", "/logs/qvrepo/")
    for place in (records[0], records[-1]):
        run = hit(add, place, "ENOSPC")
        assert (run.stderr, run.status) == ("", 0), place
        assert len(log_records()) == len(records) - 1, "the record is lost, and those around it are whole"
    assert digests(REPOSITORY) == add.wanted
