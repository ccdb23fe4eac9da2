"""What the programs themselves say about their options: the tables of qvrepo, the --help of the others."""

import functools
import re
import subprocess
from typing import NamedTuple

from world import PROGRAMS

BUILD = PROGRAMS.parent


@functools.cache
def table(kind):
    """The rows of one of qvrepo's tables, each a tuple of its fields."""
    printed = subprocess.run([BUILD / "tests/program_tables"], capture_output=True, text=True, check=True).stdout
    rows = [tuple(line.split("\t")) for line in printed.splitlines()]
    return [row[1:] for row in rows if row[0] == kind]


def column(kind):
    """The first fields of a table's rows."""
    return [row[0] for row in table(kind)]


@functools.cache
def help_of(program, *arguments):
    option = "-h" if program == "qvrepo" else "--help"
    run = subprocess.run([PROGRAMS / program, *arguments, option], capture_output=True, text=True, check=True)
    return run.stdout


def usage_options():
    """The options that qvrepo's usage text names, in their order."""
    return re.findall(r"(?<!\S)-[A-Za-z]+", help_of("qvrepo"))


class Option(NamedTuple):
    """An option of a --help text; no default is empty."""

    name: str
    takes_value: bool
    default: str
    description: str


@functools.cache
def help_options(program, *arguments):
    """The options in a --help text, a short and a long name being two options, in their order."""
    # A description begins in column 31, or there on the next line where the option is too long.
    joined = re.sub(r"^(  -.*)\n {30}(?=\S)", r"\1\t", help_of(program, *arguments), flags=re.MULTILINE)
    found = []
    for line in re.findall(r"^  -.*", joined, re.MULTILINE):
        head, description = line.split("\t") if "\t" in line else (line[:30], line[30:])
        names, kind = re.match(r"  (\S+)(?: (?!REQUIRED)([A-Z][A-Z|_-]*)\b)?", head).groups()
        default = re.search(r"=(\S+)", head)
        for name in names.split(","):
            found.append(Option(name, kind is not None, default[1] if default else "", description))
    return found


def option_names(program, *arguments):
    return [option.name for option in help_options(program, *arguments)]


def subcommands(program):
    """The subcommands in a --help text with their descriptions."""
    listed = help_of(program).partition("Subcommands:\n")[2]
    return re.findall(r"^  (\w+) +(\S.*)$", listed, re.MULTILINE)
