"""Management frames as they were in the air: captures of hwsim0 (pcap, radiotap) read by hand.

Clauses are those of IEEE 802.11-2020. Numbers are little-endian there.
"""
import dataclasses
import struct
from collections.abc import Iterator

PCAP_MAGIC, PCAP_HEADER, PCAP_RECORD = 0xA1B2C3D4, 24, struct.Struct("<IIII")
LINKTYPE_ETHERNET, LINKTYPE_RADIOTAP = 1, 127
MAC_HEADER, ADDRESS = 24, 6
FCS = 4
RADIOTAP_FLAGS, FLAG_HAS_FCS = 1, 0x10
TYPE_MANAGEMENT = 0
# Subtypes, 9.2.4.1.3.
ASSOCIATION_REQUEST, REASSOCIATION_REQUEST = 0, 2
AUTHENTICATION, DEAUTHENTICATION, ACTION = 11, 12, 13
RADIO_MEASUREMENT, FAST_TRANSITION, WNM = 5, 6, 10             # categories, 9.4.1.11
NEIGHBOR_REPORT_REQUEST, NEIGHBOR_REPORT_RESPONSE = 4, 5       # 9.6.6.1
BSS_TRANSITION_REQUEST, BSS_TRANSITION_RESPONSE = 7, 8         # 9.6.13.1
NEIGHBOR_REPORT, CANDIDATE_PREFERENCE = 52, 3                  # 9.4.2.1, table 9-173
EXTENDED_CAPABILITIES, CAPABILITY_BSS_TRANSITION = 127, 19     # 9.4.2.26: a bit
ASSOCIATION_FIXED = {ASSOCIATION_REQUEST: 4, REASSOCIATION_REQUEST: 10}  # bytes, 9.3.3.5, 9.3.3.7
MODE_CANDIDATES, MODE_ABRIDGED, MODE_DISASSOCIATION = 0x01, 0x02, 0x04
MODE_TERMINATION, MODE_SESSION_URL = 0x08, 0x10
TERMINATION_BYTES = 12
NEIGHBOR_FIXED = struct.Struct("<6sIBBB")
BROADCAST = "ff:ff:ff:ff:ff:ff"
ALGORITHM_FT = 2  # 9.4.1.1
AUTHENTICATION_FIXED = struct.Struct("<HHH")  # algorithm, sequence number, status: 9.3.3.11
# What hostapd's key holders say to each other: IEEE 802-2014, 9.2.4, with the OUI of its authors.
KEY_PROTOCOL = bytes.fromhex("88b7" "0013740001")
ETHERNET_ADDRESSES = 2 * ADDRESS
KEY_PULL, KEY_RESPONSE = 1, 2


class FrameError(ValueError):
    """Bytes that are not what they should be."""


@dataclasses.dataclass(frozen=True)
class Frame:
    """One management frame: seconds of the guest's clock, subtype, addresses, what follows the
    header."""

    time: float
    subtype: int
    receiver: str
    transmitter: str
    bssid: str
    body: bytes

    def is_action(self, category: int, action: int) -> bool:
        return self.subtype == ACTION and self.body[:2] == bytes((category, action))

    @property
    def is_ft_authentication(self) -> bool:
        return self.subtype == AUTHENTICATION and \
            self.body[:2] == ALGORITHM_FT.to_bytes(2, "little")

    @property
    def refuses(self) -> bool:
        """Whether it answers an authentication with a status that is no success, 9.4.1.9."""
        if self.subtype != AUTHENTICATION or len(self.body) < AUTHENTICATION_FIXED.size:
            return False
        _, number, status = AUTHENTICATION_FIXED.unpack_from(self.body)
        return number == 2 and status != 0


@dataclasses.dataclass(frozen=True)
class KeyFrame:
    """One frame between key holders of 802.11r, over the distribution system."""

    time: float
    receiver: str
    transmitter: str
    kind: int


@dataclasses.dataclass(frozen=True)
class Neighbor:
    """A Neighbor Report element, 9.4.2.36. `preference`: of the subelement BSS Transition Candidate
    Preference, None without it. `raw`: the whole element."""

    bssid: str
    information: int
    operating_class: int
    channel: int
    phy_type: int
    preference: int | None
    raw: bytes


@dataclasses.dataclass(frozen=True)
class TransitionRequest:
    """A BSS Transition Management Request frame, 9.6.13.9. `timer`: beacon intervals until
    disassociation, `validity`: beacon intervals that the list is valid."""

    token: int
    mode: int
    timer: int
    validity: int
    candidates: tuple[Neighbor, ...]


@dataclasses.dataclass(frozen=True)
class TransitionResponse:
    """A BSS Transition Management Response frame, 9.6.13.10; the target when it was accepted."""

    token: int
    status: int
    target: str | None


def takes_transitions(frame: Frame) -> bool:
    """Whether the station that (re)associates says that it knows BSS transition management."""
    if frame.subtype not in ASSOCIATION_FIXED:
        raise FrameError("no association request")
    told = dict(elements(frame.body[ASSOCIATION_FIXED[frame.subtype]:]))
    bits = int.from_bytes(told.get(EXTENDED_CAPABILITIES, b""), "little")
    return bool(bits >> CAPABILITY_BSS_TRANSITION & 1)


