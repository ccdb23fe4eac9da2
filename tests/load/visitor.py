"""A client that adds, lists, looks at and deletes packages at random, and checks every answer that it gets."""

import random
import time
from urllib.parse import quote

from world import PACKAGES, REPOSITORY, creation_body

from record import UNANSWERED, Add, Delete, Listing, Record, Refusal

UNKNOWN, SAME_NAME, NO_ID = (404, 227), (409, 7218), (400, 8626)
TIMES = ("createdDateTimeUTC", "lastModifiedDateTimeUTC", "lastValidatedUTC")

# What a visitor does, and how often.
HABITS = {
    "add": 34,
    "delete": 26,
    "look_at_own": 16,
    "list_own": 12,
    "look_at_deleted": 4,
    "delete_again": 3,
    "add_same_name": 3,
    "contend_for_a_name": 6,
    "ask_nonsense": 2,
    "list_all": 1,
}
MOST_OWN = 8


def told_attributes(body):
    """The attributes that the service makes of a creation body, without those that are times."""
    given = body["data"]["attributes"]
    name = given["packageFileName"]
    return {
        "packageName": name.removesuffix(".sja"),
        "packageFileName": name,
        "packageItemFilePaths": [f"{REPOSITORY}/{item['fileName']}" for item in given["packageItems"]],
        "packageType": given["packageType"],
        "os": given["os"],
        "version": given["version"],
        "size": sum(item["fileSize"] for item in given["packageItems"]),
    }


def without_times(package):
    return {name: value for name, value in package["attributes"].items() if name not in TIMES}


class Visitor:
    """`number` tells it from all others; `contended` are names for which visitors fight. `own` is what the service must
    have of it: {ID: package as the service told}. A change that is not answered stays in `pending`."""

    def __init__(self, client, number, seed, record=None, contended=()):
        self.client = client
        self.random = random.Random(f"{seed} {number}")
        self.version = f"visitor-{number}"
        self.record = record or Record()
        self.contended = contended
        self.own, self.deleted, self.pending = {}, [], None
        self._made = 0

    async def act(self):
        habit = self.random.choices(list(HABITS), HABITS.values())[0]
        if len(self.own) >= MOST_OWN:
            habit = "delete"
        await getattr(self, habit)()

    async def ask(self, method, target=PACKAGES, body=None):
        """The reply, when it was asked for, and when it came."""
        sent = time.monotonic()
        reply = await self.client.request(method, target, body)
        answered = time.monotonic()
        self.record.latencies.append(answered - sent)
        return reply, sent, answered

    def new_body(self, name):
        items = [(f"{i}-{name}", self.random.randrange(1 << 40)) for i in range(self.random.randrange(1, 4))]
        return creation_body(name, items, version=self.version, type=self.random.choice(["qvclient", "qvserver"]))

    async def add(self):
        self._made += 1
        await self.create(f"{self.version}-{self._made}.sja")

    async def create(self, name, may_be_refused=False):
        body = self.new_body(name)
        self.pending = ("add", body, time.monotonic())
        reply, sent, answered = await self.ask("POST", body=body)
        self.pending = None
        if may_be_refused and reply.status == 409:
            assert reply.error == SAME_NAME
            self.record.refusals.append(Refusal(name, sent, answered))
            return
        assert reply.status == 201, reply
        self.keep(reply.json["data"], body, sent, answered)

    def keep(self, package, body, sent, answered):
        assert without_times(package) == told_attributes(body)
        package_id = int(package["id"])
        self.own[package_id] = package
        self.record.adds.append(Add(package["attributes"]["packageFileName"], package_id, sent, answered))

    async def delete(self):
        if not self.own:
            return
        package_id = self.random.choice(list(self.own))
        self.pending = ("delete", package_id, time.monotonic())
        reply, sent, answered = await self.ask("DELETE", f"{PACKAGES}/{package_id}")
        self.pending = None
        assert (reply.status, reply.body) == (204, b""), reply
        self.lose(package_id, sent, answered)

    def lose(self, package_id, sent, answered):
        del self.own[package_id]
        self.deleted.append(package_id)
        self.record.deletes.append(Delete(package_id, sent, answered))

    async def look_at_own(self):
        if self.own:
            package_id = self.random.choice(list(self.own))
            reply = (await self.ask("GET", f"{PACKAGES}/{package_id}"))[0]
            assert (reply.status, reply.json) == (200, {"data": self.own[package_id]})

    async def look_at_deleted(self):
        if self.deleted:
            reply = (await self.ask("GET", f"{PACKAGES}/{self.random.choice(self.deleted)}"))[0]
            assert reply.error == UNKNOWN

    async def delete_again(self):
        if self.deleted:
            reply = (await self.ask("DELETE", f"{PACKAGES}/{self.random.choice(self.deleted)}"))[0]
            assert reply.error == UNKNOWN

    async def list_own(self):
        mine = quote(f"version eq '{self.version}'")
        reply = (await self.ask("GET", f"{PACKAGES}?filter={mine}"))[0]
        assert (reply.status, reply.json) == (200, {"data": [self.own[i] for i in sorted(self.own)]})

    async def list_all(self):
        reply, sent, answered = await self.ask("GET")
        assert reply.status == 200, reply
        self.record.listings.append(Listing([int(package["id"]) for package in reply.json["data"]], sent, answered))

    async def add_same_name(self):
        if self.own:
            name = self.random.choice(list(self.own.values()))["attributes"]["packageFileName"]
            reply = (await self.ask("POST", body=creation_body(name)))[0]
            assert reply.error == SAME_NAME

    async def contend_for_a_name(self):
        if self.contended:
            await self.create(self.random.choice(self.contended), may_be_refused=True)

    async def ask_nonsense(self):
        reply = (await self.ask("GET", f"{PACKAGES}/0"))[0]
        assert reply.error == NO_ID

    def settle(self, packages, seen):
        """Makes up its mind about the change that was not answered, by what the service has at the time `seen`:
        {ID: package}."""
        if self.pending is None:
            return
        kind, subject, sent = self.pending
        self.pending = None
        if kind == "delete" and subject not in packages:
            self.lose(subject, sent, UNANSWERED)
        if kind == "add":
            name = subject["data"]["attributes"]["packageFileName"]
            for package in packages.values():
                if package["attributes"]["packageFileName"] == name:
                    self.keep(package, subject, sent, seen)
