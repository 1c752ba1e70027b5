"""What crosses the vendor command channel: records, requests, channel specifications.

All integers of a record are 32-bit in the byte order (`order`: "<" or ">") of the machine that
lumd runs on; a record begins with its command code. Sizes and offsets are those of the driver.
"""
import dataclasses
import struct

RECORD_SIZE = 131070
MIB_BUFFER_SIZE = 2048

CUSTOM_SCAN = 0
CUSTOM_SCAN_STOP = 1
CUSTOM_SCAN_RESULTS = 2
RRM_SCAN_RESULTS = 3
GET_ASSOC_STAS = 4
GET_AVAILABLE_CHANNELS = 5
GET_DETAILS_PMKID = 6

COMMAND_NAMES = {
    CUSTOM_SCAN: "VEXOR_CMD_CUSTOM_SCAN",
    CUSTOM_SCAN_STOP: "VEXOR_CMD_CUSTOM_SCAN_STOP",
    CUSTOM_SCAN_RESULTS: "VEXOR_CMD_CUSTOM_SCAN_RESULTS",
    RRM_SCAN_RESULTS: "VEXOR_CMD_RRM_SCAN_RESULTS",
    GET_ASSOC_STAS: "VEXOR_CMD_GET_ASSOC_STAS",
    GET_AVAILABLE_CHANNELS: "VEXOR_CMD_GET_AVAILABLE_CHANNELS",
    GET_DETAILS_PMKID: "VEXOR_CMD_GET_DETAILS_PMKID",
}

# ioctl request numbers per driver family; absent: the family has no such call
VENDOR_COMMAND = {"rtl8192cd": 0x8BBF, "g6": 0x89F4}
BSS_TRANSITION = {"rtl8192cd": 0x8BA6, "g6": 0x89F6}
MIB_SET = {"rtl8192cd": 0x89F1}
MIB_GET = {"rtl8192cd": 0x89F2}
SCAN_TRIGGER = {"rtl8192cd": 0x8B18, "g6": 0x8B18}

AP_INFO_SIZE = 28
STA_INFO_SIZE = 28
RSSI_OFFSET = 100  # the driver reports dBm + 100

BANDWIDTH_BITS = {20: 0x1000, 40: 0x1800, 80: 0x2000}
SUB_BAND_STEP = 0x100
BAND_5G_BITS = 0xC000
# First channel of each 80 MHz block, IEEE 802.11 table E-4
BLOCKS_80 = (36, 52, 100, 116, 132, 149)


def mac_bytes(text):
    """Six bytes of "00:11:22:33:44:55"."""
    octets = bytes.fromhex(text.replace(":", "").replace("-", ""))
    if len(octets) != 6:
        raise ValueError(f"not a MAC address: {text!r}")
    return octets


def mac_text(octets):
    return ":".join(f"{octet:02x}" for octet in octets)


def encode_chanspec(channel, bandwidth=20, primary="lower"):
    """Centre channel, control sub-band and bandwidth of a primary channel."""
    bits = BANDWIDTH_BITS.get(bandwidth, 0) | (BAND_5G_BITS if channel >= 30 else 0)
    if bandwidth == 40:
        upper = primary == "upper"
        return bits | (channel - 2 if upper else channel + 2) | (SUB_BAND_STEP if upper else 0)
    if bandwidth == 80:
        block = max((first for first in BLOCKS_80 if first <= channel), default=channel)
        return bits | (block + 6) | (channel - block) // 4 * SUB_BAND_STEP
    return bits | channel


def decode_chanspec(chanspec):
    """(primary channel, bandwidth)"""
    centre, sub_band = chanspec & 0xFF, (chanspec & 0x700) >> 8
    bandwidth = {0x1800: 40, 0x2000: 80}.get(chanspec & 0x3800, 20)
    if bandwidth == 40:
        return centre + (2 if sub_band == 1 else -2), 40
    if bandwidth == 80:
        return centre - 6 + 4 * sub_band, 80
    return centre, 20


@dataclasses.dataclass
class ApInfo:
    """One entry of a scan result. `tx_power`: dBm × 4 in an RRM scan."""
    bssid: str
    signal: int
    channel: int
    bandwidth: int
    tx_power: int
    chanspec: int


@dataclasses.dataclass
class StaInfo:
    """One entry of the station list. `rssi`: dBm of four chains."""
    mac: str
    rssi: tuple
    roam_attempt: bool = False
    no_balance: bool = False


def pack_ap_info(entry, order):
    return struct.pack(order + "6s2xiiiiH2x", mac_bytes(entry.bssid), entry.signal, entry.channel,
                       entry.bandwidth, entry.tx_power, entry.chanspec)


def pack_sta_info(entry, order):
    chains = [value + RSSI_OFFSET for value in entry.rssi]
    return struct.pack(order + "6s2x4i??2x", mac_bytes(entry.mac), *chains, entry.roam_attempt,
                       entry.no_balance)


def pack_scan_result(command, entries, order, count=None):
    """Command, size, entries. `count` is a lie about their number, for faults."""
    entries = entries[:(RECORD_SIZE - 8) // AP_INFO_SIZE]
    head = struct.pack(order + "II", command, _count(entries, count))
    return head + b"".join(pack_ap_info(entry, order) for entry in entries)


def pack_stations(channel, stations, order, count=None):
    stations = stations[:(RECORD_SIZE - 12) // STA_INFO_SIZE]
    head = struct.pack(order + "IB3xI", GET_ASSOC_STAS, channel & 0xFF, _count(stations, count))
    return head + b"".join(pack_sta_info(entry, order) for entry in stations)


def pack_channels(channels, order, count=None):
    channels = list(channels)[:(RECORD_SIZE - 8) // 4]
    head = struct.pack(order + "II", GET_AVAILABLE_CHANNELS, _count(channels, count))
    return head + struct.pack(f"{order}{len(channels)}i", *channels)


def unpack_command(data, order):
    """The command code of a record; None when there is none."""
    return struct.unpack_from(order + "I", data)[0] if len(data) >= 4 else None


def unpack_scan_request(data, order):
    """The channels of a custom scan, as many as the record really holds."""
    if len(data) < 8:
        return []
    count = min(struct.unpack_from(order + "I", data, 4)[0], (len(data) - 8) // 2)
    return list(struct.unpack_from(f"{order}{count}H", data, 8))


def unpack_capacity(data, order):
    """The announced capacity of a result record."""
    offset = 8 if unpack_command(data, order) == GET_ASSOC_STAS else 4
    return struct.unpack_from(order + "I", data, offset)[0] if len(data) >= offset + 4 else 0


def pack_int(value, order):
    return struct.pack(order + "i", value) if value < 0x80000000 else struct.pack(order + "I", value)


def _count(entries, lie):
    return len(entries) if lie is None else lie & 0xFFFFFFFF
