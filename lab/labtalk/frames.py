"""Websocket bytes read while they pass by: whoever uses this takes no part in the conversation, so
nothing is refused; what is wrong stands in what was read (RFC 6455, 4 and 5.2)."""
import dataclasses
import struct

CONTINUATION, TEXT, BINARY, CLOSE, PING, PONG = 0x0, 0x1, 0x2, 0x8, 0x9, 0xA
DATA = frozenset({CONTINUATION, TEXT, BINARY})
CONTROL = frozenset({CLOSE, PING, PONG})
LONGEST_CONTROL = 125
HEAD_END = b"\r\n\r\n"
LONGEST_HEAD = 64 * 1024  # bytes; what has no end by then is no head
# What may stand in a Close frame, RFC 6455, 7.4; 1004 to 1006 and 1015 never do.
CLOSE_CODES = frozenset({1000, 1001, 1002, 1003, *range(1007, 1015), *range(3000, 5000)})
NO_CODE = 1005


@dataclasses.dataclass
class Head:
    """The first line of a request or a response, and its headers by their names in lower case."""
    first: str
    headers: dict

    @classmethod
    def parse(cls, data: bytes) -> "Head":
        first, *lines = data.decode("latin-1").split("\r\n")
        headers = {}
        for name, _, value in (line.partition(":") for line in lines):
            headers.setdefault(name.strip().lower(), value.strip())
        return cls(first, headers)


@dataclasses.dataclass
class Frame:
    """One frame. `reserved`: the three bits that mean nothing without an extension."""
    opcode: int
    payload: bytes
    final: bool = True
    reserved: int = 0
    masked: bool = False

    def faults(self, by_server: bool) -> list[str]:
        """What is wrong with the frame by itself."""
        found = []
        if self.reserved:
            found.append("a frame with reserved bits set")
        if self.opcode not in DATA | CONTROL:
            found.append(f"a frame with the unknown opcode {self.opcode:#x}")
        if self.masked == by_server:
            found.append("a masked frame" if self.masked else "a frame without a mask")
        if self.opcode in CONTROL and (not self.final or len(self.payload) > LONGEST_CONTROL):
            found.append("a control frame that is too long or in pieces")
        if self.opcode == CLOSE and len(self.payload) >= 2 and self.close_code not in CLOSE_CODES:
            found.append(f"the close code {self.close_code}")
        if self.opcode == CLOSE and len(self.payload) == 1:
            found.append("a Close frame with half a code")
        return found

    @property
    def close_code(self) -> int:
        """Of a Close frame."""
        return struct.unpack("!H", self.payload[:2])[0] if len(self.payload) >= 2 else NO_CODE


class FrameReader:
    """Makes frames of one direction's bytes after the handshake."""

    def __init__(self):
        self._bytes = bytearray()

    def feed(self, data: bytes) -> list[Frame]:
        """The frames that are whole now."""
        self._bytes += data
        frames = []
        while (frame := self._next()) is not None:
            frames.append(frame)
        return frames

    def _next(self):
        head = self._head()
        if head is None:
            return None
        at, size, mask = head
        if len(self._bytes) < at + size:
            return None
        first, second = self._bytes[0], self._bytes[1]
        payload = bytes(self._bytes[at:at + size])
        del self._bytes[:at + size]
        return Frame(first & 0x0F, _unmasked(payload, mask), bool(first & 0x80), first >> 4 & 7,
                     bool(second & 0x80))

    def _head(self):
        """(size of the head, of the payload, mask), None when that much is not there yet."""
        if len(self._bytes) < 2:
            return None
        size, at = self._bytes[1] & 0x7F, 2
        if size >= 126:
            at, form = (4, "!H") if size == 126 else (10, "!Q")
            if len(self._bytes) < at:
                return None
            size, = struct.unpack(form, self._bytes[2:at])
        if not self._bytes[1] & 0x80:
            return at, size, b""
        if len(self._bytes) < at + 4:
            return None
        return at + 4, size, bytes(self._bytes[at:at + 4])


def _unmasked(payload, mask):
    if not mask or not payload:
        return payload
    size = len(payload)
    key = (mask * (size // 4 + 1))[:size]
    return (int.from_bytes(payload, "big") ^ int.from_bytes(key, "big")).to_bytes(size, "big")
