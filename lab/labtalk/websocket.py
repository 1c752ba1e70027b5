"""A websocket server that can be rude: leave pings unanswered, reset, and send what is no text.

It stands on the part of python3-websockets that reads and makes frames, which releases 10 to 15
have in common; the servers that the library brings along differ from release to release.
"""
import asyncio
import collections
import http
import socket
import struct

from websockets.exceptions import WebSocketException
from websockets.frames import Opcode

try:
    from websockets.server import ServerProtocol
except ImportError:  # its name before release 11
    from websockets.server import ServerConnection as ServerProtocol

READ_SIZE = 1 << 18
CLOSE_PATIENCE = 1.0  # seconds until a peer that was sent a Close frame is cut off
NORMAL_CLOSURE, INVALID_DATA = 1000, 1007  # RFC 6455, 7.4.1
PONG_HEAD = 0x80 | Opcode.PONG  # first byte of a frame of one piece, RFC 6455, 5.2
RESET = struct.pack("ii", 1, 0)  # struct linger of socket(7): on, no wait


class LinkClosed(Exception):
    """Nobody reads any more."""


class Handshake(ServerProtocol):
    """One connection's frames. A client that offers no known subprotocol gets none."""

    def select_subprotocol(self, offered, *_):
        known = self.available_subprotocols or ()
        return next((name for name in known if name in offered), None)


class Link:
    """One connection. Iterating over it gives its messages, texts, and answers its pings.

    `on_ping()` is called for each ping; `answer_pings`: whether pongs go out.
    """

    def __init__(self, reader, writer, subprotocols):
        self.path = None
        self.answer_pings = True
        self.pings = 0
        self.on_ping = lambda: None
        self._reader, self._writer = reader, writer
        self._protocol = Handshake(subprotocols=subprotocols, max_size=None)
        self._pieces, self._messages = [], collections.deque()
        self._established = self._at_end = False
        self._closed = asyncio.Event()

    @property
    def subprotocol(self):
        return self._protocol.subprotocol

    @property
    def close_code(self):
        """Of the peer's Close frame; None while the link is open, 1006 when it ended without."""
        return self._protocol.close_code

    async def shake_hands(self, admit):
        """Whether the link is established. `admit(path)`: None, or the text of a refusal."""
        request, *frames = await self._first_events() or [None]
        if request is None:
            return False
        self.path = request.path
        refusal = admit(self.path)
        response = self._protocol.accept(request) if refusal is None else \
            self._protocol.reject(http.HTTPStatus.SERVICE_UNAVAILABLE, refusal)
        self._established = response.status_code == http.HTTPStatus.SWITCHING_PROTOCOLS
        self._protocol.send_response(response)
        self._take_in(frames)
        await self._drain()
        return self._established

    def __aiter__(self):
        return self

    async def __anext__(self):
        while not self._messages:
            if self._is_over():
                self._end()
                raise StopAsyncIteration
            self._take_in(await self._receive())
        return self._messages.popleft()

    async def send(self, message):
        """A text; or a list or an asynchronous iterator of texts, the pieces of one message."""
        if isinstance(message, str):
            return await self.send_payload(message.encode())
        self._must_be_open()
        first = True
        async for piece in _each(message):
            self._must_be_open()
            add = self._protocol.send_text if first else self._protocol.send_continuation
            add(piece.encode(), fin=False)
            first = False
            await self._drain()
        self._protocol.send_continuation(b"", fin=True)
        await self._drain()

    async def send_payload(self, payload):
        """One text frame with these bytes, whether they are UTF-8 or not."""
        self._must_be_open()
        self._protocol.send_text(payload)
        await self._drain()

    async def send_pong(self):
        """One that no ping asked for."""
        self._must_be_open()
        self._protocol.send_pong(b"")
        await self._drain()

    async def close(self):
        """With a Close frame; cut off when the peer does not answer it."""
        try:
            self._must_be_open()
            self._protocol.send_close(NORMAL_CLOSURE)
            await self._drain()
            await asyncio.wait_for(self._closed.wait(), CLOSE_PATIENCE)
        except (LinkClosed, asyncio.TimeoutError):
            self.abort()

    def abort(self):
        """Ends the connection without a Close frame; what was not sent yet is lost."""
        self._writer.transport.abort()

    def reset(self):
        """The same, and the peer gets a TCP reset."""
        hang_up(self._writer)

    async def wait_closed(self):
        await self._closed.wait()

    def finish(self):
        """The connection is over."""
        self._end()
        self._writer.close()
        self._closed.set()

    # Bytes in and out

    def _is_over(self):
        return self._at_end or self._writer.is_closing()

    def _end(self):
        if not self._at_end:
            self._at_end = True
            self._protocol.receive_eof()

    async def _first_events(self):
        """The request and what came with it; none of either when it is no request."""
        events = []
        try:
            while not events and not self._is_over():
                events = await self._receive()
        except (EOFError, ValueError, WebSocketException):  # release 10 lets them through
            self._at_end = True
        return events

    async def _receive(self):
        """What came: the request, then frames."""
        try:
            data = await self._reader.read(READ_SIZE)
        except ConnectionError:
            data = b""
        if data:
            self._protocol.receive_data(data)
        else:
            self._end()
        events = self._protocol.events_received()
        self._write(without_pongs=not self.answer_pings)
        return events

    def _take_in(self, frames):
        for frame in frames:
            if frame.opcode is Opcode.PING:
                self.pings += 1
                self.on_ping()
            elif frame.opcode in (Opcode.TEXT, Opcode.BINARY, Opcode.CONT):
                self._pieces.append(frame.data)
                if frame.fin:
                    self._finish_message()

    def _finish_message(self):
        whole, self._pieces = b"".join(self._pieces), []
        try:
            self._messages.append(whole.decode())
        except UnicodeDecodeError:
            self._protocol.fail(INVALID_DATA)
            self._write()

    def _must_be_open(self):
        if not self._established or self._protocol.close_sent is not None or self._is_over():
            raise LinkClosed

    def _write(self, without_pongs=False):
        for data in self._protocol.data_to_send():
            if not data:  # the end of the stream
                self._writer.close()
            elif not (without_pongs and data[0] == PONG_HEAD):
                self._writer.write(data)

    async def _drain(self):
        self._write()
        try:
            await self._writer.drain()
        except ConnectionError as lost:
            raise LinkClosed from lost


