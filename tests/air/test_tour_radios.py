"""A second network, overlapping access points and radar: what the kernel, the clients, the frames
and hostapd said of them during the tour."""
import pytest
from labair import frames
from labair.radiosteps import GUESTS, RADAR_CHANNEL, SIDES, VISITORS
from labair.station import frequency
from labair.steps import BAND_24


@pytest.mark.parametrize("change", (VISITORS, "802.11r"))
def test_a_change_of_the_second_network_puts_its_client_off_and_takes_it_back(seen, change):
    network = seen("guests")
    assert network.put_off[change].subtype == frames.DEAUTHENTICATION
    assert network.put_off[change].transmitter == network.address
    back = network.back[change]
    assert (back["bssid"], back["ssid"]) == (network.address, VISITORS)
    assert back["key_mgmt"] == ("FT-PSK" if change == "802.11r" else "WPA2-PSK")


def test_no_other_client_loses_its_connection_by_the_second_network(seen):
    assert not seen("guests").lost


@pytest.mark.parametrize("ssid", (GUESTS, VISITORS))
def test_the_service_is_told_of_both_networks(seen, ssid):
    network = seen("guests")
    first, second = network.told[ssid]
    assert (first["ssid"], second["ssid"]) == (seen.tour.air.plan.network.ssid, ssid)
    assert second["mac"] == network.address


@pytest.mark.parametrize("side, width", zip(SIDES, (40, 20)))
def test_40_mhz_at_2_4_ghz_are_used_only_where_nobody_else_is(seen, side, width):
    seen_there = seen("coexistence")[side]
    channel = seen.tour.second.channels[BAND_24].number
    assert "ht_capab=[HT40" in seen_there.asked
    assert (seen_there.kernel["frequency"], seen_there.kernel["width"]) == \
        (frequency(channel), width)
    assert (seen_there.told["channel"], seen_there.told["bandwidth"]) == (channel, width)


def test_hostapd_listens_for_a_minute_before_it_uses_a_radar_channel(seen):
    status = seen("radar_check").splitlines()
    assert "cac_time_seconds=60" in status
    assert f"freq={frequency(RADAR_CHANNEL)}" in status
    radar = seen("radar")
    assert radar.checked["frequency"] == frequency(RADAR_CHANNEL)
    assert radar.told_checked["channel"] == RADAR_CHANNEL


def test_a_radar_drives_hostapd_away_and_the_service_is_told_where(seen):
    radar = seen("radar")
    assert any(event.startswith(f"DFS-RADAR-DETECTED freq={frequency(RADAR_CHANNEL)} ")
               for event in radar.events)
    (new,) = [event for event in radar.events if event.startswith("DFS-NEW-CHANNEL")]
    assert f"freq={radar.left['frequency']} " in new
    assert radar.left["frequency"] != frequency(RADAR_CHANNEL)
    for told in (radar.told_left, radar.report):
        assert frequency(told["channel"]) == radar.left["frequency"]
