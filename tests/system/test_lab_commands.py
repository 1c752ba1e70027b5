"""The commands of the prompt in RRM mode: what they refuse before anybody is asked."""
import asyncio
import types

import pytest

from labap.air import Air
from labservice.server import Service
from labshow.console import Refused
from labshow.rrm_console import REQUEST_SECONDS, RrmConsole
from labshow.survey import Survey
from labtalk import contract
from lumdtest.labparts import FakeClock, minimal


class NobodyIsAsked(Exception):
    """The command was found to be in order."""


class Idle:
    """A lab of which only the access point is there; whoever wants to go on is stopped."""

    def __init__(self, ap, linked=True):
        self.ap, self.scenario, self.service = ap, ap.scenario, Service()
        self.service.links += [object()] * linked

    def mark(self):
        raise NobodyIsAsked


@pytest.fixture(name="console")
def console_of_a_running_access_point(ap):
    ap.files.start_hostapd()
    return RrmConsole(Idle(ap), types.SimpleNamespace(text=print, heading=print))


def call(console, line):
    name, *words = line.split()
    asyncio.run(console.commands()[name](*words))


@pytest.mark.parametrize("line, reason", [
    ("channel wlan0 1 33", "2.4GHz is 20, 40 MHz, not 33"),
    ("channel wlan0 1 80", "not 80"), ("channel wlan1 36 60", "20, 40, 80 MHz, not 60"),
    ("channel wlan0 36", "wlan0 has no channel 36, but 1 2 3"),
    ("channel wlan0 one", "'one' is not a number"),
    ("channel wlan0 1 40 left", "upper or lower"), ("channel wlan7 1", "no radio wlan7"),
    ("power wlan0 99", "8 to 20 dBm, not 99"), ("power wlan0 7", "not 7"),
    ("client add wlan0-va0 zz", "'zz' is no MAC address"),
    ("client add wlan0-va0 02:00:00:00:00:09 5", "-100 to 0 dBm, not 5"),
    ("client move 02-00-00-00-01-01 wlan1-va0", "no MAC address"),
    ("client remove 02:00:00:00:01", "no MAC address"),
    ("client remove 02:00:00:00:01:011", "no MAC address"), ("client go", "client add"),
    ("steer wlan0 0", "1 or more"), ("steer wlan0 -1", "1 or more"),
    ("steer wlan1 1", "wlan1 has no client"),
    ("hostapd start", "running already"), ("hostapd pause", "stop or hostapd start"),
    ("scan 200", "no radio here hears channel 200"), ("scan 36 x", "'x' is not a number"),
    ("scan --delay", "'' is not a number"), ("scan --delay -1", "0 to 3600 s, not -1"),
    ("ft maybe", "ft on or ft off"),
])
def test_what_cannot_succeed_is_refused_with_its_reason(console, line, reason):
    with pytest.raises(Refused) as refusal:
        call(console, line)
    assert reason in str(refusal.value)


@pytest.mark.parametrize("line", [
    "channel wlan0 1 20", "channel wlan1 36 80", "power wlan0 8", "power wlan0 20",
    "steer wlan0 1", "steer 0", "hostapd stop", "scan", "scan 36 40", "scan 14 --vendor",
    "scan --delay 3 1", "neighbours", "ft on", "drop-link"])
def test_what_can_succeed_is_begun(console, line):
    console.configure = console.ask = refuse_to_go_on
    console.lab.service.send = refuse_to_go_on
    with pytest.raises(NobodyIsAsked):
        call(console, line)


async def refuse_to_go_on(*_, **__):
    raise NobodyIsAsked


@pytest.mark.parametrize("line", [
    "channel wlan0 1", "power wlan0 10", "steer wlan0 1", "scan", "neighbours", "ft on",
    "client add wlan0-va0 02:00:00:00:00:09"])
def test_without_hostapd_what_needs_it_is_refused(console, line):
    console.lab.ap.files.stop_hostapd()
    with pytest.raises(Refused, match="hostapd is not running"):
        call(console, line)


def test_hostapd_cannot_stop_twice(console):
    console.lab.ap.files.stop_hostapd()
    with pytest.raises(Refused, match="stopped already"):
        call(console, "hostapd stop")


def test_without_a_link_there_is_none_to_drop(ap):
    with pytest.raises(Refused, match="no link"):
        call(RrmConsole(Idle(ap, linked=False), None), "drop-link")


@pytest.mark.parametrize("mark", ["no_balance", "roam_attempt"])
def test_clients_that_cannot_be_asked_are_not_steered(console, mark):
    station, = console.lab.ap.air.radios[0].vaps[0].stations.values()
    setattr(station, mark, True)
    with pytest.raises(Refused, match="no client of wlan0 can be asked"):
        call(console, "steer wlan0")


# How long a command takes


def test_a_configuration_is_waited_for_as_long_as_the_schemas_say():
    lasts = contract.messages("rrm-to-lumd")["rrm-info"]["x-lasts"]
    assert f"one request a radio for power, one for the channel, each at most {REQUEST_SECONDS} s" \
        in lasts
    console = RrmConsole(types.SimpleNamespace(scenario=minimal(), ap=types.SimpleNamespace(
        air=Air(minimal(), FakeClock()))), None)
    assert console.configuration_seconds == 3 * REQUEST_SECONDS


def radios(**second):
    given = minimal()
    given["radios"][1].update(second)
    return Air(given, FakeClock()).radios


@pytest.mark.parametrize("line, seconds", [
    ("1 36", 5 * 1), ("1 6 11 36", 5 * 3), ("1 1 1 36", 5 * 1), ("36 40", 5 * 10),
    ("1", 5 * 15), ("1 36 --delay 4", 4 + 5), ("1 36 --vendor", 6),
    ("1 36 --vendor --delay 4", 6 + 2 * 4)])
def test_a_survey_takes_as_long_as_its_slowest_radio(line, seconds):
    assert Survey.parse(line.split(), radios()).seconds(radios()) == seconds


def test_a_radio_goes_through_the_band_that_it_is_on():
    assert Survey.parse(["1"], radios()).seconds(radios(channel=11)) == 5 * 10


ON_1, ON_36 = "0a:00:00:00:00:01", "0a:00:00:00:00:02"


@pytest.mark.parametrize("line, heard", [
    ("1", [ON_1]), ("36 40", [ON_36]), ("1 36", [ON_1, ON_36]), ("6 40", []),
    ("11 1 40 36 --vendor", [ON_1, ON_36]), ("36 40 --vendor", [ON_36]), ("1 40 --vendor", [ON_1]),
    ("1 6 36 --vendor", [ON_1, ON_36]), ("36 1 13 --vendor", [ON_1, ON_36])])
def test_what_a_survey_must_hear_is_what_is_on_the_channels_it_lists(line, heard):
    air = Air(minimal(), FakeClock())
    assert Survey.parse(line.split(), air.radios).heard_for_certain(air) == heard


def test_a_radio_that_is_down_hears_nothing_for_certain():
    air = Air(minimal(), FakeClock())
    air.radios[1].up = False
    assert Survey.parse(["36"], air.radios).heard_for_certain(air) == []
