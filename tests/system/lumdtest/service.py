"""Websocket services for the agent to connect to."""
import asyncio
import json
import queue
import socket
import threading

from labservice.server import BORDERS
from labtalk import contract, websocket

from .waiting import PATIENCE, wait_until

SUBPROTOCOLS = ["websock-roaming", "websock-rrm", "websock-wids"]


class Link:
    """One established connection of the agent, for a test's own thread."""

    def __init__(self, link, loop):
        self._link = link
        self._loop = loop
        self._received = queue.Queue()
        self.path = link.path
        self.subprotocol = link.subprotocol
        self.closed = threading.Event()
        self.complaints = []  # about what the agent has sent

    def _run(self, coroutine, timeout=PATIENCE):
        return asyncio.run_coroutine_threadsafe(coroutine, self._loop).result(timeout)

    async def read(self):
        async for message in self._link:
            if self.subprotocol in BORDERS:
                self.complaints += contract.complaints(f"{BORDERS[self.subprotocol]}-from-lumd",
                                                       json.loads(message))
            self._received.put(message)
        self.closed.set()

    def send(self, message):
        """A text, or texts as the fragments of one message."""
        self._run(self._link.send(message))

    def send_all(self, messages, timeout=PATIENCE):
        async def run():
            for message in messages:
                await self._link.send(message)
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
        return self._link.pings

    def answer_pings(self, answer):
        self._link.answer_pings = answer

    def send_pong(self):
        """A pong that no ping asked for."""
        self._run(self._link.send_pong())

    def close(self):
        self._run(self._link.close())

    def reset(self):
        """Ends the connection with a TCP reset."""
        async def run():
            self._link.reset()
        self._run(run())


class Service:
    """A websocket server on a thread of its own."""

    def __init__(self, port=0):
        self.port = port
        self._links = queue.Queue()
        self._accepted = []
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
        server = websocket.Server(self._handle, SUBPROTOCOLS)
        await server.start("127.0.0.1", self.port)
        self.port = server.port
        self._ready.set()
        await self._stop.wait()
        await server.stop()

    async def _handle(self, link):
        link.answer_pings = self._answer_pings
        accepted = Link(link, self._loop)
        self._accepted.append(accepted)
        self._links.put(accepted)
        await accepted.read()

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
        assert [complaint for link in self._accepted for complaint in link.complaints] == []


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
