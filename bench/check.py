"""qvcheck's measurements; bench/check runs them in a sandbox. Arguments: MiB of each of the eight signed files, and the
number of packages in the list."""

import os
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests/e2e"))

import measure
import packages
import world

QVCHECK = world.PROGRAMS / "qvcheck"
QVREPO = world.PROGRAMS / "qvrepo"


def put_signed(master, name, mebibytes):
    """Registers a signed file that is in the repository."""
    content = packages.signed(packages.archive(("payload", os.urandom(1 << 20) * mebibytes)))
    (world.REPOSITORY / name).write_bytes(content)
    master.register(name, [(name, len(content))])


def empty(master):
    for package in master.packages():
        master.delete(package["id"])
    for entry in world.REPOSITORY.iterdir():
        entry.unlink()


def measure_signatures(master, mebibytes):
    for i in range(8):
        put_signed(master, f"dunmarel_qvclient_8.3.{i}_redhat_x64.sja", mebibytes)
    files = sorted(world.REPOSITORY.iterdir())
    measure.compare(f"(a) signatures of 8 x {mebibytes} MiB", [
        measure.Subject("qvcheck repository", [QVCHECK, "repository"]),
        measure.Subject("openssl dgst -sha512", ["openssl", "dgst", "-sha512", *files])], rounds=7, memory=True)
    empty(master)
    for size in (1, 4 * mebibytes):
        put_signed(master, "dunmarel_qvclient_8.3_redhat_x64.sja", size)
        subject = measure.Subject("", [QVCHECK, "repository"])
        subject.measure_peak()
        print(f"  peak with one file of {size} MiB: {subject.peak:.1f} MB")
        empty(master)


def measure_list(master, count):
    name = "dunmarel_qvclient_8.3.{}_redhat_x64.sja"
    master.register_many(count, name=name)
    for i in range(count):
        with open(world.REPOSITORY / name.format(i), "wb") as file:
            file.truncate(1000)
    measure.compare(f"(b) list of {count:,} packages with as many files", [
        measure.Subject("qvcheck repository --no-signatures", [QVCHECK, "repository", "--no-signatures"]),
        measure.Subject("qvrepo -list; find", f"{QVREPO} -list; find {world.REPOSITORY}")], rounds=5, memory=True)


def main():
    mebibytes, count = [int(word) for word in sys.argv[1:]] or [256, 100000]
    subprocess.run([world.SOURCES / "scripts/make-tree", world.ROOT, world.HOST], check=True)
    (world.ROOT / "quorvelle/logs/qvrepo").rmdir()
    master = world.Master()
    master.start()
    try:
        measure_signatures(master, mebibytes)
        measure_list(master, count)
    finally:
        master.finish()


main()
