"""What is typed at the prompt: what the next word may be, and how faults are put in."""
import asyncio

import pytest

from labap.scenario import ScenarioError
from labshow import misbehaviour, rrm_choices


@pytest.mark.parametrize("line, choice", [
    ("channel", "wlan1"), ("channel wlan1", "36"), ("channel wlan1 36", "80"),
    ("channel wlan1 36 40", "upper"), ("power", "wlan0"), ("hostapd", "stop"), ("ft", "off"),
    ("client", "add"), ("client add", "wlan0-va0"), ("client remove", "02:00:00:00:01:01"),
    ("client move 02:00:00:00:01:01", "wlan1-va0"), ("scan 1", "--vendor")])
def test_the_next_word_is_known(ap, line, choice):
    assert choice in rrm_choices.choices(line.split(), ap.air)


@pytest.mark.parametrize("line", [
    "channel wlan0 1 20 upper", "channel wlan9", "client jump", "client remove x", "scan --delay",
    "nothing", "status"])
def test_where_nothing_is_known_nothing_is_offered(ap, line):
    assert rrm_choices.choices(line.split(), ap.air) == []


def fault(ap, line):
    asyncio.run(misbehaviour.apply(ap, line.split()))
    return [misbehaviour.line(entry) for entry in misbehaviour.present(ap)]


def test_a_fault_is_added_listed_and_cleared(ap):
    ap.daemons.clear()  # they are on no bus here, which counts as a fault of each
    assert fault(ap, "mib-get name=channel value=7 times=2") == [
        "call=mib-get  name=channel  value=7  times=2"]
    assert ap.faults.rules[0]["value"] == 7
    assert fault(ap, "vendor errno=EIO delay=0.5")[1] == "call=vendor  errno=EIO  delay=0.5"
    assert fault(ap, "clear") == []


def test_a_daemon_is_told_to_misbehave_and_those_that_are_away_are_listed(ap):
    listed = fault(ap, "daemon hubd answer=silent times=3")
    assert listed == [f"daemon={name}  state=stopped" for name in ap.daemons]
    assert ap.daemons["hubd"].behaviour.answer == "silent"


@pytest.mark.parametrize("line, reason", [
    ("nonsense", "'nonsense' is none of vendor, mib-get"), ("vendor errno=EWHAT", "EWHAT"),
    ("vendor colour=red", "'colour=red' is no MEMBER=VALUE"), ("vendor EIO", "'EIO' is no MEMBER"),
    ("vendor times=often", "times=often: not a number"), ("clear all", "fault clear takes no more"),
    ("daemon", "the name being one of vaultd"), ("daemon nobody stop", "one of vaultd"),
    ("daemon hubd", "the name being one of"), ("daemon hubd pause", "'pause' is no MEMBER=VALUE"),
    ("daemon hubd answer=maybe", "'maybe' is none of")])
def test_a_fault_that_is_none_is_refused_with_its_reason(ap, line, reason):
    with pytest.raises((ValueError, ScenarioError)) as refusal:
        fault(ap, line)
    assert reason in str(refusal.value)
