"""What the package files are: the same from every build, hardened, and as lintian wants them."""

import re
import subprocess

import pytest
from debian import AGAIN, FIRST, PACKAGES, WORK, deb


def output(*command):
    run = subprocess.run([str(argument) for argument in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                         text=True, check=False)
    return run.stdout, run.returncode


@pytest.mark.parametrize("name", PACKAGES)
def test_two_builds_of_one_commit_are_the_same_bytes(name):
    assert deb(name, FIRST).name == deb(name, AGAIN).name
    assert deb(name, FIRST).read_bytes() == deb(name, AGAIN).read_bytes()


def test_lintian_has_nothing_to_say():
    found, status = output("lintian", "--allow-root", "--fail-on", "warning", *(deb(name) for name in PACKAGES))
    assert (found, status) == ("", 0)


def test_no_override_explains_what_lintian_does_not_find():
    found, _ = output("lintian", "--allow-root", "--show-overrides", *(deb(name) for name in PACKAGES))
    assert "unused-override" not in found and "mismatched-override" not in found, found


def test_every_compiler_call_of_the_build_was_hardened(tmp_path):
    calls = [line for line in (WORK / "first/build/package.log").read_text().splitlines() if line.startswith("[")]
    assert sum(" -c " in call for call in calls) > 50, "the log shows no calls of the compiler"
    log = tmp_path / "build.log"
    # blhc looks at what comes after such a line, which is how a distribution's builds begin.
    log.write_text("\n".join(["dpkg-buildpackage: info: source package qvrepo", *calls]) + "\n")
    # Debug information protects nobody, and the packages are stripped.
    found, status = output("blhc", "--all", "--ignore-flag", "-g", log)
    assert (found, status) == ("", 0)


@pytest.mark.parametrize("program", ["usr/sbin/qvrepo", "usr/sbin/qvmaster", "usr/bin/sjapack", "usr/sbin/qvcheck"])
def test_an_installed_program_is_hardened(installed, program):
    found, _ = output("hardening-check", installed.path(program))
    for protection in ("Position Independent Executable", "Stack protected", "Read-only relocations",
                       "Immediate binding"):
        assert f"{protection}: yes" in found, found
    assert "Fortify Source functions: yes" in found, found


@pytest.mark.parametrize("name", PACKAGES)
def test_a_package_names_the_libraries_that_its_program_loads(name, debian):
    debian.dpkg("--install", name)
    depends = subprocess.run(["dpkg-deb", "-f", deb(name), "Depends"], capture_output=True, text=True, check=True).stdout
    for library in ("libc6", "libssl3", "libstdc++6"):
        assert re.search(rf"\b{re.escape(library)} \(>= ", depends), depends
    program = "/usr/bin/sjapack" if name == "sjapack" else f"/usr/sbin/{name}"
    assert "not found" not in debian.run("ldd", program).output
