"""The service killed at random moments under load: what it acknowledged is there when it comes back."""

import asyncio
import random
import sqlite3
import subprocess
import time

from clients import BROKEN, Client
from record import Record
from scale import now, report, scaled, seed
from visitor import Visitor
from world import PATIENCE, PROGRAMS, TLS

KILLS = scaled(5, 50)
CLIENTS = scaled(10, 20)
# A service is killed after at most so many answers, and then within so many seconds.
MOST_ANSWERS = 400
LATEST = 0.01


async def visit_until_broken(visitor, answered):
    try:
        while True:
            await visitor.act()
            answered()
    except BROKEN:
        visitor.client.close()


async def traffic_until_killed(master, visitors, chance):
    """Lets all visitors act at once, and kills the service at a random moment."""
    left = chance.randrange(MOST_ANSWERS)
    enough = asyncio.Event()

    def answered():
        nonlocal left
        left -= 1
        if left <= 0:
            enough.set()

    visits = asyncio.gather(*(visit_until_broken(visitor, answered) for visitor in visitors))
    await asyncio.wait({asyncio.ensure_future(enough.wait()), visits}, return_when=asyncio.FIRST_COMPLETED)
    await asyncio.sleep(chance.uniform(0, LATEST))
    assert master.kill() == -9
    await visits


def kill_at_start(master, chance):
    """Starts the service and kills it before, while or after it mends its database."""
    words = ["--db", master.database, "--tls", TLS]
    with subprocess.Popen([PROGRAMS / "qvmaster", *words], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE) as starting:
        time.sleep(chance.uniform(0, 5 * LATEST))
        starting.kill()
        assert starting.stderr.read() == b""


def check_database(master):
    database = sqlite3.connect(f"file:{master.database}?mode=ro", uri=True)
    assert database.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
    assert database.execute(
        "SELECT count(*) FROM packageItems WHERE packageId NOT IN (SELECT id FROM packages)").fetchone() == (0,)
    database.close()


def settle(master, visitors):
    """What the service has must be all that was acknowledged, and nothing that nobody asked for."""
    packages = {int(package["id"]): package for package in master.get().json["data"]}
    pending = sum(visitor.pending is not None for visitor in visitors)
    for visitor in visitors:
        visitor.settle(packages, now())
    kept = {package_id: package for visitor in visitors for package_id, package in visitor.own.items()}
    assert packages == kept
    return pending


def test_killed_at_random_moments_the_service_loses_nothing_that_it_acknowledged(idle_master):
    master = idle_master
    chosen = seed()
    chance = random.Random(chosen)
    record = Record()
    master.start()
    visitors = [Visitor(Client(master.port), number, chosen, record) for number in range(CLIENTS)]
    unanswered = starts = 0
    for _ in range(KILLS):
        asyncio.run(asyncio.wait_for(traffic_until_killed(master, visitors, chance), PATIENCE))
        if chance.random() < 0.3:
            kill_at_start(master, chance)
            starts += 1
        master.start()
        unanswered += settle(master, visitors)
        check_database(master)
        record.check()
    report("kills", kills=KILLS + starts, of_them_at_the_start=starts, clients=CLIENTS,
           acknowledged_changes=len(record.adds) + len(record.deletes), unanswered_changes=unanswered,
           lost=0, ids_given_twice=0)
