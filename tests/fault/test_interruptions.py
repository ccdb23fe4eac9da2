"""SIGINT, SIGTERM and SIGHUP at every stage of an add and a deletion: a package is listed with its files, or neither is
there."""

import pytest
from campaign import CHANGING, PLACES, SCENARIOS, Campaign
from injector import Fault

STAGES = (*PLACES, "/logs/qvrepo/", ".sja>")


@pytest.mark.parametrize("name", ["add a single package", "add a bundle", "delete a bundle"])
def test_a_signal_leaves_a_package_and_its_files_or_neither(master, tmp_path, report, name):
    campaign = Campaign(SCENARIOS[name](master, tmp_path, report))
    calls = [call for call in campaign.calls
             if call.name in (*CHANGING, "read") and any(stage in call.text for stage in STAGES)]
    campaign.inject_all(Fault(call.name, call.number, signal=("INT", "TERM", "HUP")[number % 3])
                        for number, call in enumerate(calls))
    campaign.finish(f"{name}, signals")


def test_the_mask_is_set_before_the_program_does_anything_else(master, tmp_path, report):
    names = [call.name for call in SCENARIOS["add a single package"](master, tmp_path, report).trace()]
    assert names.index("umask") < names.index("fcntl")
