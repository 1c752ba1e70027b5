"""The lab's own parts: what crosses to lumd is laid out as the drivers and the bus lay it out."""
import asyncio
import json
import os
import pathlib
import struct
import subprocess
import sys
import textwrap
import time

import pytest

TREE = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(TREE / "lab"))

import websockets  # noqa: E402

from labap import air, clock, control, faults, harness, journal, msgbus, records  # noqa: E402
from labap import scenario as scenarios  # noqa: E402
from labap.accesspoint import AccessPoint  # noqa: E402
from labservice import checker, tables  # noqa: E402
from labservice.model import ApModel  # noqa: E402
from labservice.server import Service, ServiceError, until  # noqa: E402

ORDERS = pytest.mark.parametrize("order", ["<", ">"])


class FakeClock(clock.LabClock):
    """Time that passes when the test says so."""

    def __init__(self):
        super().__init__()
        self.time = 1000.0

    def now(self):
        return self.time

    async def sleep(self, seconds):
        self.time += seconds


def minimal(**more):
    given = json.loads((scenarios.FOLDER / "minimal.json").read_text(encoding="utf-8"))
    return scenarios.complete({**given, **more})


# Records of the vendor command channel


@ORDERS
def test_a_scan_entry_has_28_bytes_with_every_field_at_its_offset(order):
    entry = records.ApInfo("00:0a:0b:0c:0d:0e", -71, 40, 80, 92, 0xE12A)
    data = records.pack_ap_info(entry, order)
    assert len(data) == 28
    assert data[:6] == bytes.fromhex("000a0b0c0d0e")
    assert struct.unpack_from(order + "iiii", data, 8) == (-71, 40, 80, 92)
    assert struct.unpack_from(order + "H", data, 24) == (0xE12A,)


@ORDERS
def test_a_station_entry_carries_dbm_plus_100_and_two_flags(order):
    entry = records.StaInfo("02:00:00:00:00:01", (-60, -100, -45, -100), True, False)
    data = records.pack_sta_info(entry, order)
    assert len(data) == 28
    assert struct.unpack_from(order + "4i", data, 8) == (40, 0, 55, 0)
    assert (data[24], data[25]) == (1, 0)


@ORDERS
def test_station_records_begin_at_offset_12_and_count_at_8(order):
    stations = [records.StaInfo(f"02:00:00:00:00:{n:02x}", (-50,) * 4) for n in range(3)]
    data = records.pack_stations(36, stations, order)
    assert struct.unpack_from(order + "I", data, 0) == (records.GET_ASSOC_STAS,)
    assert data[4] == 36
    assert struct.unpack_from(order + "I", data, 8) == (3,)
    assert data[12 + 28:12 + 34] == bytes.fromhex("020000000001")
    assert len(data) == 12 + 3 * 28


@ORDERS
def test_channels_begin_at_offset_8(order):
    data = records.pack_channels([1, 6, 11], order)
    assert struct.unpack(order + "II3i", data) == (records.GET_AVAILABLE_CHANNELS, 3, 1, 6, 11)


@ORDERS
def test_a_scan_request_is_read_no_further_than_the_record_goes(order):
    record = struct.pack(order + "II3H", records.CUSTOM_SCAN, 3, 1, 6, 11)
    assert records.unpack_scan_request(record, order) == [1, 6, 11]
    lie = struct.pack(order + "II2H", records.CUSTOM_SCAN, 0xFFFFFFFF, 36, 40)
    assert records.unpack_scan_request(lie, order) == [36, 40]


def test_a_result_never_exceeds_the_record():
    entry = records.ApInfo("00:00:00:00:00:01", -50, 1, 20, 0, 0)
    data = records.pack_scan_result(records.CUSTOM_SCAN_RESULTS, [entry] * 9000, "<")
    assert len(data) <= records.RECORD_SIZE


def test_a_count_fault_changes_the_count_and_nothing_else():
    honest = records.pack_channels([1, 2], "<")
    lying = records.pack_channels([1, 2], "<", count=-1)
    assert struct.unpack_from("<I", lying, 4) == (0xFFFFFFFF,)
    assert (lying[:4], lying[8:]) == (honest[:4], honest[8:])


