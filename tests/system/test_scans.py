"""Surveys from the service's command to its result, and what can happen in between."""
import pytest

from lumdtest.lab import CONFIG, ask, radios, scenario, scenarios

GENERIC = {"cmd": "rrm-update", "rrm-scan-channels": "1 36"}
VENDOR = {**GENERIC, "vexor-rrm-scanning": 1}
RESULTS = "VEXOR_CMD_CUSTOM_SCAN_RESULTS"
SIX_GHZ = {"ifname": "wlan2", "driver": "g6", "bands": ["6GHz"]}
QUIET = 3.0  # real seconds: a minute of protocol time, longer than any survey of these tests


def air(**changes):
    """A channel takes no time to listen to, so that a busy machine does not cut a pass short."""
    return scenario(scan={"dwell": 0.01, "jitter": 0}, **changes)


def with_six_ghz():
    given = air()
    given["radios"] = given["radios"] + [scenarios.complete_radio(SIX_GHZ, "6 GHz")]
    return given


def steps(lab, since):
    """What the scan daemon and the driver saw, in order."""
    seen = []
    for event in lab.events(since):
        if event["what"] in ("lock-scan", "unlock-scan"):
            seen.append((event["what"], event["data"]["interface"]))
        elif event["what"] in ("scan-start", "scan-stop", "scan-results", "rrm-scan-start"):
            seen.append((event["what"], event["data"]["ifname"]))
        elif event["what"] == "mib-set" and event["data"]["name"] == "rrm_scan_chan":
            seen.append((f"rrm_scan_chan={event['data']['value']}", event["data"]["ifname"]))
    return seen


def start_scan(lab, message=None, begins="scan-start", broken=False):
    since = lab.mark()
    lab.send(message or GENERIC, broken=broken)
    lab.wait(begins, since)
    return since


def test_the_generic_survey_s_five_passes_step_by_step(start_lab):
    lab = start_lab(with_six_ghz())
    since = lab.mark()
    survey = ask(lab, GENERIC, "rrm-response")
    one_pass = [("lock-scan", "wlan0"), ("scan-start", "wlan0"),
                ("lock-scan", "wlan1"), ("scan-start", "wlan1"), ("lock-scan", "wlan2"),
                ("scan-stop", "wlan0"), ("unlock-scan", "wlan0"),
                ("scan-stop", "wlan1"), ("unlock-scan", "wlan1"), ("unlock-scan", "wlan2"),
                ("scan-results", "wlan0"), ("scan-results", "wlan1")]
    lab.settle()
    assert by_side(steps(lab, since)) == by_side(one_pass * 5)
    assert len(survey["rf-environment"]) == 5
    assert lab.ap("locks") == []


def by_side(seen):
    """The scan daemon's and the driver's steps apart: the bus and the kernel are not one queue."""
    daemon = [step for step in seen if step[0] in ("lock-scan", "unlock-scan")]
    return daemon, [step for step in seen if step not in daemon]


def test_the_vendor_survey_with_its_two_delays_step_by_step(start_lab):
    lab = start_lab(with_six_ghz())
    since = lab.mark()
    ask(lab, {**VENDOR, "rrm-scan-delay": 7}, "rrm-response")
    lab.settle()
    locks = [(verb, f"wlan{n}") for verb in ("lock-scan", "unlock-scan") for n in range(3)]
    assert by_side(steps(lab, since)) == (locks, [
        ("rrm_scan_chan=0", "wlan0"), ("rrm_scan_chan=1", "wlan0"), ("rrm-scan-start", "wlan0"),
        ("rrm_scan_chan=0", "wlan1"), ("rrm_scan_chan=36", "wlan1"), ("rrm-scan-start", "wlan1"),
        ("scan-results", "wlan0"), ("scan-results", "wlan1")])


def test_the_delays_pass_before_the_survey_and_before_its_result(start_lab):
    lab = start_lab(air())
    sent = lab.mark()
    lab.send({**VENDOR, "rrm-scan-delay": 40})
    asked = lab.wait("rrm-update", sent)["t"]
    begun = lab.wait("rrm-scan-start", sent, timeout=60)["t"]
    found = lab.wait("scan-results", sent, timeout=60, data={"ifname": "wlan1"})["t"]
    told = lab.wait("rrm-response", sent, timeout=60)["t"]
    assert begun - asked >= 39 / 20
    assert told - found >= 39 / 20


def test_a_6_ghz_radio_is_locked_and_not_surveyed(start_lab):
    lab = start_lab(with_six_ghz())
    since = start_scan(lab)
    lab.wait("lock-scan", since, data={"interface": "wlan2"})
    assert "wlan2" in lab.ap("locks")
    lab.wait("rrm-response", since, timeout=60)
    lab.wait("unlock-scan", since, data={"interface": "wlan2"})
    assert lab.events(since, what="scan-start", data={"ifname": "wlan2"}) == []


@pytest.mark.parametrize("hard", [True, False])
def test_a_link_lost_in_the_middle_does_not_leave_the_agent_deaf(start_lab, hard):
    lab = start_lab(air(), config=["initial_connection_delay=1", "max_connection_delay=1"])
    # On all channels: the survey would go on long after the link is back.
    since = start_scan(lab, {"cmd": "rrm-update", "rrm-scan-channels": " ".join(["36"] + [
        str(n) for n in range(37, 400)])})
    lab.service("drop", hard=hard)
    subscribed = lab.wait("subscribe-response", since)["n"]
    assert len(radios(lab)) == 2
    lab.send({"cmd": "rrm-info", **CONFIG, "radios": [{"id": 0, "power": 11}]})
    lab.wait("update-orvanta", subscribed, timeout=5)
    lab.settle(quiet=QUIET, limit=QUIET)
    assert lab.events(since, what="rrm-response") == []
    assert lab.ap("locks") == []


