"""What the lab lays out for lumd: as the drivers lay it out, in either byte order."""
import struct

import pytest

from labap import records

ORDERS = pytest.mark.parametrize("order", ["<", ">"])


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
