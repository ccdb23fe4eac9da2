"""Hundreds of clients at once: every answer is right, and what was acknowledged is what the database holds."""

import asyncio
import multiprocessing
from concurrent.futures import ProcessPoolExecutor

from clients import Client
from record import Record
from scale import milliseconds, now, report, scaled, seed
from visitor import Visitor
from world import PATIENCE

PROCESSES = 2
CLIENTS = scaled(50, 200)
# The ordinary run ends by count, so that it does the same on every machine; the full one by time.
REQUESTS = scaled(40, None)
SECONDS = scaled(None, 60)
# After so many requests a client comes anew, every other time.
NEW_CONNECTION_AFTER = 25
CONTENDED = [f"contended-{i}.sja" for i in range(5)]


async def visit(visitor, requests, end):
    """Acts `requests` times, or until the time `end`."""
    done = 0
    while done < requests if requests is not None else now() < end:
        await visitor.act()
        done += 1
        if done % NEW_CONNECTION_AFTER == 0 and visitor.random.random() < 0.5:
            visitor.client.close()


async def visits(port, numbers, seed, requests, seconds):
    record = Record()
    visitors = [Visitor(Client(port), number, seed, record, CONTENDED) for number in numbers]
    await asyncio.gather(*(visitor.client.open() for visitor in visitors))
    began = now()
    end = began + (seconds or 0)
    await asyncio.wait_for(asyncio.gather(*(visit(visitor, requests, end) for visitor in visitors)),
                           PATIENCE + (seconds or 0))
    took = now() - began
    for visitor in visitors:
        visitor.client.close()
    return record, took, {package_id: package for visitor in visitors for package_id, package in visitor.own.items()}


def run_visits(*how):
    return asyncio.run(visits(*how))


def test_mixed_requests_of_many_clients_are_answered_right_and_kept(master):
    chosen = seed()
    record, kept, took = Record(), {}, 0
    with ProcessPoolExecutor(PROCESSES, multiprocessing.get_context("spawn")) as pool:
        runs = [pool.submit(run_visits, master.port, range(first, CLIENTS, PROCESSES), chosen, REQUESTS, SECONDS)
                for first in range(PROCESSES)]
        for run in runs:
            part, seconds, own = run.result()
            record.take(part)
            kept.update(own)
            took = max(took, seconds)
    record.check()
    assert master.get().json == {"data": [kept[i] for i in sorted(kept)]}
    assert master.stop() == 0
    rows = [(package["id"], package["packageFileName"], sum(size for _, size in package["items"]))
            for package in master.packages()]
    assert rows == [(i, kept[i]["attributes"]["packageFileName"], kept[i]["attributes"]["size"]) for i in sorted(kept)]
    assert len(master.exchanges()) == len(record.latencies) + 1
    report("mixed requests", clients=CLIENTS, requests=len(record.latencies), seconds=f"{took:.1f}",
           per_second=f"{len(record.latencies) / took:.0f}", adds=len(record.adds), deletes=len(record.deletes),
           refused_names=len(record.refusals), whole_lists=len(record.listings),
           latency_ms_median_99th_most=milliseconds(record.latencies))
