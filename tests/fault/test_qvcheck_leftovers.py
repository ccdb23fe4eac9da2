"""What a command leaves when it is killed: qvcheck finds it, and what qvcheck says mends it."""

import pytest
from packages import INNER, SINGLE
from qvcheck import findings, follow, names_of
from test_known_cases import TEMPORARY, calls_to, hit, scenario  # noqa: F401


@pytest.mark.parametrize("name, call, parts, expected", [
    ("add a single package", "openat", ["O_TMPFILE"], ["missing-file"]),
    ("add a single package over an earlier file", "renameat", [SINGLE], ["leftover", "wrong-size"]),
    ("add a bundle", "openat", ["O_TMPFILE"], ["missing-file", "missing-file"]),
    ("add a bundle", "linkat", [INNER[0]], ["leftover", "missing-file"]),
    ("add a bundle", "unlink", [TEMPORARY], ["leftover"]),
    ("delete a bundle", "unlink", [], ["unlisted-file", "unlisted-file"]),
])
def test_what_a_kill_leaves_is_found_and_mended(scenario, name, call, parts, expected):  # noqa: F811
    run = scenario(name)
    assert hit(run, calls_to(run, call, *parts)[0], None).status < 0
    found = findings("--settle", "0", "--no-signatures")
    assert names_of(found) == expected
    # Two findings of one package have one command.
    for command in dict.fromkeys(finding["command"] for finding in found):
        follow(command)
    assert findings("--settle", "0", "--no-signatures") == []
