"""Websocket services for the agent to connect to."""
import asyncio
import base64
import contextlib
import hashlib
import json
import queue
import re
import socket
import struct
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


def refusing(status):
    """An answer without the upgrade."""
    return f"HTTP/1.1 {status} No\r\nContent-Length: 0\r\n\r\n".encode()


def upgrading(subprotocol=None, key=None, then=b""):
    """An answer with it (RFC 6455, 4.2.2), and what follows; `subprotocol` and `key` instead of
    the right ones."""
    def answer(request):
        def header(name):
            return re.search(rf"(?i){name}: (.*)\r\n", request)[1]
        accept = base64.b64encode(hashlib.sha1(
            (header("Sec-WebSocket-Key") + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11").encode()
        ).digest()).decode()
        return ("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                f"Connection: Upgrade\r\nSec-WebSocket-Accept: {key or accept}\r\n"
                f"Sec-WebSocket-Protocol: {subprotocol or header('Sec-WebSocket-Protocol')}"
                "\r\n\r\n").encode() + then
    return answer


def closing(code=None, reason=b""):
    """A Close frame (RFC 6455, 5.5.1)."""
    data = b"" if code is None else struct.pack(">H", code) + reason
    return bytes([0x88, len(data)]) + data


class ScriptedServer:
    """Gives the request of each connection the next of these answers, the last one for ever, and
    ends it. An answer: bytes, or what makes them of the request; None: silence."""

    def __init__(self, answers):
        self._answers = list(answers)
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self):
        with contextlib.suppress(OSError):  # the end
            while True:
                peer, _ = self._listener.accept()
                with peer, contextlib.suppress(ConnectionError):
                    self._talk(peer)

    def _talk(self, peer):
        request = b""
        while b"\r\n\r\n" not in request and (piece := peer.recv(4096)):
            request += piece
        answer = self._answers.pop(0) if len(self._answers) > 1 else self._answers[0]
        if callable(answer):
            answer = answer(request.decode())
        if answer is not None:
            peer.sendall(answer)
            peer.shutdown(socket.SHUT_WR)
        while peer.recv(4096):  # unread, it would make a reset of the end
            pass

    def stop(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        self._thread.join(PATIENCE)


@contextlib.contextmanager
def full_port():
    """A port whose host does not answer: nobody takes the connections that wait there."""
    with socket.socket() as listener, contextlib.ExitStack() as waiting:
        listener.bind(("127.0.0.1", 0))
        listener.listen(0)
        for peer in [waiting.enter_context(socket.socket()) for _ in range(3)]:
            peer.setblocking(False)
            peer.connect_ex(listener.getsockname())
        yield listener.getsockname()[1]


def unused_port():
    """A port that nobody listens on."""
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]