def test_hostapd_stopping_in_the_middle_ends_the_survey(start_lab):
    lab = start_lab(air())
    since = start_scan(lab)
    lab.ap("hostapd", action="stop")
    lab.wait("rrm-disassoc-all-clients", since)
    lab.ap("hostapd", action="start")
    lab.wait("rrm-config-changed", since)
    lab.settle(quiet=QUIET, limit=QUIET)
    assert lab.events(since, what="rrm-response") == []
    assert len(ask(lab, GENERIC, "rrm-response")["rf-environment"]) == 5


def test_a_new_survey_in_the_middle_replaces_the_running_one(start_lab):
    lab = start_lab(air())
    since = start_scan(lab, {**GENERIC, "rrm-scan-channels": "1 2 3 4 5 6 7 8"})
    lab.send({**GENERIC, "rrm-scan-channels": "2 36"})
    survey = lab.wait("rrm-response", since, timeout=60)["data"]
    assert [{entry["channel"] for entry in table} for table in survey["rf-environment"]] == \
        [{36}] * 5
    lab.settle(quiet=QUIET, limit=QUIET)
    assert len(lab.events(since, what="rrm-response")) == 1
    assert lab.ap("locks") == []


def test_a_survey_that_is_announced_during_the_delay_of_another_replaces_it(start_lab):
    lab = start_lab(air())
    since = lab.mark()
    lab.send({**GENERIC, "rrm-scan-delay": 30})
    lab.send(GENERIC)
    lab.wait("rrm-response", since, timeout=60)
    lab.settle(quiet=QUIET, limit=QUIET)
    assert len(lab.events(since, what="rrm-response")) == 1


def test_commands_that_arrive_during_a_survey_are_carried_out_after_it_in_their_order(start_lab):
    lab = start_lab(air())
    since = start_scan(lab)
    for power in (9, 10, 11, 12):
        lab.send({"cmd": "rrm-info", **CONFIG, "radios": [{"id": 0, "power": power}]})
    lab.wait("update-orvanta", since, data={"params": {"tx-power": "12"}}, timeout=60)
    told = [event["data"]["params"]["tx-power"]
            for event in lab.events(since, what="update-orvanta")]
    assert told == ["9", "10", "11", "12"]


# What the kernel may answer


@pytest.mark.parametrize("count", [1_000_000, 4681, 0xFFFFFFFF])
def test_a_count_far_beyond_the_buffer_is_cut_with_one_line_a_record(start_lab, count):
    lab = start_lab(air())
    lab.ap("fault-add", rule={"call": "vendor", "name": RESULTS, "ifname": "wlan0",
                              "count": count, "times": 1})
    before = len(lab.log_lines())
    survey = ask(lab, GENERIC, "rrm-response")
    assert len(survey["rf-environment"]) == 5
    assert len(survey["rf-environment"][0]) <= 4680 + 2
    told = [line for line in lab.log_lines()[before:] if " error: " in line]
    assert len(told) == 1, told


@pytest.mark.parametrize("error", ["EIO", "EINVAL", "ENOMEM", "EBUSY", "ENODEV", "EFAULT",
                                   "EINTR", "EAGAIN"])
def test_an_errno_of_the_result_costs_that_pass_only(start_lab, error):
    lab = start_lab(air())
    lab.ap("fault-add", rule={"call": "vendor", "name": RESULTS, "errno": error, "times": 1})
    survey = ask(lab, GENERIC, "rrm-response")
    assert len(survey["rf-environment"]) in (4, 5)
    assert all(survey["rf-environment"])


def test_a_radio_that_refuses_to_be_surveyed_does_not_keep_the_other_from_it(start_lab):
    lab = start_lab(air())
    lab.ap("fault-add", rule={"call": "vendor", "ifname": "wlan0",
                              "name": "VEXOR_CMD_CUSTOM_SCAN", "errno": "EBUSY"})
    survey = ask(lab, GENERIC, "rrm-response")
    assert {entry["channel"] for table in survey["rf-environment"] for entry in table} == {36}


@pytest.mark.parametrize("fault", [{"call": "scan-trigger", "errno": "EBUSY"},
                                   {"call": "mib-set", "name": "rrm_scan_chan", "errno": "EIO"},
                                   {"call": "vendor", "name": "VEXOR_CMD_RRM_SCAN_RESULTS",
                                    "count": -1},
                                   {"call": "vendor", "name": "VEXOR_CMD_RRM_SCAN_RESULTS",
                                    "errno": "EIO"}])
def test_a_vendor_survey_that_the_driver_fails_is_answered_all_the_same(start_lab, fault):
    lab = start_lab(air())
    lab.ap("fault-add", rule=fault)
    assert isinstance(ask(lab, VENDOR, "rrm-response")["rf-environment"], list)
    lab.ap("fault-clear")
    assert ask(lab, VENDOR, "rrm-response")["rf-environment"]


@pytest.mark.parametrize("channels", [" ".join(["1"] * 20_000), "x y z", "   ", "1  36",
                                      "99999999999999999999 -1 65536 65537 36",
                                      " ".join(str(n) for n in range(1, 70_000))],
                         ids=["twenty thousand times 1", "letters", "blanks", "two blanks",
                              "beyond 16 bits", "seventy thousand"])
def test_a_strange_channel_list_is_surveyed_as_far_as_it_goes(start_lab, channels):
    lab = start_lab(air())
    since = start_scan(lab, {**GENERIC, "rrm-scan-channels": channels}, "lock-scan", broken=True)
    assert len(radios(lab)) == 2
    assert lab.events(since, what="disconnected") == []
