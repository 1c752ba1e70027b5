"""Very large commands: handled up to the stated limits, memory back afterwards."""
import re

import pytest

from lumdtest.lab import CONFIG, ask, radios

SMALL_QUARANTINE = {"ASAN_OPTIONS": "verify_asan_link_order=0:quarantine_size_mb=1:"
                                    "allocator_release_to_os_interval_ms=0"}
GROWTH_KB = 64 * 1024  # what an allocator may keep of many MiB
VAPS, REMOTES = 40, 1100
VAPS_READ, REMOTES_READ = 32, 1025
RADIOS, NEIGHBOURS = 10_000, 5_000


def memory_kb(lab, name="VmRSS"):
    with open(f"/proc/{lab.lab.lumd.pid}/status", encoding="ascii") as status:
        return int(re.search(rf"{name}:\s+(\d+)", status.read()).group(1))


@pytest.fixture(name="lab")
def subscribed(start_lab, record_property):
    lab = start_lab(speed=1, environment=SMALL_QUARANTINE)
    radios(lab)
    before = memory_kb(lab)
    yield lab
    assert len(radios(lab)) == 2
    after, peak = memory_kb(lab), memory_kb(lab, "VmHWM")
    print(f"resident before {before}, peak {peak}, after {after} KiB")
    assert after - before < GROWTH_KB


def key_holders(vap):
    remotes = [{"remote-r1-kh-id": f"{n:012x}", "remote-r0-kh-id": f"r0-{n}",
                "remote-r1-kh-key": f"{n:064x}"} for n in range(REMOTES)]
    return {"vap_id": 0, "radio_id": vap % 2, "mobility-domain": vap, "r0-key-holder-id": "r0",
            "r1-key-holder-id": "r1", "fbt-rrb-key": f"{vap:064x}", "remotes": remotes}


def test_fast_transition_for_forty_vaps_is_read_as_far_as_the_limits(lab):
    lab.send({"cmd": "rrm-info", **CONFIG, "use-80211r": 1})
    since = lab.mark()
    lab.send({"cmd": "fbt-info", "fbt-reassoc-deadline": 500, "fbt-over-ds": 1,
              "vaps": [key_holders(n) for n in range(VAPS)]}, broken=True)
    update = lab.wait("update-orvanta-fbt", since, timeout=60)["data"]
    assert set(update) == {"command", "wlan0-va0", "wlan1-va0"}
    for number, name in enumerate(("wlan0-va0", "wlan1-va0")):
        settings = update[name]["ft-config"]
        assert settings["mobility-domain"] == VAPS_READ - 2 + number  # the last one that is read
        assert len(settings["mac"]) == REMOTES_READ
        assert settings["mac"][f"{REMOTES_READ - 1:012x}"]["index"] == str(REMOTES_READ - 1)


def test_ten_thousand_radio_elements_cost_nothing_but_their_radios(lab):
    elements = [{"id": n, "power": 10} for n in range(RADIOS)]
    since = lab.mark()
    lab.send({"cmd": "rrm-info", **CONFIG, "radios": elements}, broken=True)
    assert [radio["power"] for radio in radios(lab)] == [10, 10]
    assert len(lab.events(since, what="update-orvanta")) == 2


def test_five_thousand_neighbours_all_reach_the_driver(lab):
    records = [{"neighbour-mac": "x", "channel": 1, "priority": 0,
                "vaps": [{"ssid": "lab", "mac": f"02:00:00:00:{n >> 8:02x}:{n & 255:02x}"}]}
               for n in range(NEIGHBOURS)]
    ask(lab, {"cmd": "rrm-info", **CONFIG, "802dot11k": records}, "neighbours-standard")
    assert len(radios(lab)) == 2
    lines = next(entry["lines"] for entry in lab.ap("reports")
                 if entry["ifname"] == "wlan0-va0" and entry["list"] == "standard")
    assert len(lines) == NEIGHBOURS
