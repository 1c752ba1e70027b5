"""Scenarios: what they describe, and what they refuse."""
import pytest

from labap import air
from labap import scenario as scenarios
from lumdtest.labparts import FakeClock, minimal


@pytest.mark.parametrize("name", [path.stem for path in scenarios.FOLDER.glob("*.json")])
def test_every_scenario_of_the_tree_is_complete(name):
    chosen = scenarios.load(name)
    assert chosen["description"]
    assert air.Air(chosen, FakeClock()).radios


def test_a_misspelt_member_is_named_with_its_place():
    with pytest.raises(scenarios.ScenarioError, match=r"radios\[0\]\.vaps\[0\].*'ssd'"):
        scenarios.complete({"radios": [{"ifname": "wlan0", "vaps": [{"ssd": "x"}]}]})


def test_the_store_holds_what_the_radios_say_and_config_overrides_it():
    tree = scenarios.config_tree(minimal(config={"/orvanta/dca": "false"}))
    assert scenarios.find(tree, "/interface/wlan0-va0/vap/ssid") == "lab"
    assert scenarios.find(tree, "/interface/wlan1/wlan/radio/bandwidth") == "80"
    assert scenarios.find(tree, "/orvanta/dca") == "false"
    assert scenarios.find(tree, "/no/such/path") is None
