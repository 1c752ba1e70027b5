"""Two access points and four clients: what the service asks is so in the kernel, at the clients and
in the frames."""
import pytest
from labair import frames
from labair.accesspoint import DAEMONS
from labair.air import FAR
from labair.steps import BAND_5, BAND_24, channel_of
from labair.tour import CHANNELS, POWERS

RADIOS = (BAND_24, BAND_5)


def test_a_subscription_tells_of_the_radios_as_the_kernel_has_them(seen):
    for point, told in zip(seen.tour.air.points, seen("subscription")):
        kernel = seen.run(point.kernel())
        for number, radio in enumerate(told["radios"]):
            here = kernel[f"wlan{number}-va0"]
            assert (radio["channel"], radio["bandwidth"]) == \
                (channel_of(here["frequency"]), here["width"])
            assert radio["power"] == here["power"] == point.channels[number].power
            assert [vap["mac"] for vap in radio["vaps"]] == [here["address"]]


def test_clients_of_both_bands_join_and_are_reported(seen):
    states = seen("association")
    tour = seen.tour
    assert {client.band for client in tour.air.clients} == {2, 5}
    for client in tour.air.clients:
        assert states[client.name]["key_mgmt"] == "FT-PSK"
        point, radio = seen.run(tour.whereabouts(states[client.name]["bssid"]))
        assert (point, radio) == (tour.first, BAND_5 if client.band == 5 else BAND_24)
        assert client.address in seen.run(point.stations(radio))
        assert point.known.clients[client.address]["radio"] == radio


def test_a_survey_finds_the_other_access_point_where_the_kernel_has_it(seen):
    seen("survey")
    heard = {entry["bssid"]: entry for entry in seen.tour.first.known.neighbours()}
    for radio in RADIOS:
        here = seen.run(seen.tour.second.kernel())[f"wlan{radio}-va0"]
        entry = heard[here["address"]]
        assert entry["channel"] == channel_of(here["frequency"])
        assert entry["rssi"] == here["power"] - FAR


@pytest.mark.parametrize("radio", RADIOS)
def test_clients_follow_a_channel_that_is_changed(seen, radio):
    here, lost = seen("channels")[radio]
    channel, width = CHANNELS[radio]
    assert (channel_of(here["frequency"]), here["width"]) == (channel, width)
    for client in seen.tour.clients_of(radio):
        status = seen.run(client.status())
        assert (status["wpa_state"], channel_of(int(status["freq"]))) == ("COMPLETED", channel)
    assert not lost


def test_the_kernel_sends_with_the_power_that_is_set(seen):
    assert seen("power") == POWERS


@pytest.mark.parametrize("radio", RADIOS)
def test_a_client_is_told_the_neighbours_as_the_standard_has_them(seen, radio):
    listed, told = seen("neighbours")[radio]
    here = seen.run(seen.tour.second.kernel())[f"wlan{radio}-va0"]
    entry = next(entry for entry in told if entry.bssid == here["address"])
    channel = channel_of(here["frequency"])
    # Annex E: 81 is channels 1 to 13, 115 is channels 36 to 48, both 20 MHz wide.
    assert (entry.operating_class, entry.channel) == ({BAND_24: 81, BAND_5: 115}[radio], channel)
    content = bytes.fromhex(here["address"].replace(":", "")) + \
        entry.information.to_bytes(4, "little") + \
        bytes((entry.operating_class, entry.channel, entry.phy_type))
    assert entry.raw[2:2 + len(content)] == content
    own = seen.run(seen.tour.first.bssid(radio))
    assert {neighbour.bssid for neighbour in told} == {own, here["address"]}
    for neighbour in told:
        assert f"{neighbour.bssid} " in listed
        assert f"nr={neighbour.raw[2:].hex()}" in listed


def test_a_client_is_asked_to_leave_in_the_words_of_the_standard(seen):
    moved = seen("steering")
    client = seen.tour.clients_of(BAND_24)[0]
    target = seen.run(seen.tour.second.kernel())["wlan0-va0"]
    assert moved.request.receiver == client.address
    request = frames.transition_request(moved.request)
    assert request.mode & frames.MODE_CANDIDATES
    (candidate,) = request.candidates
    assert (candidate.bssid, candidate.operating_class, candidate.channel) == \
        (target["address"], 81, channel_of(target["frequency"]))
    response = frames.transition_response(moved.response)
    assert (response.token, response.status, response.target) == \
        (request.token, 0, target["address"])


def test_the_client_goes_there_by_fast_transition(seen):
    moved = seen("steering")
    client = seen.tour.clients_of(BAND_24)[0]
    target = seen.run(seen.tour.second.bssid(BAND_24))
    assert moved.status["bssid"] == target
    kinds = [(frame.transmitter == client.address, frame.subtype) for frame in moved.transition]
    assert (True, frames.REASSOCIATION_REQUEST) in kinds
    asked = [frame for frame in moved.transition if frame.subtype == frames.AUTHENTICATION]
    assert {frame.transmitter for frame in asked} == {client.address, target}
    assert all(frame.is_ft_authentication for frame in asked)
    assert client.address in seen.run(seen.tour.second.stations(BAND_24))


def test_both_access_points_report_the_move(seen):
    moved = seen("steering")
    client = seen.tour.clients_of(BAND_24)[0]
    assert (moved.left["sta-mac"], moved.arrived["sta-mac"]) == (client.address, client.address)
    assert moved.left["target-mac"] == seen.run(seen.tour.second.bssid(BAND_24))
    assert client.address not in seen.tour.first.known.clients
    assert client.address in seen.tour.second.known.clients


def test_after_a_restart_of_hostapd_the_commands_of_the_service_hold(seen):
    kernel = seen("hostapd_restart")
    assert seen.tour.is_on(kernel, CHANNELS)
    for client in seen.tour.air.clients:
        assert seen.run(seen.tour.seated(client))["wpa_state"] == "COMPLETED"


def test_what_the_service_has_set_is_taken_back_when_hostapd_stays_away(seen):
    kernel = seen("reset")
    for radio, channel in enumerate(seen.tour.first.channels):
        here = kernel[f"wlan{radio}-va0"]
        assert (channel_of(here["frequency"]), here["width"], here["power"]) == \
            (channel.number, channel.bandwidth, channel.power)


def test_every_daemon_lives_to_the_end(seen):
    facts = seen("memory")
    assert len(facts) == 2 * len(DAEMONS)
    assert all(facts.values())


def test_all_that_was_said_is_as_the_schemas_want_it(seen):
    seen("reset")
    for point in seen.tour.air.points:
        assert not point.checker.found
