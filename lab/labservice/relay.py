"""A relay in front of somebody else's service: lumd's bytes go there and the service's come back as
they are, and a listener reads along.

Only the request's Host and Origin are others, those that lumd would send to the service itself.
Pings, pongs, fragments, Close frames, the end of a stream and a reset pass like everything else.
"""
import asyncio
import os
import re

from labtalk.frames import HEAD_END, LONGEST_HEAD, FrameReader, Head
from labtalk.websocket import hang_up

from .endpoint import Endpoint

READ_SIZE = 1 << 16
CONNECT_PATIENCE = 5.0  # real seconds
HERE = "127.0.0.1"
AGENT, SERVICE = "lumd", "service"  # who speaks


class Listener:
    """What a relay tells of one connection, in this order. Times are the listener's own."""

    def unreachable(self, reason: str) -> None:
        """The service took no connection; lumd's is cut off, and nothing more is told."""

    def request(self, head: Head) -> None:
        """lumd asks for a websocket."""

    def response(self, head: "Head | None") -> None:
        """The service's answer; None when it begins like no HTTP response, or never ends."""

    def frame(self, speaker: str, frame) -> None:
        """A whole frame of either side, after the handshake."""

    def ended(self, speaker: str, reset: bool) -> None:
        """The connection is over: `speaker` was the first to end it."""


class Relay:
    """Listens on a free port of this machine. `make_listener()` gives each connection's."""

    def __init__(self, endpoint: Endpoint, make_listener):
        self.endpoint, self.port = endpoint, None
        self._make_listener = make_listener
        self._server, self._passages = None, {}  # Passage: the task that serves it

    async def start(self) -> None:
        self._server = await asyncio.start_server(self._serve, HERE, 0)
        self.port = self._server.sockets[0].getsockname()[1]

    async def stop(self) -> None:
        """Cuts off what is connected still."""
        if self._server is None:
            return
        self._server.close()
        tasks = list(self._passages.values())
        self.drop()
        await asyncio.gather(*tasks, return_exceptions=True)

    @property
    def connected(self) -> bool:
        return bool(self._passages)

    def drop(self) -> None:
        """Cuts every connection on both sides, as a network that fails."""
        for passage in list(self._passages):
            passage.cut()

    async def _serve(self, reader, writer):
        passage = Passage(self.endpoint, self._make_listener(), reader, writer)
        self._passages[passage] = asyncio.current_task()
        try:
            await passage.run()
        finally:
            passage.cut()
            del self._passages[passage]


class Passage:
    """One connection of lumd and the one to the service that it became."""

    def __init__(self, endpoint, listener, reader, writer):
        self._endpoint, self._listener = endpoint, listener
        self._agent = (reader, writer)
        self._service = None
        self._over = False

    def cut(self) -> None:
        for _, writer in filter(None, (self._agent, self._service)):
            writer.transport.abort()

    async def run(self) -> None:
        """Until both sides have ended."""
        try:
            self._service = await asyncio.wait_for(
                asyncio.open_connection(self._endpoint.host, self._endpoint.port),
                CONNECT_PATIENCE)
        except asyncio.TimeoutError:
            self._listener.unreachable(f"no connection within {CONNECT_PATIENCE:g} s")
        except OSError as error:
            self._listener.unreachable(reason_of(error))
        else:
            to_service = self._pump(self._agent, self._service, AGENT, self._requests())
            to_agent = self._pump(self._service, self._agent, SERVICE, self._responses())
            await asyncio.gather(to_service, to_agent)

    async def _pump(self, source, target, speaker, reading):
        """Carries one direction; `reading` is sent what came and gives what goes on."""
        reader, writer = source[0], target[1]
        next(reading)
        try:
            while data := await reader.read(READ_SIZE):
                writer.write(reading.send(data))
                if not await self._taken(writer):
                    return  # the other direction tells how that side ended
            self._end(speaker, reset=False)
            end_stream(writer)
        except ConnectionError:
            self._end(speaker, reset=True)
            hang_up(writer)

    @staticmethod
    async def _taken(writer):
        try:
            await writer.drain()
        except ConnectionError:
            return False
        return True

    def _end(self, speaker, reset):
        if not self._over:
            self._over = True
            self._listener.ended(speaker, reset)

    def _requests(self):
        """lumd's direction: the head goes on as a whole, addressed to the service."""
        held = b""
        while HEAD_END not in held and len(held) < LONGEST_HEAD:
            held += yield b""
        head, end, rest = held.partition(HEAD_END)
        self._listener.request(Head.parse(head))
        out = addressed_to(self._endpoint.host, head) + end + rest
        yield from self._frames(AGENT, out, rest)

    def _responses(self):
        """The service's direction: nothing is held back, what comes is only looked at."""
        held, data = b"", b""
        while HEAD_END not in held and len(held) < LONGEST_HEAD and may_be_http(held):
            data = yield data
            held += data
        head, end, rest = held.partition(HEAD_END)
        if not end or not may_be_http(held):
            self._listener.response(None)
            while True:
                data = yield data
        self._listener.response(Head.parse(head))
        yield from self._frames(SERVICE, data, rest)

    def _frames(self, speaker, out, rest):
        """`out` goes on first; `rest` of it are bytes of frames."""
        reader = FrameReader()
        while True:
            for frame in reader.feed(rest):
                self._listener.frame(speaker, frame)
            out = rest = yield out


def may_be_http(held: bytes) -> bool:
    return held[:5] == b"HTTP/"[:len(held)]


def addressed_to(host: str, head: bytes) -> bytes:
    """A request for this machine as a request for another host."""
    here, there = HERE.encode(), host.encode()
    return re.sub(rb"(?im)^((?:Host|Origin):[^\r\n]*?)" + re.escape(here),
                  lambda found: found.group(1) + there, head)


def end_stream(writer) -> None:
    """Nothing more is said in this direction; what the peer says is still heard."""
    try:
        if not writer.is_closing():
            writer.write_eof()
    except OSError:
        pass  # the peer has gone before


def reason_of(error: OSError) -> str:
    """In words; several addresses of a host may have failed at once."""
    if isinstance(error, ConnectionError) and error.errno:
        return os.strerror(error.errno)
    return error.strerror or str(error)
