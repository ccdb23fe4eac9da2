"""What the clients did and were told, and whether one service that keeps its promises can have told them that.

Times are those of the monotonic clock, which all processes share. A change is under way from `sent` to `answered`; that
it was not answered, because the service was killed, stands as UNANSWERED.
"""

from typing import NamedTuple

UNANSWERED = float("inf")


class Add(NamedTuple):
    name: str
    id: int
    sent: float
    answered: float


class Delete(NamedTuple):
    id: int
    sent: float
    answered: float


class Refusal(NamedTuple):
    """An add that was refused because a package of its name was there."""

    name: str
    sent: float
    answered: float


class Listing(NamedTuple):
    """A list of all packages."""

    ids: list
    sent: float
    answered: float


class Record:
    def __init__(self):
        self.adds, self.deletes, self.refusals, self.listings = [], [], [], []
        self.latencies = []  # seconds, one for every answer

    def take(self, other):
        """Adds what another process recorded."""
        for name, entries in vars(other).items():
            getattr(self, name).extend(entries)

    def check(self):
        self.check_ids()
        self.check_names()
        self.check_listings()

    def check_ids(self):
        """No ID is given twice, and an add that began when another had been answered gets a higher one."""
        ids = [add.id for add in self.adds]
        assert len(set(ids)) == len(ids), "an ID was given twice"
        by_answer = sorted(self.adds, key=lambda add: add.answered)
        highest = answered = 0
        for add in sorted(self.adds, key=lambda add: add.sent):
            while by_answer[answered].answered < add.sent:
                highest = max(highest, by_answer[answered].id)
                answered += 1
            assert add.id > highest, f"ID {add.id} came after {highest}"

    def check_names(self):
        """A name has one package at a time, and no add is refused while its name is free."""
        ends = {delete.id: delete for delete in self.deletes}
        never = Delete(0, UNANSWERED, UNANSWERED)
        holders = {}
        for add in self.adds:
            holders.setdefault(add.name, []).append((add, ends.get(add.id, never)))
        for name, held in holders.items():
            held.sort(key=lambda pair: pair[0].id)
            for (_, end), (begin, _) in zip(held, held[1:]):
                assert end.sent < begin.answered, f"{name} had two packages at a time"
        for name, sent, answered in self.refusals:
            assert any(add.sent < answered and sent < end.answered for add, end in holders.get(name, [])), (
                f"{name} was refused while it was free")

    def check_listings(self):
        """A list is in order of ID, and holds all that was there throughout and nothing that was not there at all."""
        ends = {delete.id: delete for delete in self.deletes}
        for ids, sent, answered in self.listings:
            assert all(first < second for first, second in zip(ids, ids[1:])), "a list is not in order of ID"
            listed = set(ids)
            for add in self.adds:
                end = ends.get(add.id, Delete(add.id, UNANSWERED, UNANSWERED))
                if add.answered < sent and answered < end.sent:
                    assert add.id in listed, f"package {add.id} is missing from a list"
                if answered < add.sent or end.answered < sent:
                    assert add.id not in listed, f"package {add.id} is in a list before or after its time"
            assert listed <= {add.id for add in self.adds}, "a list holds a package that nobody added"
