"""The virtual access point, without a bus: its files, daemons, tools and clients."""
from asyncio import run

import pytest

from labap import records
from labap import scenario as scenarios


def test_hostapd_leaves_its_specific_notify_file_before_the_general_one(ap):
    order = []
    write = ap.files.write
    ap.files.write = lambda name, content="": (order.append(name), write(name, content))
    ap.files.start_hostapd()
    assert order[-2:] == ["/tmp/.orvanta_notify_hostapd_started", "/tmp/.orvanta_notify"]
    assert ap.files.path("/var/run/hostapd.pid").exists()


def test_vap_interfaces_are_up_only_while_hostapd_runs(ap):
    flags = ap.files.path("/sys/class/net/wlan0-va0/flags")
    ap.files.start_hostapd()
    assert flags.read_text() == "0x1003\n"
    ap.files.stop_hostapd()
    assert flags.read_text() == "0x1002\n"


def test_a_commanded_channel_is_what_the_driver_then_reports(ap):
    answer = ap.daemons["hubd"].handle({"command": "update-orvanta", "ifname": "wlan0",
                                        "params": {"auto-channel": "false", "channel": "11",
                                                   "bandwidth": "40",
                                                   "control-sideband": "upper"}})
    assert answer == {"command": "update-orvanta-response", "status": "ok"}
    assert ap.air.radios[0].mib("wlan0", "chanspec") == records.encode_chanspec(11, 40, "upper")
    assert scenarios.find(ap.tree, "/interface/wlan0/wlan/radio/channel") == "11"
    assert ap.files.exists("/tmp/.orvanta_notify_config_updated")


def test_hubd_refuses_a_channel_that_the_radio_does_not_have(ap):
    answer = ap.daemons["hubd"].handle({"command": "update-orvanta", "ifname": "wlan0",
                                        "params": {"channel": "36"}})
    assert answer["status"] == "error"
    assert "36" in answer["reason"]


def test_a_reset_gives_the_scenario_s_channel_back(ap):
    hubd = ap.daemons["hubd"]
    hubd.handle({"command": "update-orvanta", "ifname": "wlan0", "params": {"channel": "11"}})
    hubd.handle({"command": "reset-orvanta", "ifname": "wlan0"})
    assert ap.air.radios[0].channel == 6


def test_neighbour_lines_are_kept_until_delall(ap):
    ap.kernel.written("/proc/wlan0-va0/rm_neighbor_report", "add aa 1\n")
    ap.kernel.written("/proc/wlan0-va0/rm_neighbor_report_custom", "add bb 2\n")
    ap.kernel.written("/proc/net/rtk_wifi6/wlan1-va0/nb_report", "add cc 3")
    ap.kernel.written("/proc/wlan0-va0/rm_neighbor_report", "delall")
    assert ap.reports() == [
        {"ifname": "wlan0-va0", "list": "standard", "lines": []},
        {"ifname": "wlan0-va0", "list": "custom", "lines": ["add bb 2"]},
        {"ifname": "wlan1-va0", "list": "standard", "lines": ["add cc 3"]}]


def test_iwpriv_prints_a_mib_in_the_tool_s_form(ap):
    assert run(ap.kernel.iwpriv(["wlan1", "get_mib", "chanspec"])) == \
        (0, f"wlan1  get_mib:{0xE02A}\n")
    assert run(ap.kernel.iwpriv(["wlan1-va0", "set_mib", "roam_attempt_timeout=30"])) == (0, "")
    assert ap.air.radios[1].mib("wlan1-va0", "roam_attempt_timeout") == 30


def test_hostapd_keeps_a_neighbour_table_per_interface(ap):
    ap.files.start_hostapd()
    call = ["-g", "/var/run/hostapd/global", "raw", "IFNAME=wlan1-va0"]
    assert run(ap.hostapd.wpa_cli([*call, "SET_NEIGHBOR", "00:00:00:00:00:01", "ssid=6c6162",
                                   "nr=00ff"])) == (0, "OK\n")
    assert run(ap.hostapd.wpa_cli([*call, "SHOW_NEIGHBOR"]))[1] == \
        "00:00:00:00:00:01 ssid=6c6162 nr=00ff\n"
    run(ap.hostapd.wpa_cli([*call, "REMOVE_ALL_NEIGHBOR"]))
    assert ap.hostapd.tables == {"wlan1-va0": {}}


def test_a_client_that_accepts_a_transition_is_gone_from_the_next_list(ap):
    async def steer():
        vap, station = ap.air.locate("02:00:00:00:01:01")
        await ap.clients.decide(vap, station)
        return ap.air.stations(vap)

    assert run(steer()) == []


def test_a_client_that_refuses_a_transition_stays_and_is_marked(ap):
    async def steer():
        ap.clients.change("02:00:00:00:01:01", {"roam": "refuse"})
        vap, station = ap.air.locate("02:00:00:00:01:01")
        await ap.clients.decide(vap, station)
        return ap.air.stations(vap)

    assert [station.roam_attempt for station in run(steer())] == [True]


def test_no_file_command_leaves_the_lab(ap):
    with pytest.raises(ValueError, match="outside"):
        ap.files.write("/../../elsewhere", "x")
