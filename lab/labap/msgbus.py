"""A client of the local message bus, for asyncio.

One frame is a packed 17-byte header and its payload; multi-byte fields are in the byte order of
the machine that the bus serves (`order`: "<" or ">").
"""
import asyncio
import dataclasses
import json
import re
import struct
import sys

from labtalk.resources import resource

MAGIC = 0xB5
VERSION = 1
MAX_PAYLOAD = 16 * 1024 * 1024

DATA, ATTACH, UNDELIVERABLE = 0, 1, 2

HEADER_SIZE = 17
HOST_ORDER = "<" if sys.byteorder == "little" else ">"

NAMED = resource("msgbus_modules.h")

# The modules that have a name: their numbers by it.
MODULES = {name: int(number) for number, name in
           re.findall(r'^ *X\((\d+), "([^"]+)"', NAMED.read_text(encoding="utf-8"), re.MULTILINE)}

# Those that lumd speaks with, or is.
VAULTD = MODULES["vaultd"]
LUMD = MODULES["lumd"]
PORTAL = MODULES["portal"]
HUBD = MODULES["hubd"]
ORVANTA = MODULES["orvanta"]
GUARDD = MODULES["guardd"]
ORVANTA_EVENTS = MODULES["orvanta-events"]
SCAND = MODULES["scand"]
# The lab's own: whoever tells lumd about stations.
TRAPS = 20

# Who speaks as which module: all of lumd's are lumd.
NAMES = {**{number: name for name, number in MODULES.items()},
         ORVANTA: "lumd", ORVANTA_EVENTS: "lumd", TRAPS: "hostapd"}


class BusError(Exception):
    """The bus refused this client or cannot be understood."""


@dataclasses.dataclass
class Frame:
    """One unit on the wire."""
    dst: int
    payload: bytes = b""
    type: int = DATA
    src: int = 0
    seq: int = 1
    uid: int = 0

    def json(self):
        """The payload as an object, or None when it is none."""
        try:
            value = json.loads(self.payload)
        except ValueError:
            return None
        return value if isinstance(value, dict) else None


def pack(frame, order=HOST_ORDER):
    """The bytes of one frame."""
    header = struct.pack(order + "BBBBIIIB", MAGIC, VERSION, frame.src, frame.dst,
                         len(frame.payload), frame.seq, frame.uid, frame.type)
    return header + frame.payload


def unpack_header(header, order=HOST_ORDER):
    """(frame without payload, payload size); BusError for what no bus would send."""
    magic, version, src, dst, size, seq, uid, kind = struct.unpack(order + "BBBBIIIB", header)
    if magic != MAGIC or version != VERSION or size > MAX_PAYLOAD:
        raise BusError(f"malformed frame (magic {magic:#x}, version {version}, {size} bytes)")
    return Frame(dst=dst, type=kind, src=src, seq=seq, uid=uid), size


async def read_frame(reader, order=HOST_ORDER):
    """The next frame; None at the end of the stream."""
    try:
        frame, size = unpack_header(await reader.readexactly(HEADER_SIZE), order)
        frame.payload = await reader.readexactly(size)
    except (asyncio.IncompleteReadError, ConnectionError):
        return None
    return frame


class BusClient:
    """One module on the bus.

    `on_frame(client, frame)` is called for every data frame; an undeliverable frame goes to
    `on_undeliverable(client, frame)`.
    """

    def __init__(self, path, module, on_frame=None, on_undeliverable=None, order=HOST_ORDER):
        self.path, self.module, self.order = path, module, order
        self._on_frame, self._on_undeliverable = on_frame, on_undeliverable
        self._writer = self._task = None
        self._seq = 0

    @property
    def connected(self):
        return self._task is not None and not self._task.done()

    async def start(self, timeout=5.0):
        """Joins the bus; BusError when it is not there or refuses the module id."""
        try:
            reader, self._writer = await asyncio.open_unix_connection(self.path)
        except OSError as error:
            raise BusError(f"no message bus at {self.path}: {error.strerror}") from error
        self._write(Frame(dst=0, src=self.module, type=ATTACH, seq=self._next_seq()))
        try:
            answer = await asyncio.wait_for(read_frame(reader, self.order), timeout)
        except asyncio.TimeoutError:
            answer = None
        if answer is None or answer.type != ATTACH:
            await self.stop()
            raise BusError(f"the bus refuses module {self.module}")
        self._task = asyncio.create_task(self._receive(reader))

    async def stop(self):
        """Leaves the bus; harmless when not on it."""
        task, writer, self._task, self._writer = self._task, self._writer, None, None
        if task is not None:
            task.cancel()
            await asyncio.gather(task, return_exceptions=True)
        if writer is not None:
            writer.close()
            try:
                await writer.wait_closed()
            except OSError:
                pass

    def send(self, dst, message):
        """Sends an object, a text or bytes; returns the message number."""
        seq = self._next_seq()
        self._write(Frame(dst=dst, payload=_bytes(message), seq=seq, src=self.module))
        return seq

    def answer(self, request, message):
        """Sends to the request's sender, under the request's number."""
        self._write(Frame(dst=request.src, payload=_bytes(message), seq=request.seq,
                          src=self.module))

    def _next_seq(self):
        self._seq = self._seq % 0xFFFFFFFF + 1
        return self._seq

    def _write(self, frame):
        if self._writer is not None:
            self._writer.write(pack(frame, self.order))

    async def _receive(self, reader):
        try:
            while (frame := await read_frame(reader, self.order)) is not None:
                handler = {DATA: self._on_frame, UNDELIVERABLE: self._on_undeliverable}
                if (callback := handler.get(frame.type)) is not None:
                    callback(self, frame)
        except BusError as error:
            print(f"msgbus: module {self.module}: {error}", file=sys.stderr)


def text_of(message):
    """What a message is on the wire, as a text."""
    return _bytes(message).decode(errors="replace")


def _bytes(message):
    if isinstance(message, bytes):
        return message
    if isinstance(message, str):
        return message.encode()
    return json.dumps(message, separators=(",", ":"), ensure_ascii=False).encode()
