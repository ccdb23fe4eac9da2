"""What qvcheck shows on a terminal besides its text, and where it shows none of that."""

import fcntl
import os
import pty
import re
import select
import struct
import subprocess
import termios

import pytest
from packages import SINGLE, archive, signed
from world import PATIENCE, PROGRAMS, REPOSITORY

PLAIN = {name: value for name, value in os.environ.items() if name not in ("NO_COLOR", "TERM")}


@pytest.fixture(scope="module")
def content(template_tree):
    """A signed file that takes longer than the first drawing of the bar."""
    return signed(archive(("payload", bytes(500 << 20))), template_tree / "publisher/signing.key")


def shown(words, stream, columns=80, **environment):
    """What a terminal with so many columns gets when it is the standard `stream`; the other one is a file."""
    terminal, its_end = pty.openpty()
    fcntl.ioctl(its_end, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
    streams = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, stream: its_end}
    process = subprocess.Popen([PROGRAMS / "qvcheck", *words], env={**PLAIN, "TERM": "xterm", **environment}, **streams)
    os.close(its_end)
    text = b""
    while True:
        assert select.select([terminal], [], [], PATIENCE)[0], "the program hangs"
        try:
            text += os.read(terminal, 65536)
        except OSError:  # the last one who had it open is gone
            break
    os.close(terminal)
    process.wait(PATIENCE)
    return text.decode()


@pytest.mark.parametrize("how, coloured", [
    ({}, True), ({"NO_COLOR": ""}, False), ({"NO_COLOR": "1"}, False), ({"TERM": "dumb"}, False), ({"TERM": ""}, False),
    ({"columns": 59}, False), ({"columns": 60}, True),
])
def test_colours_are_shown_on_a_terminal_that_takes_them(tree, how, coloured):
    text = shown(["setup"], "stdout", **how)
    assert text.count("\x1b[31mFAIL\x1b[m  connection") == (1 if coloured else 0)
    assert ("\x1b" in text) == coloured


def test_nothing_of_a_terminal_is_shown_in_a_file(tree):
    outcome = subprocess.run([PROGRAMS / "qvcheck", "setup"], env={**PLAIN, "TERM": "xterm"}, capture_output=True)
    assert b"\x1b" not in outcome.stdout + outcome.stderr


@pytest.mark.parametrize("words, how, line", [
    ([], {}, r"\[#* *\] [\d.,]+ [KMG]?B / 500\.00 MB  -\d+:\d\d"), ([], {"columns": 59}, r"\d+%"),
    (["--quiet"], {}, None), ([], {"TERM": "dumb"}, None), (["--no-signatures"], {}, None),
])
def test_progress_is_drawn_and_wiped(master, content, words, how, line):
    (REPOSITORY / SINGLE).write_bytes(content)
    master.register(SINGLE, [(SINGLE, len(content))])
    text = shown(["repository", *words], "stderr", **how)
    if line is None:
        assert text == ""
        return
    begin, *drawn, wiped = text.split("\r")
    assert (begin, wiped) == ("", "\x1b[K")
    assert drawn and all(re.fullmatch(line + "\x1b\\[K", each) for each in drawn), drawn
