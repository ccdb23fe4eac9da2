"""What is run under faults, and what has to hold after every one of them.

A scenario sets its world up (reset), names the program to run with its arguments (command), and judges a run under a
fault (judge): its complaints, and in what state it left the world. Then the same program is run again without a fault.
"""

import hashlib
import re
import signal
import sqlite3
import subprocess
import time

from packages import BUNDLE, INNER, SIGNING_KEY, SINGLE, make_bundle, make_single
from program_options import table
from test_add import ADDING
from world import PATIENCE, PROGRAMS, REPOSITORY, ROOT, creation_body

import injector

EXISTS = "Error: Package already exists in the repository.\n"
NOT_FOUND = "Error: Deployment package is not found in the repository.\n"

# Longer than the buffers of reader and writer, so that each file takes several calls.
FIRST, SECOND, EARLIER = b"first " * 50000, b"second " * 60000, b"earlier " * 10000


# The lines that qvrepo has for its statuses.
LINES = {int(status): f"Error: {text}\n" for status, _, text in table("status")}
# Statuses of the web client, and the service's code for a package that it does not have, share one text.
LINES.update({code: f"Error: qvrepo operation failed with status [{code}].\n" for code in (*range(1, 100), 227)
              if code not in LINES})
# A deletion that the user cancels is not an error.
LINES[7221] = LINES[7221].removeprefix("Error: ")


def status_of(run):
    """The program's own status for an exit status, by the line that was printed; None where it is not one of the
    program's."""
    matching = [status for status, line in LINES.items() if status & 0xFF == run.status and line == run.stderr]
    return matching[0] if matching else None


def answer_was_lost(run):
    """Whether the program reported that it did not get the service's answer to a request that may have been carried
    out. A deletion whose answer is lost is sent once more, and is then answered with 227, no such package."""
    return status_of(run) in (*range(1, 100), 227)


def digest(data):
    return hashlib.sha256(data).hexdigest()


def digests(directory):
    return {entry.name: digest(entry.read_bytes()) for entry in directory.iterdir()}


def is_temporary(name):
    return name.startswith("tmp_") or (name.startswith(".") and name.endswith(".part"))


def empty(directory):
    for entry in directory.iterdir():
        entry.unlink()


def wait_until_idle(master):
    """Returns when the service has nothing under way: no connection is open but the one that it listens on."""
    deadline = time.monotonic() + PATIENCE
    while master.sockets() > 1:
        assert time.monotonic() < deadline, "the service still has a connection open"
        time.sleep(0.0005)


class Scenario:
    """Common to all: how a run under a fault is started and described."""

    stdin = ""

    def __init__(self, report, refuse_nameless=False):
        self.report = report
        self.refuse_nameless = refuse_nameless

    def run(self, fault=None):
        return injector.run(self.command(), self.report, fault, self.stdin, self.refuse_nameless)

    def trace(self):
        self.reset()
        return injector.trace(self.command(), self.report, self.stdin, self.refuse_nameless)

    @staticmethod
    def leftovers(files, fault):
        """Complaints about temporary files. A kill may leave one, and so does a removal that fails itself, or one whose
        file cannot be examined: it may be another's."""
        left = [name for name in files if is_temporary(name)]
        # strace does not close what it lets a close fail on, as the system does, so the copy stays locked.
        excused = fault.is_kill or fault.name in ("newfstatat", "unlink", "unlinkat") or (
            fault.name == "close" and all(name.startswith("tmp_") for name in left))
        return [] if excused or not left else [f"temporary files left: {left}"]


class RepositoryScenario(Scenario):
    """One that runs qvrepo against the service."""

    def __init__(self, master, report, refuse_nameless=False):
        super().__init__(report, refuse_nameless)
        self.master = master

    def clear(self):
        wait_until_idle(self.master)
        for package in self.master.packages():
            assert self.master.delete(package["id"]).status == 204
        empty(REPOSITORY)
        empty(ROOT / "quorvelle/logs/qvrepo")

    def registered(self):
        """The IDs under which the package is listed."""
        wait_until_idle(self.master)
        return [package["id"] for package in self.master.packages() if package["packageFileName"] == self.name]

    def damaged(self):
        """Complaints about the service's database."""
        with sqlite3.connect(self.master.database) as database:
            (verdict,) = database.execute("PRAGMA integrity_check").fetchone()
        database.close()
        return [] if verdict == "ok" else [f"the service's database: {verdict}"]

    def wrong_death(self, run, fault):
        died = run.status == -getattr(signal, f"SIG{fault.signal}") and run.stderr == ""
        return [] if died else [f"did not end by SIG{fault.signal} without a line: {run}"]

    def wrong_ending(self, run):
        if run.status == 0:
            return [] if run.stderr == "" else [f"succeeded with an error line: {run.stderr!r}"]
        return [] if status_of(run) is not None else [f"no status and line of the program: {run.status} {run.stderr!r}"]

    def not_whole(self, files):
        """Names of packages that stand for something else than a whole file."""
        return [f"{name} is not whole" for name, found in files.items()
                if not is_temporary(name) and found not in self.allowed.get(name, [])]