@pytest.mark.parametrize("channel, bandwidth, primary, chanspec", [
    (6, 20, "lower", 0x1006), (5, 40, "lower", 0x1807), (40, 40, "upper", 0xC000 | 0x1900 | 38),
    (36, 80, "lower", 0xC000 | 0x2000 | 42), (48, 80, "lower", 0xC000 | 0x2300 | 42),
    (153, 80, "lower", 0xC000 | 0x2100 | 155),
])
def test_chanspecs_name_centre_sub_band_and_bandwidth(channel, bandwidth, primary, chanspec):
    assert records.encode_chanspec(channel, bandwidth, primary) == chanspec
    assert records.decode_chanspec(chanspec) == (channel, bandwidth)


# Bus frames


@ORDERS
def test_a_bus_frame_is_17_bytes_of_header_and_the_payload(order):
    data = msgbus.pack(msgbus.Frame(dst=6, payload=b"{}", src=28, seq=7, uid=1000), order)
    assert data[:4] == bytes([0xB5, 1, 28, 6])
    assert struct.unpack_from(order + "III", data, 4) == (2, 7, 1000)
    assert data[16:] == b"\0{}"
    frame, size = msgbus.unpack_header(data[:17], order)
    assert (frame.src, frame.dst, frame.seq, frame.uid, frame.type, size) == (28, 6, 7, 1000, 0, 2)


@pytest.mark.parametrize("offset, value", [(0, 0xB4), (1, 2), (7, 0xFF)])
def test_a_malformed_bus_header_is_refused(offset, value):
    header = bytearray(msgbus.pack(msgbus.Frame(dst=1), "<"))
    header[offset] = value
    with pytest.raises(msgbus.BusError):
        msgbus.unpack_header(bytes(header[:17]), "<")


# Scenarios


@pytest.mark.parametrize("name", [path.stem for path in scenarios.FOLDER.glob("*.json")])
def test_every_scenario_of_the_tree_is_complete(name):
    chosen = scenarios.load(name)
    assert chosen["description"]
    assert air.Air(chosen, FakeClock()).radios


def test_a_misspelt_member_is_named_with_its_place():
    with pytest.raises(scenarios.ScenarioError, match=r"radios\[0\]\.vaps\[0\].*'ssd'"):
        scenarios.complete({"radios": [{"ifname": "wlan0", "vaps": [{"ssd": "x"}]}]})


def test_the_store_holds_what_the_radios_say_and_config_overrides_it():
    tree = scenarios.config_tree(minimal(config={"/orvanta/dca": "false"}))
    assert scenarios.find(tree, "/interface/wlan0-va0/vap/ssid") == "lab"
    assert scenarios.find(tree, "/interface/wlan1/wlan/radio/bandwidth") == "80"
    assert scenarios.find(tree, "/orvanta/dca") == "false"
    assert scenarios.find(tree, "/no/such/path") is None


# The radio model


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


# The running access point, without a bus


@pytest.fixture(name="ap")
def access_point(tmp_path):
    return AccessPoint(minimal(), tmp_path / "root", tmp_path / "no-bus", clock=FakeClock())


def run(coroutine):
    return asyncio.run(coroutine)


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
        await ap.clients._decide(vap, station)
        return ap.air.stations(vap)

    assert run(steer()) == []


def test_a_client_that_refuses_a_transition_stays_and_is_marked(ap):
    async def steer():
        ap.clients.change("02:00:00:00:01:01", {"roam": "refuse"})
        vap, station = ap.air.locate("02:00:00:00:01:01")
        await ap.clients._decide(vap, station)
        return ap.air.stations(vap)

    assert [station.roam_attempt for station in run(steer())] == [True]


def test_no_file_command_leaves_the_lab(ap):
    with pytest.raises(ValueError, match="outside"):
        ap.files.write("/../../elsewhere", "x")


def test_the_control_socket_answers_each_line_and_names_what_is_wrong(tmp_path):
    path = tmp_path / "control.sock"

    def talk():
        with control.ControlClient(path) as client:
            assert client.call("add", one=1, two_parts=2) == 3
            with pytest.raises(control.ControlError, match="unknown command"):
                client.call("nothing")
            with pytest.raises(control.ControlError, match="add: "):
                client.call("add", one="x", two_parts=1)

    async def serve():
        server = control.ControlServer({"add": lambda one, two_parts: one + two_parts})
        await server.start(str(path))
        await asyncio.to_thread(talk)
        await server.stop()

    run(serve())


# The library that is preloaded into lumd, here into a Python process

