"""The rules about one connection: the handshake, frames, pings, and how it ends."""
import base64
import hashlib

from labtalk import frames
from labtalk.frames import Frame, Head

HANDSHAKE_SECONDS = 5.0
ACCEPT_SALT = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11"  # RFC 6455, 1.3
SWITCHING = "101"


class LinkRules:
    """Judges what a service does on one connection. `now()`: seconds of lumd's clock."""

    def __init__(self, conformance, now):
        self._conformance, self._now = conformance, now
        self._asked = self._request = None
        self._answered = self.established = False
        self._pings = []        # payloads that no pong has answered
        self._pieces, self._in_pieces = [], False
        self._closed = False    # either side has sent a Close frame

    def request(self, head: Head) -> None:
        self._asked, self._request = self._now(), head

    def response(self, head: "Head | None") -> None:
        self._answered = True
        if head is None:
            self._conformance.judge("handshake", ["the answer to the handshake is no HTTP"])
            return
        faults = self._handshake_faults(head)
        self._conformance.judge("handshake", faults)
        self.established = not faults
        if not faults:
            self._subprotocol(head.headers.get("sec-websocket-protocol"))

    def _handshake_faults(self, head):
        version, _, status = head.first.partition(" ")
        if status.split(" ")[0] != SWITCHING or version != "HTTP/1.1":
            return [f"the handshake was answered with {head.first!r}"]
        headers, faults = head.headers, []
        if headers.get("upgrade", "").lower() != "websocket":
            faults.append("the answer has no header Upgrade: websocket")
        if "upgrade" not in words(headers.get("connection", "")):
            faults.append("the answer has no header Connection: Upgrade")
        key = self._request.headers.get("sec-websocket-key", "")
        if headers.get("sec-websocket-accept") != accepting(key):
            faults.append("Sec-WebSocket-Accept does not belong to the request's key")
        if headers.get("sec-websocket-extensions"):
            faults.append("an extension that was not offered: "
                          f"{headers['sec-websocket-extensions']}")
        return faults + self._late()

    def _late(self):
        seconds = self._now() - self._asked
        return [f"the handshake was answered after {seconds:.1f} s"] \
            if seconds > HANDSHAKE_SECONDS else []

    def _subprotocol(self, chosen):
        offered = self._request.headers.get("sec-websocket-protocol", "")
        self._conformance.see("subprotocol")
        if chosen is None:
            self._conformance.advise("subprotocol", f"{offered} was offered and none named; lumd "
                                     "takes the link all the same")
        elif chosen != offered:
            self.established = False
            self._conformance.violate("subprotocol", f"{chosen} instead of {offered}: lumd does "
                                      "not take the link")

    def agent_frame(self, frame: Frame) -> None:
        """What lumd sent."""
        if frame.opcode == frames.PING:
            if self._pings:
                self._conformance.judge("pong", ["a ping came while the one before it waited for "
                                                 "its pong"])
            self._pings.append(frame.payload)
        self._closed = self._closed or frame.opcode == frames.CLOSE

    def service_frame(self, frame: Frame) -> "str | None":
        """What the service sent; the text of a message that is whole now."""
        faults = frame.faults(by_server=True)
        if frame.opcode in frames.DATA:
            faults += self._sequence_faults(frame)
        text, more = self._message(frame)
        self._conformance.judge("frames", faults + more)
        if frame.opcode == frames.PONG and frame.payload in self._pings:
            del self._pings[:self._pings.index(frame.payload) + 1]
            self._conformance.see("pong")
        if frame.opcode == frames.CLOSE:
            self._closed = True
            self._conformance.see("closing")
        return text

    def _sequence_faults(self, frame):
        if frame.opcode == frames.BINARY:
            return ["a binary message"]
        if (frame.opcode == frames.CONTINUATION) != self._in_pieces:
            return ["a message begins within another" if self._in_pieces else
                    "a continuation of no message"]
        return []

    def _message(self, frame):
        """(text of the message that ends with this frame or None, what is wrong with it)"""
        if frame.opcode not in frames.DATA:
            return None, []
        if frame.opcode != frames.CONTINUATION:
            self._pieces = []
        self._pieces.append(frame.payload)
        self._in_pieces = not frame.final
        if self._in_pieces:
            return None, []
        whole, self._pieces = b"".join(self._pieces), []
        try:
            return whole.decode(), []
        except UnicodeDecodeError:
            return None, ["a message that is not UTF-8"]

    def ended(self, by_service: bool, reset: bool) -> None:
        """The connection is over."""
        if not self._answered:
            self._ended_early(by_service)
        elif self.established and by_service and not self._closed:
            self._conformance.see("closing")
            self._conformance.advise("closing", "the link was " + (
                "reset" if reset else "closed") + " without a Close frame")

    def _ended_early(self, by_service):
        if by_service:
            self._conformance.judge("handshake", ["the connection was closed instead of an answer "
                                                  "to the handshake"])
            return
        seconds = self._now() - self._asked if self._asked is not None else 0
        if seconds > HANDSHAKE_SECONDS - 1:  # lumd's own patience is no exact time
            self._conformance.judge("handshake", [f"no answer to the handshake in {seconds:.1f} s"])


def words(header: str) -> list[str]:
    """The words of a header that is a list."""
    return [word.strip().lower() for word in header.split(",")]


def accepting(key: str) -> str:
    """Sec-WebSocket-Accept for a Sec-WebSocket-Key."""
    return base64.b64encode(hashlib.sha1((key + ACCEPT_SALT).encode()).digest()).decode()
