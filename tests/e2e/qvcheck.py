"""qvcheck as tests run it, and its remedies as a person would type them."""

import json
import os
import subprocess
from concurrent.futures import ThreadPoolExecutor

from world import PATIENCE, PROGRAMS, run_qvrepo


def run_qvcheck(*words, **how):
    return run_qvrepo(*words, program="qvcheck", **how)


def report(*words, **how):
    """The JSON document of a check and its exit status."""
    outcome = run_qvcheck(*words, "--json", **how)
    assert outcome.stderr == "", outcome
    return json.loads(outcome.stdout), outcome.status


def findings(*words, **how):
    """The findings of "qvcheck repository", with every package old enough to be judged unless `words` say so."""
    document, status = report("repository", *(words or ["--settle", "0"]), **how)
    assert status == (1 if document["counts"]["findings"] else 0), document
    return document["findings"]


def at_once(*checks):
    """What the checks return, of which each waits between its two looks."""
    with ThreadPoolExecutor() as pool:
        return list(pool.map(lambda check: check(), checks))


def names_of(found):
    return sorted(finding["name"] for finding in found)


def condition(name, **how):
    """The condition of this name in the setup."""
    document, status = report("setup", **how)
    assert status == (1 if document["counts"]["failures"] else 0), document
    (found,) = [each for each in document["setup"] if each["name"] == name]
    return found


def follow(command):
    """Types the command into a shell, and agrees to what it asks."""
    path = f"{PROGRAMS}:{os.environ['PATH']}:/usr/sbin:/sbin"
    done = subprocess.run(["bash", "-c", command], input="y\n", env={**os.environ, "PATH": path},
                          capture_output=True, text=True, timeout=PATIENCE)
    assert done.returncode == 0, (command, done)