CALLER = """
    import fcntl, json, socket, struct, sys, ctypes
    def iwreq(name, data):
        buffer = ctypes.create_string_buffer(data, max(len(data), 131070))
        request = bytearray(struct.pack("16sPHH", name, ctypes.addressof(buffer), len(data), 0))
        request += bytes(32 - len(request))
        return buffer, request
    def call(number, name, data):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as handle:
            buffer, request = iwreq(name, data)
            try:
                fcntl.ioctl(handle, number, request, True)
            except OSError as error:
                return [error.errno, ""]
            return [0, buffer.raw[:64].hex()]
    print(json.dumps([call(int(number), name.encode(), bytes.fromhex(data))
                      for number, name, data in json.loads(sys.argv[1])]))
"""


def through_the_library(root, calls):
    """What ioctls give in a process that has the lab's kernel library."""
    environment = {**os.environ, "LAB_ROOT": str(root),
                   "LD_PRELOAD": str(harness.find_build().lib / "liblabkernel.so")}
    result = subprocess.run(["/usr/bin/python3", "-c", textwrap.dedent(CALLER), json.dumps(calls)],
                            env=environment, capture_output=True, text=True, timeout=60,
                            check=False)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


def ioctls(ap, calls):
    async def serve():
        await ap._kernel_server.start(str(ap.root / "kernel.sock"))
        try:
            return await asyncio.to_thread(through_the_library, ap.root, calls)
        finally:
            await ap._kernel_server.stop()

    return run(serve())


def test_vendor_commands_travel_through_the_library(ap):
    capacity = struct.pack("=II", records.GET_AVAILABLE_CHANNELS, 65526).hex()
    (status, data), = ioctls(ap, [(0x8BBF, "wlan0", capacity)])
    assert status == 0
    assert struct.unpack("=II4i", bytes.fromhex(data)[:24]) == (5, 13, 1, 2, 3, 4)


def test_each_family_answers_only_its_own_request_number(ap):
    capacity = struct.pack("=II", records.GET_AVAILABLE_CHANNELS, 1).hex()
    answers = ioctls(ap, [(0x8BBF, "wlan1", capacity), (0x89F4, "wlan1", capacity)])
    assert [status != 0 for status, _ in answers] == [True, False]


def test_a_mib_is_a_32_bit_number_behind_its_request(ap):
    (status, data), = ioctls(ap, [(0x89F2, "wlan0", b"chanspec\0".hex())])
    assert status == 0
    assert struct.unpack("=I", bytes.fromhex(data)[:4]) == (0x1006,)


def test_an_errno_fault_reaches_the_caller(ap):
    ap.faults.add({"call": "mib-get", "name": "chanspec", "errno": "EBUSY"})
    (status, _), = ioctls(ap, [(0x89F2, "wlan0", b"chanspec\0".hex())])
    assert status == 16


def test_without_a_lab_program_there_is_no_device(tmp_path):
    (status, _), = through_the_library(tmp_path, [(0x89F2, "wlan0", b"chanspec\0".hex())])
    assert status == 19


def test_the_fast_clock_speeds_up_reading_and_waiting():
    environment = {**os.environ, "LAB_CLOCK_SPEED": "50",
                   "LD_PRELOAD": str(harness.find_build().lib / "liblabclock.so")}
    code = "import time; a = time.monotonic(); time.sleep(5); print(time.monotonic() - a)"
    result = subprocess.run(["/usr/bin/python3", "-c", code], env=environment, text=True,
                            capture_output=True, timeout=60, check=True)
    assert float(result.stdout) >= 5


def test_the_fast_clock_follows_a_change_of_its_speed(tmp_path):
    shared = clock.LabClock(1, tmp_path / "clock")
    environment = {**os.environ, "LAB_CLOCK_FILE": str(tmp_path / "clock"),
                   "LD_PRELOAD": str(harness.find_build().lib / "liblabclock.so")}
    code = "import time\nfor _ in range(3): input(); print(time.monotonic(), flush=True)"
    least, most = [], []  # how far the program's clock may be ahead of the lab's
    with subprocess.Popen(["/usr/bin/python3", "-c", code], env=environment, text=True,
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE) as program:
        for speed in (1, 1e6, 1):
            shared.set_speed(speed)
            before = shared.now()
            program.stdin.write("\n")
            program.stdin.flush()
            reading = float(program.stdout.readline())
            least.append(reading - shared.now())
            most.append(reading - before)
    assert max(least) <= min(most)
    assert shared.now() - time.monotonic() > 1


# The service