def management_frames(capture: bytes) -> Iterator[Frame]:
    """Those of a pcap file of hwsim0."""
    for time, record in _records(capture, LINKTYPE_RADIOTAP):
        frame = _frame(time, record)
        if frame is not None:
            yield frame


def key_frames(capture: bytes) -> Iterator[KeyFrame]:
    """Those of a pcap file of an Ethernet."""
    kind = ETHERNET_ADDRESSES + len(KEY_PROTOCOL)
    for time, record in _records(capture, LINKTYPE_ETHERNET):
        if record[ETHERNET_ADDRESSES:kind] == KEY_PROTOCOL and len(record) > kind:
            yield KeyFrame(time, record[:ADDRESS].hex(":"),
                           record[ADDRESS:ETHERNET_ADDRESSES].hex(":"), record[kind])


def _records(capture, wanted_link):
    """(seconds, bytes) of each. One that is not whole yet ends it."""
    if len(capture) < PCAP_HEADER:
        return
    magic, link = struct.unpack_from("<I16xI", capture)
    if magic != PCAP_MAGIC or link != wanted_link:
        raise FrameError(f"a capture of kind {magic:x}, link type {link}")
    at = PCAP_HEADER
    while at + PCAP_RECORD.size <= len(capture):
        seconds, microseconds, kept, _ = PCAP_RECORD.unpack_from(capture, at)
        at += PCAP_RECORD.size
        if at + kept > len(capture):
            return
        yield seconds + microseconds / 1e6, capture[at:at + kept]
        at += kept


def _frame(time, record):
    """None for what is no whole management frame."""
    if len(record) < 8:
        return None
    length, present = struct.unpack_from("<2xHI", record)
    content = record[length:]
    if len(content) < MAC_HEADER or content[0] >> 2 & 3 != TYPE_MANAGEMENT:
        return None
    if _has_fcs(record, present):
        content = content[:-FCS]
    return Frame(time, content[0] >> 4, *(content[start:start + ADDRESS].hex(":")
                                          for start in (4, 10, 16)), content[MAC_HEADER:])


def _has_fcs(record, present):
    """Radiotap's flags stand behind the time stamp (bit 0, eight bytes), if there is one."""
    if not present & 1 << RADIOTAP_FLAGS:
        return False
    return bool(record[16 if present & 1 else 8] & FLAG_HAS_FCS)


def elements(data: bytes) -> Iterator[tuple[int, bytes]]:
    """(ID, content) of elements or subelements; FrameError when one is cut short."""
    at = 0
    while at < len(data):
        if at + 2 > len(data) or at + 2 + data[at + 1] > len(data):
            raise FrameError(f"an element cut short: {data[at:].hex()}")
        yield data[at], data[at + 2:at + 2 + data[at + 1]]
        at += 2 + data[at + 1]


def neighbor(content: bytes) -> Neighbor:
    """Of an element's content."""
    if len(content) < NEIGHBOR_FIXED.size:
        raise FrameError(f"a neighbor report of {len(content)} bytes")
    bssid, *fixed = NEIGHBOR_FIXED.unpack_from(content)
    preference = None
    for kind, value in elements(content[NEIGHBOR_FIXED.size:]):
        if kind == CANDIDATE_PREFERENCE:
            if len(value) != 1:
                raise FrameError(f"a preference of {len(value)} bytes")
            preference = value[0]
    raw = bytes((NEIGHBOR_REPORT, len(content))) + content
    return Neighbor(bssid.hex(":"), *fixed, preference, raw)


def _neighbors(data):
    return tuple(neighbor(content) for kind, content in elements(data) if kind == NEIGHBOR_REPORT)


def neighbor_response(frame: Frame) -> tuple[int, tuple[Neighbor, ...]]:
    """Dialog token and neighbours of a Neighbor Report Response frame, 9.6.6.7."""
    if not frame.is_action(RADIO_MEASUREMENT, NEIGHBOR_REPORT_RESPONSE) or len(frame.body) < 3:
        raise FrameError("no neighbor report response")
    return frame.body[2], _neighbors(frame.body[3:])


def transition_request(frame: Frame) -> TransitionRequest:
    """Of a frame that is one; FrameError otherwise."""
    if not frame.is_action(WNM, BSS_TRANSITION_REQUEST) or len(frame.body) < 7:
        raise FrameError("no BSS transition management request")
    token, mode, timer, validity = struct.unpack_from("<BBHB", frame.body, 2)
    rest = frame.body[7:]
    if mode & MODE_TERMINATION:
        rest = rest[TERMINATION_BYTES:]
    if mode & MODE_SESSION_URL:
        if not rest:
            raise FrameError("no session information URL")
        rest = rest[1 + rest[0]:]
    return TransitionRequest(token, mode, timer, validity, _neighbors(rest))


def transition_response(frame: Frame) -> TransitionResponse:
    """Of a frame that is one; FrameError otherwise."""
    if not frame.is_action(WNM, BSS_TRANSITION_RESPONSE) or len(frame.body) < 5:
        raise FrameError("no BSS transition management response")
    token, status = frame.body[2:4]
    target = frame.body[5:5 + ADDRESS].hex(":") if status == 0 else None
    return TransitionResponse(token, status, target)