def hang_up(writer):
    """Ends a connection at once; the peer gets a TCP reset."""
    peer = writer.get_extra_info("socket")
    peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
    writer.transport.abort()


async def _each(pieces):
    if hasattr(pieces, "__aiter__"):
        async for piece in pieces:
            yield piece
    else:
        for piece in pieces:
            yield piece


class Server:
    """Listens on `port`, 0 for a free one; `handler(link)` runs for each established link.

    `admit(path)` may refuse a handshake: see Link.shake_hands.
    """

    def __init__(self, handler, subprotocols, admit=lambda path: None):
        self.port = None
        self._handler, self._subprotocols, self._admit = handler, subprotocols, admit
        self._server, self._connections = None, {}  # Link: the task that serves it

    async def start(self, host, port):
        self._server = await asyncio.start_server(self._serve, host, port)
        self.port = self._server.sockets[0].getsockname()[1]

    async def stop(self):
        """Closes the port and every link; returns when all handlers have."""
        self._server.close()
        connections = dict(self._connections)
        await asyncio.gather(*(link.close() for link in connections))
        await asyncio.gather(*connections.values(), return_exceptions=True)

    async def _serve(self, reader, writer):
        link = Link(reader, writer, self._subprotocols)
        self._connections[link] = asyncio.current_task()
        try:
            if await link.shake_hands(self._admit):
                await self._handler(link)
        except LinkClosed:
            pass
        finally:
            link.finish()
            del self._connections[link]