RADIO = {
    "id": 0, "status": 1, "mac-offset": 0, "radio-mac-count": 8, "locked-for-dca": 0,
    "locked-for-tpc": 0, "locked-for-balancer": 1, "locked-for-80211v": 0, "power": 16,
    "power-max": 20, "power-min": 8, "eirp": 19, "eirp-max": 23, "eirp-min": 5,
    "antenna-configuration": {"antenna-gain": 3, "cable-loss": 0}, "channel": 6, "band": 2,
    "bandwidth": 20, "primary-channel": "none", "available-channels": "1 6 11 ",
    "vaps": [{"id": 0, "ssid": "lab", "mac": "00:11:22:33:44:51", "802dot11k": 1,
              "802dot11r": 0}],
    "assoclist": [{"mac": "02:00:00:00:01:01", "ssid": "lab", "rssi": -50}],
}
SUBSCRIBE = {
    "version": "2.4", "service": "rrm", "cmd": "subscribe-request", "ap-mac": "00:11:22:33:44:50",
    "domain": "lab", "ap-mac-count": 16, "use-wildcard-80211r": 1,
    "factory": {"board": "b", "hw": "h", "serial": "s", "mac": "00:11:22:33:44:50"},
    "radios": [RADIO],
}


def test_a_message_as_it_should_be_draws_no_complaint():
    assert checker.check(SUBSCRIBE, "websock-rrm") == []


@pytest.mark.parametrize("change, complaint", [
    ({"version": "2.3"}, "version"), ({"cmd": "what"}, "unknown command"),
    ({"domain": 5}, "domain is no str"), ({"extra": 1}, "unknown key extra"),
    ({"radios": [{**RADIO, "status": 0}]}, "status 0"),
    ({"radios": [{**RADIO, "vaps": [{"id": 0}]}]}, "ssid is missing"),
])
def test_the_service_complains_about(change, complaint):
    assert any(complaint in text for text in checker.check({**SUBSCRIBE, **change}, "websock-rrm"))


def test_the_service_complains_about_keys_out_of_order():
    turned = dict(reversed(SUBSCRIBE.items()))
    assert any("out of order" in text for text in checker.check(turned, "websock-rrm"))


def test_the_service_knows_each_client_until_it_leaves():
    ap = ApModel("00:11:22:33:44:50")
    ap.learn(SUBSCRIBE)
    ap.learn({"cmd": "rrm-client-assoc", "radio": 0, "sta-mac": "02:00:00:00:00:09", "rssi": -70,
              "ssid": "lab", "no-balance": 0})
    ap.learn({"cmd": "rrm-client-disassoc", "radio": 0, "sta-mac": "02:00:00:00:01:01",
              "ssid": "lab"})
    assert list(ap.clients) == ["02:00:00:00:00:09"]
    assert "02:00:00:00:00:09" in tables.overview(ap)


def test_the_service_answers_a_subscription_and_counts_complaints():
    async def talk():
        service = Service()
        service.subscribe_answers = [{"status": "error", "code": 503}, {"status": "success"}]
        await service.start()
        url = f"ws://127.0.0.1:{service.port}/agent"
        async with websockets.connect(url, subprotocols=["websock-rrm"]) as link:
            await link.send(json.dumps(SUBSCRIBE))
            first = json.loads(await asyncio.wait_for(link.recv(), 10))
            await link.send(json.dumps({**SUBSCRIBE, "version": "1.0"}))
            second = json.loads(await asyncio.wait_for(link.recv(), 10))
        await service.stop()
        return first, second, service

    first, second, service = run(talk())
    assert (first["status"], first["code"]) == ("error", 503)
    assert list(second)[:5] == ["version", "service", "cmd", "ap-mac", "status"]
    assert service.ap().mac == "00:11:22:33:44:50"
    assert len(service.complaints) == 1


def test_the_service_refuses_to_send_to_an_access_point_that_has_just_gone():
    async def talk():
        service = Service()
        await service.start()
        url = f"ws://127.0.0.1:{service.port}/agent"
        async with websockets.connect(url, subprotocols=["websock-rrm"]):
            assert await until(lambda: service.links)
            link = service.links[0]
            link.abort()
            await link.wait_closed()
            with pytest.raises(ServiceError, match="gone"):
                await service.send({"cmd": "rrm-info"}, link)
        await service.stop()

    run(talk())


def test_waiting_for_an_event_ends_with_none_in_bounded_time():
    async def wait():
        events = journal.Journal()
        events.add("service", "lumd", "rrm-info", {"a": {"b": 1}})
        found = await events.wait(0, 5, what="rrm-info", data={"a": {"b": 1}})
        missed = await events.wait(1, 0.05, what="rrm-info")
        return found, missed

    found, missed = run(wait())
    assert found["n"] == 1
    assert missed is None
