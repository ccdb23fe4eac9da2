"""How the programs are built: position independent, with every protection of linker and compiler."""

import subprocess

import pytest
from world import PROGRAMS

NAMES = ["qvrepo", "qvmaster", "sjapack", "qvcheck"]


def readelf(name, *options):
    return subprocess.run(["readelf", "-W", *options, PROGRAMS / name], capture_output=True, text=True,
                          check=True).stdout


@pytest.mark.parametrize("name", NAMES)
def test_a_program_is_position_independent(name):
    assert "DYN (Position-Independent Executable file)" in readelf(name, "-h")


@pytest.mark.parametrize("name", NAMES)
def test_relocations_are_read_only_from_the_start(name):
    assert "GNU_RELRO" in readelf(name, "-l")
    assert "NOW" in readelf(name, "-d")


@pytest.mark.parametrize("name", NAMES)
def test_the_stack_is_not_executable(name):
    (stack,) = [line for line in readelf(name, "-l").splitlines() if "GNU_STACK" in line]
    assert " RW " in stack and "E" not in stack.split("GNU_STACK")[1]


@pytest.mark.parametrize("name", NAMES)
def test_functions_check_their_stack(name):
    assert "__stack_chk_fail" in readelf(name, "--dyn-syms")


@pytest.mark.parametrize("name", NAMES)
def test_library_calls_are_fortified(name):
    symbols = readelf(name, "--dyn-syms")
    if "__asan_init" in readelf(name, "--syms"):
        pytest.skip("the sanitizers take the place of the fortified functions")
    assert "_chk@" in symbols.replace("__stack_chk_fail@", "")
