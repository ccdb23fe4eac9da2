"""In which order things reach the disk, read from the system calls of undisturbed runs.

A file's bytes are flushed before it has its name, the name is flushed after, and success is reported last. What the calls
do not show, whether the disk obeys, depends on the machine.
"""

import re

import pytest
from campaign import SCENARIOS
from injector import trace
from packages import BUNDLE, INNER, SINGLE, make_single
from world import PROGRAMS, REPOSITORY, await_that


class Order:
    """The calls of a run in their order, to be asked where one is."""

    def __init__(self, calls):
        self.calls = calls

    def only(self, name, *parts):
        """The place of the one call `name` whose text holds all parts."""
        (place,) = self.all(name, *parts)
        return place

    def all(self, name, *parts):
        return [place for place, call in enumerate(self.calls)
                if call.name == name and all(part in call.text for part in parts)]

    def naming(self, name):
        """The place of the call that gave a file the name, and the descriptor and directory as strace shows them."""
        (place,) = [place for place, call in enumerate(self.calls)
                    if call.name in ("linkat", "renameat") and call.text.endswith(" = 0")
                    and f'"{name}"' in call.text.split(", ", 2)[2]]
        return place

    def last_before(self, end, name, *parts):
        return max(place for place in self.all(name, *parts) if place < end)

    def first_after(self, start, name, *parts):
        return min(place for place in self.all(name, *parts) if place > start)


def written_file(order, place):
    """The descriptor, as strace shows it at its opening, of the file that got its name at `place`."""
    opened = max(p for p in order.all("openat") if p < place and ("O_TMPFILE" in order.calls[p].text
                                                                  or "O_EXCL" in order.calls[p].text))
    return order.calls[opened].text.rsplit(" = ", 1)[1].split("<")[0], opened


def check_file(order, name, directory):
    """The bytes, the flush, the name, the directory's flush, in this order; the place of the last."""
    named = order.naming(name)
    descriptor, opened = written_file(order, named)
    flushed = order.last_before(named, "fsync", f"{descriptor}<{directory}/")
    assert opened < flushed < named
    duplicates = {descriptor} | {call.text.rsplit(" = ", 1)[1].split("<")[0] for call in order.calls[opened:flushed]
                                 if call.name == "fcntl" and "F_DUPFD" in call.text}
    changes = [place for place, call in enumerate(order.calls)
               if opened < place < named and call.name in ("write", "pwrite64", "fchmod", "fchown", "ftruncate")
               and call.text.split("<")[0] in duplicates]
    assert changes and max(changes) < flushed, "bytes or mode are written after the flush"
    return order.first_after(named, "fsync", f"<{directory}>")


def in_order(*places):
    assert list(places) == sorted(places), places


@pytest.fixture
def order(master, tmp_path, report):
    """order(name) runs a scenario undisturbed and returns the order of its calls, and the scenario."""

    def trace(name):
        scenario = SCENARIOS[name](master, tmp_path, report)
        return Order(scenario.trace()), scenario

    return trace


@pytest.mark.parametrize("name", ["add a single package", "add a single package over an earlier file"])
def test_a_copied_package_is_on_the_disk_before_success_is_reported(order, name):
    calls, _ = order(name)
    directory_flushed = check_file(calls, SINGLE, REPOSITORY)
    in_order(directory_flushed, calls.only("write", "1<", "Successfully added"))


def test_a_package_of_the_repository_itself_is_on_the_disk_before_success_is_reported(tree, master, report):
    package = make_single(REPOSITORY)
    calls = Order(trace([PROGRAMS / "qvrepo", "-add", package], report))
    in_order(calls.only("fsync", f"<{package}>"), calls.only("fsync", f"<{REPOSITORY}>"),
             calls.only("write", "1<", "Successfully added"))


@pytest.mark.parametrize("name", [
    "add a bundle", "add a bundle over earlier files", "add a bundle over earlier files without nameless files"])
def test_an_extracted_file_is_on_the_disk_before_it_is_cut_off_the_archive(order, name):
    calls, _ = order(name)
    copied = check_file(calls, f"tmp_{BUNDLE}", REPOSITORY)
    second = check_file(calls, INNER[1], REPOSITORY)
    first = check_file(calls, INNER[0], REPOSITORY)
    cuts = calls.all("ftruncate", f"/tmp_{BUNDLE}")
    removed = calls.only("unlink", f"/tmp_{BUNDLE}")
    removal_flushed = calls.first_after(removed, "fsync", f"<{REPOSITORY}>")
    in_order(copied, second, cuts[0], first, cuts[1], removed, removal_flushed,
             calls.only("write", "1<", "Successfully added"))


@pytest.mark.parametrize("name", ["add a single package", "add a bundle"])
def test_the_registration_is_answered_before_anything_is_put_into_the_repository(order, name):
    calls, _ = order(name)
    answered = max(calls.all("recvfrom"))
    assert answered < min(calls.all("openat", "O_TMPFILE"))


def test_the_registration_is_gone_before_a_file_is_deleted(order):
    calls, _ = order("delete a bundle")
    deleted = sorted(calls.only("unlink", f"/{name}") for name in INNER)
    sent = calls.first_after(calls.only("read", "0<"), "sendto")
    answered = max(place for place in calls.all("recvfrom")
                   if place < deleted[0] and " = -1 " not in calls.calls[place].text)
    # The request has a connection of its own, which the client closes after the answer.
    closed = calls.first_after(answered, "close", calls.calls[answered].text.split(",")[0])
    in_order(sent, answered, closed, *deleted, calls.only("write", "1<", "has been deleted"))


@pytest.mark.parametrize("name", [
    "create an archive", "create an archive over an earlier one", "sign an archive",
    "sign an archive without nameless files"])
def test_an_archive_is_on_the_disk_before_its_summary_is_printed(order, name):
    calls, scenario = order(name)
    directory_flushed = check_file(calls, scenario.output.name, scenario.output.parent)
    in_order(directory_flushed, calls.only("write", "1<"))


def test_the_service_has_a_change_on_the_disk_before_it_acknowledges_it(idle_master, report):
    strace = ["strace", "-D", "-f", "-qq", "-y", "-o", report, "-e", "trace=pwrite64,fdatasync,fsync,write,exit_group"]
    idle_master.start(under=strace)
    idle_master.register("a.sja")
    assert idle_master.delete(1).status == 204
    assert idle_master.stop() == 0
    await_that(lambda: "exit_group" in report.read_text(), "strace sees the service end")
    changes, flushed = 0, None
    for line in report.read_text().splitlines():
        if re.search(r" pwrite64\([0-9]+<[^>]*-wal>", line):
            flushed = False
        elif re.search(r" f(data)?sync\([0-9]+<[^>]*-wal>", line):
            flushed = True
        elif re.search(r' write\([0-9]+<[^>]*qvmaster.requests>', line):
            changes += 1
            assert flushed is True, f"change {changes} is not flushed"
            flushed = None
    assert changes == 2
