"""Runs a scenario under many faults, one after another, and counts the results."""

import itertools
import json
import os
from collections import Counter
from pathlib import Path

from world import PROGRAMS

import injector
from injector import Fault
from scenarios import AddPackage, DeletePackage, MakeArchive

# The names of the scenarios, and how each is made of (master, directory, report).
SCENARIOS = {
    "add a single package": lambda *world: AddPackage(*world),
    "add a single package over an earlier file": lambda *world: AddPackage(*world, earlier=True),
    "add a bundle": lambda *world: AddPackage(*world, bundle=True),
    "add a bundle over earlier files": lambda *world: AddPackage(*world, bundle=True, earlier=True),
    "add a bundle over earlier files without nameless files": lambda *world: AddPackage(
        *world, bundle=True, earlier=True, refuse_nameless=True),
    "delete a bundle": lambda master, directory, report: DeletePackage(master, report),
    "create an archive": lambda master, *place: MakeArchive(*place),
    "create an archive over an earlier one": lambda master, *place: MakeArchive(*place, earlier=True),
    "sign an archive": lambda master, *place: MakeArchive(*place, sign=True),
    "sign an archive without nameless files": lambda master, *place: MakeArchive(
        *place, sign=True, refuse_nameless=True),
}

# Calls that change the repository, the archive or the service.
CHANGING = ("write", "pwrite64", "copy_file_range", "ioctl", "fsync", "fchmod", "fchown", "linkat", "renameat",
            "ftruncate", "unlink", "unlinkat", "connect", "sendto", "recvfrom")
PLACES = ("/repo", "/output", "<socket:", "<TCP:")


def cannot_fail(call):
    """Whether an error of this call would show what no kernel does. strace answers in the kernel's stead: a descriptor
    whose closing fails stays open, and the lock on a temporary copy with it, which the program then takes for another
    process's; a close that really fails closes all the same. And the flags of a descriptor can always be read and
    set."""
    if call.name == "fcntl":
        return "F_DUPFD" not in call.text
    return call.name == "close" and "/repo/tmp_" in call.text.split(">")[0]


def kills_at_changing_calls(calls):
    return [Fault(call.name, call.number) for call in calls
            if call.name in CHANGING and any(place in call.text for place in PLACES)]


def each_error_once(calls):
    """Every error of every call, at the last such call on the repository or the archive; where there is none, at the
    last such call at all."""
    last = {}
    for call in calls:
        if call.name not in injector.ERRORS or cannot_fail(call):
            continue
        before = last.get(call.name)
        if before is None or "/repo" in call.text or "/output" in call.text or "/repo" not in before.text:
            last[call.name] = call
    return [Fault(name, call.number, error) for name, call in last.items() for error in injector.ERRORS[name]]


class Campaign:
    """The results of the faults so far: `outcomes` counts (how the run ended, what was left), `hit` the calls that were
    hit, `complaints` what must not be."""

    def __init__(self, scenario):
        self.scenario = scenario
        self.calls = scenario.trace()
        self.outcomes = Counter()
        self.hit = Counter()
        self.complaints = []

    def inject(self, fault):
        """One point: the run under the fault, its judgement, and the run after it. False where the program no
        longer reaches the call."""
        self.scenario.reset()
        run = self.scenario.run(fault)
        if not run.reached:
            return False
        complaints, state = self.scenario.judge(run, fault)
        complaints += self.scenario.again()
        self.complaints += [f"{fault}: {complaint} [{run.call}]" for complaint in complaints]
        ending = "killed" if fault.error is None else "succeeded" if run.status == 0 else "refused"
        self.outcomes[f"{ending}: {state}"] += 1
        self.hit[fault.name] += 1
        return True

    def inject_all(self, faults):
        for fault in faults:
            self.inject(fault)

    def inject_everywhere(self, errors_of):
        """Every call of the program's own work, up to the end of the run, with each error of errors_of(call name)."""
        skipped = {(call.name, call.number) for call in self.calls if cannot_fail(call)}
        for name, first in injector.first_numbers(self.calls).items():
            for error in errors_of(name):
                for number in itertools.count(first):
                    if error and (name, number) in skipped:
                        continue
                    if not self.inject(Fault(name, number, error)):
                        break

    def inject_in_lookup(self, errors_of):
        """The same for the thread that looks up the master's name, as far as files are concerned."""
        for name in ("openat", "newfstatat", "read", "lseek", "close"):
            for error in errors_of(name):
                for number in itertools.count(1):
                    if not self.inject(Fault(name, number, error, tuple(injector.RESOLVER_FILES))):
                        break

    def finish(self, title):
        """Leaves the counts in the build directory, prints them, and fails where there are complaints."""
        points = sum(self.outcomes.values())
        counts = {"title": title, "points": points, "outcomes": dict(self.outcomes), "calls": dict(self.hit),
                  "complaints": self.complaints}
        directory = Path(os.environ.get("QV_FAULT_RESULTS", PROGRAMS.parent / "faults"))
        directory.mkdir(parents=True, exist_ok=True)
        (directory / f"{title}.json").write_text(json.dumps(counts, indent=1, sort_keys=True) + "\n")
        print(f"{title}: {points} points")
        for outcome, count in sorted(self.outcomes.items()):
            print(f"  {count:5} {outcome}")
        assert points > 0, "no fault took place"
        assert not self.complaints, "\n".join(self.complaints)
