"""Fixtures of the end-to-end tests.

tree         /usr/ormex as scripts/make-tree makes it, fresh for every test, whether asked for or not
master       qvmaster, running on that tree (world.Master)
idle_master  the same, not started yet: master.start(...) with options of the test's own
qvrepo       qvrepo(*arguments, stdin=None, env=None) runs the program: stdout, stderr, status
log_records  log_records() reads qvrepo's debug log: [(level, function, text), ...]
repository   repository() lists the repository directory: [name, ...]
volume       volume(options) puts a small file system over the repository
"""

import os
import subprocess

import pytest

if os.environ.get("QV_SANDBOX") != "1":
    pytest.exit("these tests replace /usr/ormex: run them with scripts/sandbox --bare tests/e2e/run-pytest FILE", 2)

import world


@pytest.fixture(scope="session")
def template_tree(tmp_path_factory):
    """A tree made once for all tests, since its package-signing key takes a while."""
    template = tmp_path_factory.mktemp("template")
    subprocess.run([world.SOURCES / "scripts/make-tree", template, world.HOST], check=True)
    return template


@pytest.fixture(autouse=True)
def tree(template_tree):
    world.fill_root(template_tree)
    return world.ROOT


@pytest.fixture
def idle_master(tree):
    master = world.Master()
    yield master
    master.finish()


@pytest.fixture
def master(idle_master):
    idle_master.start()
    return idle_master


@pytest.fixture
def qvrepo(tree):
    return world.run_qvrepo


@pytest.fixture
def log_records(tree):
    return world.read_log_records


@pytest.fixture
def repository(tree):
    return world.list_repository


@pytest.fixture
def volume(tree):
    """volume(options) mounts a tmpfs of its own over the repository, until the test is over."""
    mounted = []

    def mount(options):
        subprocess.run(["mount", "-t", "tmpfs", "-o", options, "volume", world.REPOSITORY], check=True)
        mounted.append(world.REPOSITORY)

    yield mount
    for place in mounted:
        subprocess.run(["umount", "-l", place], check=True)
