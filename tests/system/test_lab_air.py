"""The radio model: scans, clients, addresses, and the faults that are asked of it."""
from labap import air, faults, records
from labap import scenario as scenarios
from lumdtest.labparts import FakeClock, minimal


def test_a_scan_finds_the_neighbours_of_the_channels_it_has_listened_to():
    now = FakeClock()
    model = air.Air(minimal(), now)
    radio = model.radios[0]
    model.start_scan(radio, [11, 1])
    assert model.scan_result(radio, rrm=False) == []
    now.time += 0.5
    found = model.scan_result(radio, rrm=False)
    assert [entry.bssid for entry in found] == ["0a:00:00:00:00:01"]
    assert found[0].tx_power == 0


def test_a_stopped_scan_finds_nothing_more():
    now = FakeClock()
    model = air.Air(minimal(), now)
    radio = model.radios[0]
    model.start_scan(radio, [1])
    model.stop_scan(radio)
    now.time += 60
    assert model.scan_result(radio, rrm=False) == []


def test_an_rrm_scan_reports_quarter_decibels():
    now = FakeClock()
    model = air.Air(minimal(), now)
    radio = model.radios[1]
    radio.set_mib("wlan1", "rrm_scan_chan", 36)
    model.start_rrm_scan(radio, "wlan1")
    now.time += 1
    entry, = model.scan_result(radio, rrm=True)
    assert (entry.bssid, entry.tx_power) == ("0a:00:00:00:00:02", 80)
    assert records.decode_chanspec(entry.chanspec) == (36, 80)


def test_a_fading_client_gets_weaker_until_nothing_is_left():
    now = FakeClock()
    station = air.Station.make({"mac": "02:00:00:00:00:01", "rssi": -60, "fade": 2}, now.now())
    assert station.signal(now.now() + 5) == [-70, -73, -100, -100]
    assert station.signal(now.now() + 500) == [-100] * 4


def test_vap_addresses_count_up_from_the_factory_address_without_carry():
    factory = {"board": "b", "hw": "h", "serial": "s", "mac": "00:11:22:33:44:fa"}
    radios = [{"ifname": "wlan0", "vaps": [{"id": 5}]}, {"ifname": "wlan1", "vaps": [{"id": 0}]}]
    model = air.Air(scenarios.complete({"factory": factory, "radios": radios}), FakeClock())
    assert [radio.vaps[0].mac for radio in model.radios] == ["00:11:22:33:44:00",
                                                             "00:11:22:33:44:03"]


def test_a_fault_lasts_as_long_as_it_says():
    rules = faults.Faults([{"call": "vendor", "ifname": "wlan0", "errno": "EIO", "times": 1}])
    assert faults.errno_of(rules.take("vendor", "wlan1")) == 0
    assert faults.errno_of(rules.take("vendor", "wlan0")) < 0
    assert faults.errno_of(rules.take("vendor", "wlan0")) == 0
