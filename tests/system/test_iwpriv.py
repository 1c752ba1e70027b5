"""What the agent makes of an iwpriv that prints half an answer, nothing at all, or is not there."""
import os

import pytest

from lumdtest.lab import CONFIG, ask, radios

CUT = ["", "wlan1", "wlan1  get_m", "wlan1  get_mib:", "wlan1  get_mib:-", "wlan1  get_mib:-5\n",
       "wlan1  get_mib:x\n", "wlan0  get_mib:11\n", "x" * 100_000, "\n" * 3]
UNTOLD = (0, 20, 16, 1)  # a report's figures for what the driver does not tell
NEIGHBOUR = {"neighbour-mac": "00:11:22:33:50:51", "channel": 52, "priority": 3,
             "vaps": [{"ssid": "office", "mac": "00:11:22:33:50:51"}]}


def told(lab, since):
    return [line for line in lab.log_lines()[since:] if " error: " in line]


def figures(radio):
    return radio["channel"], radio["bandwidth"], radio["power"], radio["status"]


def prints(lab, output):
    lab.ap("fault-add", rule={"call": "iwpriv-output", "output": output})


@pytest.mark.parametrize("output", CUT, ids=[repr(text[:20]) for text in CUT])
def test_half_an_answer_is_never_taken_for_a_value(start_lab, output):
    lab = start_lab("office")
    first, second = radios(lab)
    prints(lab, output)
    since = len(lab.log_lines())
    without_first, without = radios(lab)
    assert figures(without_first) == figures(first)
    assert figures(without) == UNTOLD
    assert without["assoclist"] == second["assoclist"]
    lines = told(lab, since)
    assert lines and all("cannot get MIB parametr" in line for line in lines), lines
    lab.ap("fault-clear")
    assert radios(lab) == [first, second]


def test_a_failing_iwpriv_is_like_one_that_prints_nothing(start_lab):
    lab = start_lab("office")
    before = radios(lab)
    lab.ap("fault-add", rule={"call": "iwpriv", "errno": "EIO"})
    assert figures(radios(lab)[1]) == UNTOLD
    lab.ap("fault-clear")
    assert radios(lab) == before


def test_without_iwpriv_the_agent_serves_the_radio_that_needs_none(start_lab):
    lab = start_lab("office", environment={"PATH": os.defpath})
    first, second = radios(lab)
    assert figures(first) == (6, 20, 16, 1)
    assert figures(second) == UNTOLD
    survey = ask(lab, {"cmd": "rrm-update", "rrm-scan-channels": "1 36"}, "rrm-response")
    assert survey["rf-environment"]
    lines = told(lab, 0)
    assert lines and all("cannot get MIB parametr" in line for line in lines), lines


def test_a_neighbour_is_told_without_a_bandwidth_that_iwpriv_did_not_tell(start_lab):
    lab = start_lab("office")
    prints(lab, "wlan1-va0  get_mib:")
    lab.send({"cmd": "rrm-info", **CONFIG, "802dot11k": [NEIGHBOUR]})
    radios(lab)
    table = lab.ap("hostapd-neighbours")["wlan1-va0"]
    # The last three bytes: width, channel and offset.
    assert table[NEIGHBOUR["neighbour-mac"]]["nr"].endswith("0603003400")
