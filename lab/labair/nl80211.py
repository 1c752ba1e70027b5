"""Reads from the kernel what its radios do: nl80211 by itself, without iw or lumd.

Runs in the guest. What is asked for here is a small part of linux/nl80211.h; a socket belongs to
the network namespace in which it was opened.
"""
import socket
import struct
from collections.abc import Iterator

NETLINK_GENERIC = 16
NLMSG_ERROR, NLMSG_DONE = 2, 3
NLM_F_REQUEST, NLM_F_DUMP = 0x001, 0x300
GENL_ID_CTRL, CTRL_CMD_GETFAMILY = 16, 3
CTRL_ATTR_FAMILY_ID, CTRL_ATTR_FAMILY_NAME = 1, 2
HEADER, GENERIC_HEADER = struct.Struct("=IHHII"), struct.Struct("=BBH")
ATTRIBUTE = struct.Struct("=HH")
TYPE_MASK = 0x3FFF  # without the flags of nesting and byte order
RECEIVE_BYTES = 65536

CMD_GET_INTERFACE, CMD_GET_STATION, CMD_GET_SURVEY = 5, 17, 50
(ATTR_WIPHY, ATTR_IFINDEX, ATTR_IFNAME, ATTR_IFTYPE, ATTR_MAC) = (1, 3, 4, 5, 6)
ATTR_STA_INFO, ATTR_WIPHY_FREQ, ATTR_SSID, ATTR_SURVEY_INFO = 21, 38, 52, 84
ATTR_TX_POWER, ATTR_CHANNEL_WIDTH, ATTR_CENTER_FREQ1 = 98, 159, 160
STA_INFO_SIGNAL, STA_INFO_CONNECTED_TIME = 7, 16
SURVEY_FREQUENCY, SURVEY_NOISE, SURVEY_TIME, SURVEY_TIME_BUSY = 1, 2, 4, 5
INTERFACE_TYPES = {2: "managed", 3: "AP", 6: "monitor"}
WIDTHS = {0: 20, 1: 20, 2: 40, 3: 80, 4: 160, 5: 160}  # MHz
MBM_A_DBM = 100


class NetlinkError(OSError):
    """The kernel's refusal."""


def attribute(kind: int, value: bytes) -> bytes:
    """One attribute with what fills it up to four bytes."""
    text = ATTRIBUTE.pack(ATTRIBUTE.size + len(value), kind) + value
    return text + b"\0" * (-len(text) % 4)


def attributes(data: bytes) -> dict[int, bytes]:
    """{type: value}; what is cut short is left out."""
    found, at = {}, 0
    while at + ATTRIBUTE.size <= len(data):
        length, kind = ATTRIBUTE.unpack_from(data, at)
        if length < ATTRIBUTE.size or at + length > len(data):
            break
        found[kind & TYPE_MASK] = data[at + ATTRIBUTE.size:at + length]
        at += length + -length % 4
    return found


def number(value: bytes | None, signed: bool = False) -> int | None:
    """Of one, two, four or eight bytes, as the machine has them."""
    return None if value is None else int.from_bytes(value, "little", signed=signed)


class Nl80211:
    """A socket in the network namespace of who makes it. One thread at a time."""

    def __init__(self):
        self._socket = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_GENERIC)
        self._socket.bind((0, 0))
        self._socket.settimeout(5)
        self._sequence = 0
        answer = next(self._ask(GENL_ID_CTRL, CTRL_CMD_GETFAMILY, 0,
                                attribute(CTRL_ATTR_FAMILY_NAME, b"nl80211\0")))
        self._family = number(answer[CTRL_ATTR_FAMILY_ID])

    def close(self) -> None:
        self._socket.close()

    def interfaces(self) -> dict[str, dict]:
        """{name: what the kernel tells}: type, address, frequencies and width in MHz (None while
        the interface has no channel), power in dBm, SSID."""
        return {entry[ATTR_IFNAME].rstrip(b"\0").decode(): _interface(entry)
                for entry in self._dump(CMD_GET_INTERFACE) if ATTR_IFNAME in entry}

    def stations(self, ifname: str) -> dict[str, dict]:
        """{address: signal in dBm, seconds connected} of an interface; none of one that is not."""
        return {_address(entry[ATTR_MAC]): _station(entry)
                for entry in self._dump(CMD_GET_STATION, ifname)}

    def survey(self, ifname: str) -> list[dict]:
        """Per channel that was visited: frequency in MHz, noise in dBm, milliseconds there and
        busy."""
        return [_survey(attributes(entry[ATTR_SURVEY_INFO]))
                for entry in self._dump(CMD_GET_SURVEY, ifname) if ATTR_SURVEY_INFO in entry]

    def _dump(self, command, ifname=None):
        about = b""
        if ifname is not None:
            own = self.interfaces().get(ifname)
            if own is None:
                return []
            about = attribute(ATTR_IFINDEX, struct.pack("=I", own["index"]))
        return list(self._ask(self._family, command, NLM_F_DUMP, about))

    def _ask(self, family, command, flags, payload) -> Iterator[dict[int, bytes]]:
        self._sequence += 1
        body = GENERIC_HEADER.pack(command, 1, 0) + payload
        self._socket.send(HEADER.pack(HEADER.size + len(body), family, NLM_F_REQUEST | flags,
                                      self._sequence, 0) + body)
        while True:
            data, at = self._socket.recv(RECEIVE_BYTES), 0
            while at + HEADER.size <= len(data):
                length, kind, _, sequence, _ = HEADER.unpack_from(data, at)
                content = data[at + HEADER.size:at + length]
                at += length + -length % 4
                if sequence != self._sequence:
                    continue
                if kind == NLMSG_DONE:
                    return
                if kind == NLMSG_ERROR:
                    code = -number(content[:4], signed=True)
                    if code:
                        raise NetlinkError(code, f"nl80211 command {command}")
                    return
                yield attributes(content[GENERIC_HEADER.size:])
                if not flags & NLM_F_DUMP:
                    return


def _address(value):
    return value.hex(":")


def _interface(entry):
    power = number(entry.get(ATTR_TX_POWER), signed=True)
    width = number(entry.get(ATTR_CHANNEL_WIDTH))
    return {"index": number(entry[ATTR_IFINDEX]), "wiphy": number(entry[ATTR_WIPHY]),
            "type": INTERFACE_TYPES.get(number(entry[ATTR_IFTYPE]), "other"),
            "address": _address(entry[ATTR_MAC]),
            "frequency": number(entry.get(ATTR_WIPHY_FREQ)), "width": WIDTHS.get(width),
            "center": number(entry.get(ATTR_CENTER_FREQ1)),
            "power": None if power is None else power // MBM_A_DBM,
            "ssid": entry.get(ATTR_SSID, b"").decode(errors="replace")}


def _station(entry):
    told = attributes(entry.get(ATTR_STA_INFO, b""))
    return {"signal": number(told.get(STA_INFO_SIGNAL), signed=True),
            "connected": number(told.get(STA_INFO_CONNECTED_TIME))}


def _survey(told):
    return {"frequency": number(told.get(SURVEY_FREQUENCY)),
            "noise": number(told.get(SURVEY_NOISE), signed=True),
            "time": number(told.get(SURVEY_TIME)), "busy": number(told.get(SURVEY_TIME_BUSY))}
