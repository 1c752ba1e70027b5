"""Websocket services for the agent to connect to."""
import asyncio
import queue
import socket
import struct
import threading

import websockets
from websockets.legacy.server import WebSocketServerProtocol

from .waiting import PATIENCE, wait_until

SUBPROTOCOLS = ["websock-roaming", "websock-rrm", "websock-wids"]


class _Protocol(WebSocketServerProtocol):
    """Counts the agent's pings and answers them only when told to."""
    agent_pings = 0
    answer_agent = True

    async def pong(self, data=b""):
        self.agent_pings += 1
        if self.answer_agent:
            await super().pong(data)


class Link:
    """One established connection of the agent, for a test's own thread."""

    def __init__(self, protocol, loop):
        self._protocol = protocol
        self._loop = loop
        self._received = queue.Queue()
        self.path = protocol.path
        self.subprotocol = protocol.subprotocol
        self.closed = threading.Event()

    def _run(self, coroutine, timeout=PATIENCE):
        return asyncio.run_coroutine_threadsafe(coroutine, self._loop).result(timeout)

    async def read(self):
        try:
            async for message in self._protocol:
                self._received.put(message)
        except websockets.ConnectionClosed:
            pass
        self.closed.set()

    def send(self, message):
        """A text, or a list of texts as the fragments of one message."""
        self._run(self._protocol.send(message))

    def send_all(self, messages, timeout=PATIENCE):
        async def run():
            for message in messages:
                await self._protocol.send(message)
        self._run(run(), timeout)

    def recv(self, timeout=PATIENCE):
        return self._received.get(timeout=timeout)

    def poll(self, timeout):
        """The next message, or None when none comes in that time."""
        try:
            return self._received.get(timeout=timeout)
        except queue.Empty:
            return None

    @property
    def pings(self):
        return self._protocol.agent_pings

    def answer_pings(self, answer):
        self._protocol.answer_agent = answer

    def send_pong(self):
        """A pong that no ping asked for."""
        async def run():
            await WebSocketServerProtocol.pong(self._protocol, b"")
        self._run(run())

    def close(self):
        self._run(self._protocol.close())

    def reset(self):
        """Ends the connection with a TCP reset."""
        async def run():
            peer = self._protocol.transport.get_extra_info("socket")
            peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            self._protocol.transport.abort()
        self._run(run())


class Service:
    """A websocket server on a thread of its own."""

    def __init__(self, port=0):
        self.port = port
        self._links = queue.Queue()
        self._answer_pings = True
        self._loop = asyncio.new_event_loop()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._ready = threading.Event()
        self._stop = None

    def start(self):
        self._thread.start()
        assert self._ready.wait(PATIENCE), "the service does not start"
        return self

    def answer_pings(self, answer):
        """Holds for connections from now on."""
        self._answer_pings = answer

    def _serve(self):
        asyncio.set_event_loop(self._loop)
        self._loop.run_until_complete(self._main())

    async def _main(self):
        self._stop = asyncio.Event()
        async with websockets.serve(self._handle, "127.0.0.1", self.port,
                                    subprotocols=SUBPROTOCOLS, create_protocol=_Protocol,
                                    compression=None, max_size=None, max_queue=None,
                                    ping_interval=None, close_timeout=0.2) as server:
            self.port = server.sockets[0].getsockname()[1]
            self._ready.set()
            await self._stop.wait()

    async def _handle(self, protocol):
        protocol.answer_agent = self._answer_pings
        link = Link(protocol, self._loop)
        self._links.put(link)
        await link.read()

    def accept(self, timeout=PATIENCE):
        """The next connection of the agent."""
        try:
            return self._links.get(timeout=timeout)
        except queue.Empty:
            raise AssertionError(f"the agent did not connect within {timeout:g} s") from None

    def nobody_connects(self, timeout):
        try:
            self._links.get(timeout=timeout)
        except queue.Empty:
            return True
        return False

    def stop(self):
        if self._thread.is_alive():
            self._loop.call_soon_threadsafe(self._stop.set)
            self._thread.join(PATIENCE)
            assert not self._thread.is_alive(), "the service does not stop"


class MuteServer:
    """Accepts every connection, reads, and never says a word."""

    def __init__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._connections = []
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    def _accept(self):
        while True:
            try:
                self._connections.append(self._listener.accept()[0])
            except OSError:
                return

    def wait_attempts(self, count):
        wait_until(lambda: len(self._connections) >= count, f"{count} attempts of the agent")

    def stop(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join(PATIENCE)
        for connection in self._connections:
            connection.close()


def unused_port():
    """A port that nobody listens on."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]
