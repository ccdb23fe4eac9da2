"""The picture in the README: what it shows is what the programs print."""

import re
import subprocess
import xml.etree.ElementTree as ElementTree

from world import SOURCES

PICTURE = SOURCES / "docs/main-job.svg"


def text_of(picture):
    """The lines of a picture, the time of day left out."""
    lines = [element.text for element in ElementTree.parse(picture).iter("{http://www.w3.org/2000/svg}text")]
    return [re.sub(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", "TIME", line) for line in lines]


def test_the_picture_shows_what_a_run_prints_today(master, tmp_path):
    subprocess.run([SOURCES / "scripts/record", tmp_path / "now.svg"], check=True)
    assert text_of(PICTURE) == text_of(tmp_path / "now.svg")


def test_without_a_sandbox_nothing_is_recorded(tmp_path):
    run = subprocess.run(["env", "-u", "QV_SANDBOX", SOURCES / "scripts/record", tmp_path / "now.svg"],
                         capture_output=True, text=True, check=False)
    assert (run.returncode, run.stderr) == (2, "Usage: scripts/sandbox scripts/record OUT.svg\n")
    assert not (tmp_path / "now.svg").exists()
