"""How much is done: little in the ordinary run of the tests, all of it by tests/load/run-all (QV_LOAD=full)."""

import os
import random
import time

FULL = os.environ.get("QV_LOAD") == "full"


def scaled(ordinary, full):
    return full if FULL else ordinary


def seed():
    """The seed of this run, printed: QV_LOAD_SEED, or one by chance."""
    chosen = os.environ.get("QV_LOAD_SEED") or str(random.SystemRandom().randrange(1 << 32))
    print(f"QV_LOAD_SEED={chosen}")
    return chosen


def report(what, **figures):
    """A row of the measured table, on standard output (tests/load/run-all shows it)."""
    print(f"| {what} | " + ", ".join(f"{name.replace('_', ' ')} {value}" for name, value in figures.items()) + " |")


def quantile(values, part):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * part))]


def milliseconds(latencies):
    """Median, 99th part and most of some times in seconds, as a text in milliseconds."""
    return "/".join(f"{1000 * quantile(latencies, part):.1f}" for part in (0.5, 0.99, 1))


def now():
    return time.monotonic()