class AddPackage(RepositoryScenario):
    """`-add` of a single package, or of a bundle of two; with `earlier`, other files have the names already."""

    def __init__(self, master, directory, report, bundle=False, earlier=False, refuse_nameless=False):
        super().__init__(master, report, refuse_nameless)
        if bundle:
            contents = dict(zip(INNER, (FIRST, SECOND)))
            self.name, self.package = BUNDLE, make_bundle(directory, inner=contents)
        else:
            self.name, self.package = SINGLE, make_single(directory, data=SECOND)
            contents = {SINGLE: self.package.read_bytes()}
        self.bundle = bundle
        self.earlier = earlier
        self.wanted = {name: digest(data) for name, data in contents.items()}
        self.allowed = {name: [found] + [digest(EARLIER)] * earlier for name, found in self.wanted.items()}

    def command(self):
        return [PROGRAMS / "qvrepo", "-add", self.package]

    def reset(self):
        self.clear()
        if self.earlier:
            for name in self.wanted:
                (REPOSITORY / name).write_bytes(EARLIER)

    def judge(self, run, fault):
        files, ids = digests(REPOSITORY), self.registered()
        complete = all(files.get(name) == found for name, found in self.wanted.items())
        complaints = self.damaged() + self.not_whole(files) + self.leftovers(files, fault)
        if fault.error is None:
            complaints += self.wrong_death(run, fault)
            if not fault.is_kill and bool(ids) != complete:
                complaints.append(f"ended half-way: {ids} {sorted(files)}")
        else:
            complaints += self.wrong_ending(run)
            complaints += self.inconsistency(run, fault, files, ids, complete)
        return complaints, self.state(files, ids, complete)

    def inconsistency(self, run, fault, files, ids, complete):
        if run.status == 0:
            return [] if complete and len(ids) == 1 else [f"reported success: {ids} {sorted(files)}"]
        # The service may have registered the package and the answer been lost: a status of the web client.
        if ids and not answer_was_lost(run):
            return [f"a refusal left the registration: {run}"]
        # A file that has replaced an earlier one stays when its directory cannot be flushed.
        not_flushed = fault.name == "fsync" and self.earlier
        if not ids and not self.bundle and complete and not not_flushed:
            return ["a refusal left the file without a registration"]
        return []

    def state(self, files, ids, complete):
        new = [name for name, found in self.wanted.items() if files.get(name) == found]
        registration = "registered" if ids else "not registered"
        in_place = "all of its files" if complete else "some of its files" if new else "none of its files"
        temporary = ", temporary file" if any(map(is_temporary, files)) else ""
        return f"{registration}, {in_place}{temporary}"

    def again(self):
        """Runs the command once more, and where the package is registered already, deletes it and adds it."""
        ids = self.registered()
        run = self.run()
        if ids:
            if (run.stdout, run.stderr, run.status) != (ADDING, EXISTS, 7218 & 0xFF):
                return [f"the second run did not report that the package exists: {run}"]
            deleted = injector.run([PROGRAMS / "qvrepo", "-delete", str(ids[0])], self.report, stdin="y\n")
            if deleted.status != 0:
                return [f"the package could not be deleted: {deleted}"]
            run = self.run()
        if run.status != 0 or run.stderr != "" or len(self.registered()) != 1:
            return [f"the package could not be added again: {run}"]
        files = digests(REPOSITORY)
        return [] if files == self.wanted else [f"in the end there is {sorted(files)}, and not all as expected"]


