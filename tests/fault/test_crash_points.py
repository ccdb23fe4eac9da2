"""A representative part of all crash points: kills at every call that changes something, and every error of every call
once. test_every_crash_point.py has them all."""

import pytest
from campaign import SCENARIOS, Campaign, each_error_once, kills_at_changing_calls

KILLED = ["add a single package", "add a bundle over earlier files without nameless files", "delete a bundle",
          "create an archive"]
FAILING = ["add a bundle", "delete a bundle", "sign an archive"]


@pytest.mark.parametrize("name", KILLED)
def test_a_kill_at_a_call_that_changes_something_leaves_whole_files_only(master, tmp_path, report, name):
    campaign = Campaign(SCENARIOS[name](master, tmp_path, report))
    campaign.inject_all(kills_at_changing_calls(campaign.calls))
    campaign.finish(f"{name}, part of the kills")


@pytest.mark.parametrize("name", FAILING)
def test_an_error_of_each_kind_is_reported_and_leaves_whole_files_only(master, tmp_path, report, name):
    campaign = Campaign(SCENARIOS[name](master, tmp_path, report))
    campaign.inject_all(each_error_once(campaign.calls))
    campaign.finish(f"{name}, part of the errors")
