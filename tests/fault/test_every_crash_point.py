"""All crash points: every call that touches the disk or the network is the last one of a run, and fails with each of
its errors. Takes many minutes; tests/fault/run-all shares it among the processors."""

from pathlib import Path

import pytest
from campaign import SCENARIOS, Campaign
from injector import ERRORS


def kill(call):
    return [None]


def errors(call):
    return ERRORS[call]


@pytest.mark.parametrize("name", SCENARIOS)
def test_a_kill_at_any_call_leaves_whole_files_only(master, tmp_path, report, name):
    campaign = Campaign(SCENARIOS[name](master, tmp_path, report))
    campaign.inject_everywhere(kill)
    campaign.finish(f"{name}, kills")


@pytest.mark.parametrize("name", SCENARIOS)
def test_an_error_at_any_call_is_reported_and_leaves_whole_files_only(master, tmp_path, report, name):
    campaign = Campaign(SCENARIOS[name](master, tmp_path, report))
    campaign.inject_everywhere(errors)
    campaign.finish(f"{name}, errors")


@pytest.mark.parametrize("name", ["add a single package", "delete a bundle"])
def test_an_error_in_looking_up_the_master_is_reported_and_leaves_nothing_half_done(master, tmp_path, report, name):
    campaign = Campaign(SCENARIOS[name](master, tmp_path, report))
    campaign.inject_in_lookup(errors)
    campaign.inject_in_lookup(kill)
    campaign.finish(f"{name}, name look-up")


def print_tests():
    """The tests of this file, one per line and the longest ones first, for tests/fault/run-all to share out."""
    longest_first = sorted(SCENARIOS, key=lambda name: "bundle" not in name)
    for test in (test_an_error_at_any_call_is_reported_and_leaves_whole_files_only,
                 test_a_kill_at_any_call_leaves_whole_files_only):
        for name in longest_first:
            print(f"{Path(__file__).name}::{test.__name__}[{name}]")
    print(f"{Path(__file__).name}::test_an_error_in_looking_up_the_master_is_reported_and_leaves_nothing_half_done")