class DeletePackage(RepositoryScenario):
    """`-delete` of a bundle of two files."""

    stdin = "y\n"

    def __init__(self, master, report):
        super().__init__(master, report)
        self.name = BUNDLE
        self.contents = dict(zip(INNER, (FIRST, SECOND)))
        self.allowed = {name: [digest(data)] for name, data in self.contents.items()}
        self.id = None

    def command(self):
        return [PROGRAMS / "qvrepo", "-delete", self.id]

    def reset(self):
        self.clear()
        items = [(name, len(data)) for name, data in self.contents.items()]
        reply = self.master.post(creation_body(BUNDLE, items, type="qv"))
        assert reply.status == 201, reply
        self.id = reply.json["data"]["id"]
        for name, data in self.contents.items():
            (REPOSITORY / name).write_bytes(data)

    def judge(self, run, fault):
        files, ids = digests(REPOSITORY), self.registered()
        complaints = self.damaged() + self.not_whole(files) + self.leftovers(files, fault)
        if ids and len(files) != 2:
            complaints.append(f"the package is listed with {sorted(files)}")
        if fault.error is None:
            complaints += self.wrong_death(run, fault)
            if not fault.is_kill and len(files) != 2 * len(ids):
                complaints.append(f"ended half-way: {ids} {sorted(files)}")
        else:
            complaints += self.wrong_ending(run)
            if run.status == 0 and (ids or (files and fault.name != "unlink")):
                complaints.append(f"reported success: {ids} {sorted(files)}")
            if run.status != 0 and not ids and not answer_was_lost(run):
                complaints.append(f"a refusal deleted the registration: {run}")
        return complaints, self.state(files, ids)

    def state(self, files, ids):
        registration = "registered" if ids else "not registered"
        return f"{registration}, {('none', 'some', 'all')[len(files)]} of its files"

    def again(self):
        ids = self.registered()
        run = self.run()
        if ids:
            done = run.status == 0 and run.stderr == "" and not self.registered() and not digests(REPOSITORY)
            return [] if done else [f"the package could not be deleted again: {run}"]
        unknown = (run.stdout, run.stderr, run.status) == ("", NOT_FOUND, 7220 & 0xFF)
        return [] if unknown else [f"the second run did not report that there is no such package: {run}"]


class MakeArchive(Scenario):
    """`sjapack create`, or `sign`; with `earlier`, another file has the name of the archive to create."""

    LINE = re.compile(r"sjapack: [^\n]+\n")

    def __init__(self, directory, report, sign=False, earlier=False, refuse_nameless=False):
        super().__init__(report, refuse_nameless)
        self.sources = [directory / "payload-1", directory / "payload-2"]
        self.sources[0].write_bytes(FIRST)
        self.sources[1].write_bytes(b"a short one\n")
        self.output = directory / "output" / SINGLE
        self.output.parent.mkdir()
        self.sign = sign
        self.before = EARLIER if earlier else None
        if sign:
            subprocess.run([PROGRAMS / "sjapack", "create", self.output, *self.sources], check=True,
                           capture_output=True)
            self.before = self.output.read_bytes()
        assert self.run().status == 0
        self.wanted = self.output.read_bytes()

    def command(self):
        what = ["sign", self.output] if self.sign else ["create", self.output, *self.sources]
        return [PROGRAMS / "sjapack", *what, "--key", SIGNING_KEY]

    def reset(self):
        empty(self.output.parent)
        if self.before is not None:
            self.output.write_bytes(self.before)

    def found(self):
        return self.output.read_bytes() if self.output.exists() else None

    def judge(self, run, fault):
        names, found = [entry.name for entry in self.output.parent.iterdir()], self.found()
        complaints = self.leftovers(names, fault)
        if found not in (self.before, self.wanted):
            complaints.append("the archive is not whole")
        if fault.error is None:
            complaints += [] if run.status < 0 else [f"survived: {run}"]
        else:
            complaints += self.wrong_ending(run, found, fault)
        state = {self.wanted: "new archive", self.before: "earlier archive", None: "no archive"}.get(found, "half")
        return complaints, state + (", temporary file" if any(map(is_temporary, names)) else "")

    def wrong_ending(self, run, found, fault):
        if run.status == 0:
            return [] if found == self.wanted and not run.stderr else [f"reported success: {run}"]
        if run.status != 1 or not self.LINE.fullmatch(run.stderr):
            return [f"no status and line of the program: {run}"]
        # The archive stays when only printing its summary failed, or when its directory was not flushed after the
        # earlier one was replaced.
        reported_late = fault.name == "write" and "standard output" in run.stderr
        not_flushed = fault.name == "fsync" and self.before is not None
        return ["a refusal left the archive"] if found == self.wanted and not (reported_late or not_flushed) else []

    def again(self):
        run = self.run()
        names = [entry.name for entry in self.output.parent.iterdir()]
        good = run.status == 0 and self.found() == self.wanted and names == [self.output.name]
        return [] if good else [f"the second run: {run}, {names}"]
