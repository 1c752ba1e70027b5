"""A client of the message bus that shares no code with the agent, and the broker's process."""
import json
import os
import pathlib
import signal
import socket
import struct
import subprocess
import threading
import time

from labshow.policy import write_policy
from labtalk import contract

from .waiting import PATIENCE, wait_until

HEADER = struct.Struct("=BBBBIIIB")
MAGIC, VERSION = 0xB5, 1
DATA, ATTACH, UNDELIVERABLE = 0, 1, 2
LUMD, PORTAL, ORVANTA, ORVANTA_EVENTS = 2, 3, 28, 31
MAX_PAYLOAD = 16 * 1024 * 1024


def expect_as_the_schemas_want(border, payload):
    """Of what the portal module and the link tell each other; all else is the service's."""
    if b"internal-ipc" not in payload[:100]:
        return
    message = json.loads(payload)
    if message.get("service") == "internal-ipc":
        assert contract.complaints(border, message) == []


class BusClosed(Exception):
    """The broker ended the connection."""


def frame(dst, payload=b"", kind=DATA, src=0, seq=1, magic=MAGIC, version=VERSION, size=None):
    """The bytes of one frame; a wrong magic, version or size is the caller's wish."""
    size = len(payload) if size is None else size
    return HEADER.pack(magic, version, src, dst, size, seq, 0, kind) + payload


class BusClient:
    """One attached module. send() and recv() may be used by one thread each."""

    def __init__(self, path, module):
        self.module = module
        self._buffer = bytearray()
        self._seq = 0
        self.undeliverable = 0  # own messages that the broker sent back, as far as recv() saw them
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(str(path))
        self.send_raw(frame(0, kind=ATTACH, src=module))
        kind, answer_to, _, _ = self._next()
        if kind != ATTACH or answer_to != module:
            raise BusClosed("a strange answer to the attach frame")

    def send_raw(self, data):
        self.socket.sendall(data)

    def send(self, dst, payload):
        self._seq += 1
        if isinstance(payload, str):
            payload = payload.encode()
        if dst == LUMD:
            expect_as_the_schemas_want("portal-to-lumd", payload)
        self.send_raw(frame(dst, payload, seq=self._seq))

    def recv(self, timeout=PATIENCE):
        """The payload of the next data frame."""
        self.socket.settimeout(timeout)
        while True:
            kind, _, sender, payload = self._next()
            if kind == DATA:
                if (sender, self.module) == (LUMD, PORTAL):
                    expect_as_the_schemas_want("portal-from-lumd", payload)
                return payload
            self.undeliverable += 1

    def poll(self, timeout):
        """The same, or None when nothing comes in that time."""
        try:
            return self.recv(timeout)
        except (TimeoutError, socket.timeout):
            return None

    def _next(self):
        while True:
            if len(self._buffer) >= HEADER.size:
                magic, version, src, dst, size, _, _, kind = HEADER.unpack_from(self._buffer)
                assert (magic, version) == (MAGIC, VERSION), "the broker sent a malformed frame"
                end = HEADER.size + size
                if len(self._buffer) >= end:
                    payload = bytes(self._buffer[HEADER.size:end])
                    del self._buffer[:end]
                    return kind, dst, src, payload
            piece = self.socket.recv(1 << 20)
            if not piece:
                raise BusClosed("the broker closed the connection")
            self._buffer += piece

    def close(self):
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Flood:
    """A module that sends to another as fast as it can while the with block runs."""

    BURST = 1000

    def __init__(self, path, module, to):
        self.client = BusClient(path, module)
        self.client.socket.settimeout(None)
        self.burst = frame(to, b"{}") * self.BURST
        # What the broker gives back must be taken, or it reads no more.
        self.threads = [threading.Thread(target=self._until_the_end, args=(step,))
                        for step in (lambda: self.client.send_raw(self.burst),
                                     lambda: self.client.socket.recv(1 << 20) or self._end())]

    def _until_the_end(self, step):
        try:
            while True:
                step()
        except OSError:
            pass

    @staticmethod
    def _end():
        raise ConnectionError("the broker closed the connection")

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self.client.socket.shutdown(socket.SHUT_RDWR)
        for thread in self.threads:
            thread.join()
        self.client.close()


class Broker:
    """msgbusd on a private socket."""

    def __init__(self, program, socket_path):
        self.program = program
        self.path = socket_path
        self.policy = write_policy(pathlib.Path(f"{socket_path}.conf"))
        self.process = None

    def start(self):
        self.process = subprocess.Popen([self.program, "-s", self.path, "-c", self.policy])
        wait_until(self._listens, "msgbusd listens")
        return self

    def _listens(self):
        assert self.process.poll() is None, f"msgbusd ended with {self.process.returncode}"
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as probe:
            return probe.connect_ex(str(self.path)) == 0

    def stop(self):
        self._end(signal.SIGTERM)

    def kill(self):
        self._end(signal.SIGKILL)

    def _end(self, number):
        if self.process is None:
            return
        os.kill(self.process.pid, number)
        status = self.process.wait(PATIENCE)
        self.process = None
        if number == signal.SIGTERM:
            assert status == 0, f"msgbusd ended with status {status}"

    def client(self, module):
        """Attaches; tries again while the module's earlier connection is still being closed."""
        deadline = time.monotonic() + PATIENCE
        while True:
            try:
                return BusClient(self.path, module)
            except (BusClosed, ConnectionError):
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.02)
