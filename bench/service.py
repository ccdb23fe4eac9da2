"""The web service's measurements; bench/service runs them in a sandbox. Arguments: two directories of programs, rounds.

Both services are asked in turn, so that whatever else the machine does falls on both."""

import asyncio
import multiprocessing
import os
import statistics
import subprocess
import sys
import time
from concurrent.futures import ProcessPoolExecutor
from pathlib import Path

TESTS = Path(__file__).resolve().parents[1] / "tests"
sys.path[:0] = [str(TESTS / "e2e"), str(TESTS / "load")]

import world
from clients import Client
from record import Record
from scale import quantile
from visitor import Visitor

CLIENTS = 200
SECONDS = 5
PROCESSES = 2
FIGURES = ("requests/s", "latency median ms", "99th ms", "CPU us/request", "peak MiB")


async def visits(numbers):
    """Lets clients act at random for some seconds; the times that the answers took."""
    record = Record()
    visitors = [Visitor(Client(world.PORT), number, "bench", record) for number in numbers]
    await asyncio.gather(*(visitor.client.open() for visitor in visitors))
    end = time.monotonic() + SECONDS

    async def visit(visitor):
        while time.monotonic() < end:
            await visitor.act()
            if visitor.random.random() < 0.02:
                visitor.client.close()

    await asyncio.gather(*(visit(visitor) for visitor in visitors))
    return record.latencies


def run_visits(numbers):
    return asyncio.run(visits(numbers))


def measure(programs):
    """The figures of one run on a new database."""
    for file in world.ROOT.glob("qvmaster.*"):
        file.unlink()
    world.PROGRAMS = Path(programs)
    master = world.Master()
    master.start()
    with ProcessPoolExecutor(PROCESSES, multiprocessing.get_context("fork")) as pool:
        latencies = sum(pool.map(run_visits, (range(first, CLIENTS, PROCESSES) for first in range(PROCESSES))), [])
    process = Path(f"/proc/{master.process.pid}")
    ticks = sum(int(field) for field in (process / "stat").read_text().split()[13:15])
    peak = int((process / "status").read_text().partition("VmHWM:")[2].split()[0])
    assert master.stop() == 0
    return (len(latencies) / SECONDS, 1e3 * quantile(latencies, 0.5), 1e3 * quantile(latencies, 0.99),
            1e6 * ticks / os.sysconf("SC_CLK_TCK") / len(latencies), peak / 1024)


def main():
    first, second = sys.argv[1:3]
    rounds = int(sys.argv[3]) if len(sys.argv) > 3 else 5
    subprocess.run([world.SOURCES / "scripts/make-tree", world.ROOT, world.HOST], check=True, stdout=subprocess.DEVNULL)
    runs = [(measure(first), measure(second)) for _ in range(rounds)]
    print(f"{CLIENTS} clients, {rounds} rounds of {SECONDS} s: medians, and the median of second/first in a round")
    for name, *pairs in zip(FIGURES, *([list(zip(*run)) for run in runs])):
        ratio = statistics.median(second / first for first, second in pairs)
        print(f"  {name:20}" + "".join(f"{statistics.median(column):10.1f}" for column in zip(*pairs)) + f"{ratio:8.2f}")


main()
