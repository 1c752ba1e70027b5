"""A lumd that was built for a 32-bit big-endian machine, run under an emulator: every number that
crosses to the kernel or the bus has that byte order, every pointer and size_t that width.

scripts/mips names the build and the emulator; without an emulator there is nothing to look at.
"""
import os

import pytest

from lumdtest.lab import CONFIG, ask, radios, scenario

pytestmark = pytest.mark.skipif(
    not os.environ.get("LUMD_EMULATOR"),
    reason="needs a build for another machine (scripts/mips)")

MAC = "00:11:22:33:44:50"
HEADER = {"version": "2.4", "service": "rrm", "ap-mac": MAC, "domain": "lab"}
FACTORY = {"board": "lab-ap", "hw": "1.0", "serial": "LAB0000001", "mac": MAC}
CLIENTS = {"02:00:00:00:01:01": -50, "02:00:00:00:01:fe": -91}
NEIGHBOURS = [
    {"bssid": "0a:0b:0c:0d:0e:01", "channel": 1, "signal": -70},
    {"bssid": "0a:0b:0c:0d:0e:02", "channel": 13, "bandwidth": 40, "signal": -95, "tx-power": 7},
    {"bssid": "0a:0b:0c:0d:0e:03", "channel": 36, "bandwidth": 80, "signal": -33},
    {"bssid": "fe:0b:0c:0d:0e:04", "channel": 165, "signal": -80, "tx-power": 23},
]
HEARD = [  # BSSID, signal, channel, primary channel, bandwidth
    ("0a:0b:0c:0d:0e:01", -70, 1, "none", 20), ("0a:0b:0c:0d:0e:02", -95, 13, "lower", 40),
    ("0a:0b:0c:0d:0e:03", -33, 36, "ll", 80), ("fe:0b:0c:0d:0e:04", -80, 165, "none", 20),
]
PASSES = 5
MANY_CLIENTS = 300


def air():
    """No jitter and no time on a channel: each pass hears all neighbours alike."""
    given = scenario(scan={"dwell": 0.01, "jitter": 0}, neighbours=NEIGHBOURS)
    given["radios"][0]["vaps"][0]["stations"] = [
        {"mac": mac, "rssi": rssi} for mac, rssi in CLIENTS.items()]
    return given


def heard(tx_power):
    return [{"bssid": bssid, "rssi": signal, "channel": channel, "tx-power": tx_power(bssid),
             "primary-channel": primary, "bandwidth": bandwidth}
            for bssid, signal, channel, primary, bandwidth in HEARD]


@pytest.fixture(name="lab")
def subscribed(start_lab):
    return start_lab(air())


@pytest.mark.parametrize("program", ["lumd", "msgbusd"])
def test_the_programs_are_32_bit_big_endian_ones(programs, program):
    with open(programs.binary(program), "rb") as file:
        identification = file.read(6)
    assert identification == b"\x7fELF\x01\x02"  # elf(5): ELFCLASS32, ELFDATA2MSB


def test_the_subscription(lab):
    request, = lab.events(what="subscribe-request")
    request = request["data"]
    assert {key: request[key] for key in HEADER} == HEADER
    assert (request["ap-mac-count"], request["factory"]) == (16, FACTORY)
    first, second = request["radios"]
    assert (first["channel"], first["band"], first["bandwidth"]) == (6, 2, 20)
    assert (second["channel"], second["band"], second["bandwidth"]) == (36, 5, 80)
    for radio in (first, second):
        assert [radio[key] for key in ("status", "power", "power-min", "power-max", "eirp",
                                       "eirp-min", "eirp-max")] == [1, 16, 8, 20, 16, 0, 30]
    assert first["available-channels"] == " ".join(map(str, range(1, 14))) + " "
    assert second["available-channels"].endswith(" 140 149 153 157 161 165 ")
    assert [vap["mac"] for radio in (first, second) for vap in radio["vaps"]] == [
        "00:11:22:33:44:51", "00:11:22:33:44:59"]
    assert {client["mac"]: client["rssi"] for client in first["assoclist"]} == CLIENTS


def test_the_generic_survey_hears_every_neighbour_in_every_pass(lab):
    survey = ask(lab, {"cmd": "rrm-update", "rrm-scan-channels": "1 13 36 165"}, "rrm-response")
    assert survey["rf-environment"] == [heard(lambda bssid: 0)] * PASSES


def test_the_vendor_survey_reads_the_driver_s_other_record(lab):
    powers = {entry["bssid"]: entry.get("tx-power", 20) for entry in NEIGHBOURS}
    survey = ask(lab, {"cmd": "rrm-update", "vexor-rrm-scanning": 1, "rrm-scan-channels": "1 36"},
                 "rrm-response")
    assert survey["rf-environment"] == [
        [entry for entry in heard(powers.get) if entry["channel"] in (1, 36)]]


def test_neighbours_reach_the_driver_and_hostapd_byte_for_byte(lab):
    neighbours = [{"neighbour-mac": mac, "channel": channel, "priority": 3,
                   "vaps": [{"ssid": "lab", "mac": mac}]}
                  for mac, channel in (("00:11:22:33:50:51", 11), ("00:11:22:33:50:52", 52))]
    lab.send({"cmd": "rrm-info", **CONFIG, "802dot11k": neighbours})
    radios(lab)
    reports = {(report["ifname"], report["list"]): report["lines"] for report in lab.ap("reports")}
    assert reports[("wlan0-va0", "standard")] == [
        'add 001122335051 0x0867 255 11 7 ssid "lab" bssload 0 0']
    assert reports[("wlan1-va0", "standard")] == ["add 00:11:22:33:50:52 1728577536 0 52 0 3"]
    assert lab.ap("hostapd-neighbours")["wlan1-va0"] == {"00:11:22:33:50:52": {
        "ssid": "lab", "nr": "001122335052af590000ff34090603023400"}}


def test_a_commanded_channel_and_power_are_what_the_next_report_shows(lab):
    lab.send({"cmd": "rrm-info", **CONFIG, "radios": [
        {"id": 0, "channel": 11, "bandwidth": 20, "power": 9}]})
    lab.wait("update-orvanta")
    first, _ = radios(lab)
    assert (first["channel"], first["power"]) == (11, 9)


def test_a_long_station_list_and_the_large_message_that_tells_it(start_lab):
    given = air()
    clients = {f"02:00:00:02:{number // 256:02x}:{number % 256:02x}": -20 - number % 70
               for number in range(MANY_CLIENTS)}
    given["radios"][1]["vaps"][0]["stations"] = [
        {"mac": mac, "rssi": rssi} for mac, rssi in clients.items()]
    request, = start_lab(given).events(what="subscribe-request")
    _, second = request["data"]["radios"]
    assert {client["mac"]: client["rssi"] for client in second["assoclist"]} == clients


def test_sigterm_ends_it_with_status_0(lab):
    assert lab.stop_lumd() == 0
