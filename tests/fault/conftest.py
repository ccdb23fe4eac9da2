"""Fixtures of the fault tests: those of the end-to-end tests (tree, master, qvrepo, ...), and

report  a file for what strace writes
"""

import sys
from pathlib import Path

import pytest

E2E = Path(__file__).resolve().parents[1] / "e2e"
sys.path.insert(0, str(E2E))

# Both files have to be called conftest.py, so the other one's fixtures cannot be imported by its name.
exec(compile((E2E / "conftest.py").read_text(), E2E / "conftest.py", "exec"))


@pytest.fixture
def report(tmp_path):
    return tmp_path / "strace.out"
