"""The lock checker in a whole system: it must find nothing."""
import pytest

from lumdtest.lab import CONFIG, ask, radios

FINDINGS = ("Unbalanced unlock", "Deadlock on lock")
NEIGHBOUR = {"neighbour-mac": "00:11:22:33:50:51", "channel": 11, "priority": 3,
             "vaps": [{"ssid": "office", "mac": "00:11:22:33:50:51"}]}


def findings(lab):
    return [line for line in lab.log_lines() if any(text in line for text in FINDINGS)]


@pytest.mark.threads
def test_no_false_alarm_from_subscription_to_a_lost_link(start_lab):
    lab = start_lab("office", environment={"VEXOR_LOCKDEP_DEBUG": "1"})
    lab.send({"cmd": "rrm-info", **CONFIG, "802dot11k": [NEIGHBOUR],
              "radios": [{"id": 0, "channel": 11, "power": 10}]})
    assert ask(lab, {"cmd": "rrm-update", "rrm-scan-channels": "1 6 36"},
               "rrm-response")["rf-environment"]
    ask(lab, {"cmd": "rrm-sta-overload", "ap-mac": "00:11:22:33:44:50",
              "radios": [{"id": 0, "roam-count": 2}], "802dot11k": [NEIGHBOUR]}, "rrm-sta-roam")
    since = lab.mark()
    lab.service("drop", hard=True)
    lab.wait("subscribe-response", since)
    assert len(radios(lab)) == 2
    # More than the 120 s of protocol time after which a lock that is held counts as stuck.
    lab.settle(quiet=130 / 20, limit=130 / 20)
    assert lab.stop_lumd() == 0
    assert findings(lab) == []


@pytest.mark.threads
def test_no_false_alarm_while_the_network_manager_is_silent(start_lab):
    lab = start_lab(environment={"VEXOR_LOCKDEP_DEBUG": "1"})
    lab.ap("daemon", name="hubd", answer="silent")
    for power in range(10, 17):  # seven waits of 20 s in a row
        lab.send({"cmd": "rrm-info", **CONFIG, "radios": [{"id": 0, "power": power}]})
    assert len(ask(lab, {"cmd": "rrm-request-mode"}, "rrm-mode-response")["radios"]) == 2
    assert lab.stop_lumd() == 0
    assert findings(lab) == []
