"""The read path's measurements; bench/read runs them in a sandbox. Arguments: package counts of the lists."""

import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests/e2e"))

import measure
import world

QVREPO = world.PROGRAMS / "qvrepo"
URL = f"https://{world.HOST}:{world.PORT}{world.PACKAGES}"
CURL = [
    "curl", "--silent", "--show-error", "--fail", "--cacert", world.TLS / "ca.pem", "--cert", world.TLS / "host.pem",
    "--key", world.TLS / "host.key", "--header", f"Accept: {world.MEDIA_TYPE}"]

# The table that qvrepo -list prints, for jq.
TABLE = r"""
def shown: if (.packageType | length) <= 2 or .packageType == "maint.qv" then "server+client"
  elif .packageType == "maint.qvclient" then "client"
  elif .packageName | contains("qveeb.client") then "client eeb"
  elif .packageName | contains("qveeb.server") then "server eeb" else .packageType[2:] end;
def pad($w): . + (" " * ($w - length) // "");
[.data[] | [.id, (.attributes | shown, .version, .os, .packageFileName)]] as $rows
| ["ID", "Type", "Version", "OS", "File Name"] as $head
| [range(5) as $c | [$head[$c], $rows[][$c]] | map(length) | max] as $w
| [[range(5) as $c | $head[$c] | pad($w[$c])] | join(" "), ($w | map("-" * .) | join(" "))][],
  ($rows[] as $r | [range(5) as $c | $r[$c] | pad($w[$c])] | join(" "))
"""


def make_world():
    subprocess.run([world.SOURCES / "scripts/make-tree", world.ROOT, world.HOST], check=True)
    # As most administrators run it: without the log.
    (world.ROOT / "quorvelle/logs/qvrepo").rmdir()


def measure_start_up():
    return measure.compare("(a) start-up", [
        measure.Subject("qvrepo -h", [QVREPO, "-h"]),
        measure.Subject("curl --version", ["curl", "--version"]),
        measure.Subject("true", ["true"])], rounds=200)


def measure_one_request(master):
    master.register("dunmarel_qvclient_8.3_redhat_x64.sja")
    return measure.compare("(b) one request", [
        measure.Subject("qvrepo -pkgDetails 1", [QVREPO, "-pkgDetails", "1"]),
        measure.Subject("curl", [*CURL, f"{URL}/1"])], rounds=60, memory=True)


def measure_list(master, count):
    have = len(master.packages())
    name = "dunmarel_qvclient_8.3.{}_redhat_x64.sja"
    master.register_many(count - have, name=name.replace("{}", f"{have}-{{}}"))
    curl = " ".join(f"'{argument}'" for argument in [*CURL, URL])
    program = world.ROOT / "table.jq"
    program.write_text(TABLE)
    measure.compare(f"(c) list of {count:,} packages", [
        measure.Subject("qvrepo -list", [QVREPO, "-list"]),
        measure.Subject("curl | jq", f"{curl} | jq -r -f {program}"),
        measure.Subject("curl alone", [*CURL, URL])], rounds=5 if count > 10000 else 15, memory=True)
    same_table(curl, program)


def same_table(curl, program):
    """The comparison is one only where both print the same."""
    ours = subprocess.run([QVREPO, "-list"], capture_output=True, text=True, check=True).stdout
    theirs = subprocess.run(["sh", "-c", f"{curl} | jq -r -f {program}"], capture_output=True, text=True, check=True)
    # The type's column follows the service's names of the types, so widths differ; the cells must not.
    cells = [[line.split() for line in text.splitlines() if not line.startswith("--")] for text in (ours, theirs.stdout)]
    if cells[0] != cells[1]:
        sys.exit("the two tables differ")


def main():
    counts = [int(count) for count in sys.argv[1:]] or [1000, 10000, 100000]
    make_world()
    measure_start_up()
    master = world.Master()
    master.start()
    try:
        measure_one_request(master)
        for count in counts:
            measure_list(master, count)
    finally:
        master.finish()


main()
