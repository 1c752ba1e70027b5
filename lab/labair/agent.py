"""The part of the second lab that runs in the guest: carries out what the host asks.

It calls the host, says that it is there, and takes one JSON object a line: {"id", "call", and what
the call takes}. Each is answered with {"id", "result"} or {"id", "error"}; what happens by itself
is {"event", ...}. A place is a network and mount namespace with /run and /tmp of its own, "" the
machine's own.
"""
import asyncio
import base64
import ctypes
import json
import os
import pathlib
import signal
import socket
import sys
import time

from .nl80211 import Nl80211

LINE_LIMIT = 1 << 24
CLONE_NEWNET, CLONE_NEWNS = 0x40000000, 0x00020000
CONTROL_WAIT = 5.0      # seconds for the answer of a control socket
CONTROL_BYTES = 65536
MAX_TEXT = 1 << 20      # bytes of a command's output that are told

_libc = ctypes.CDLL(None, use_errno=True)


def set_network(descriptor):
    if _libc.setns(descriptor, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


class Place:
    """A namespace, kept by a process that does nothing."""

    def __init__(self, keeper=None):
        self.keeper = keeper
        self._kernel = None

    @property
    def pid(self):
        return self.keeper.pid if self.keeper is not None else os.getpid()

    def command(self, words):
        if self.keeper is None:
            return words
        return ["nsenter", "-t", str(self.pid), "-n", "-m", *words]

    def path(self, path):
        """A path of the place's as this process finds it."""
        return pathlib.Path(f"/proc/{self.pid}/root{path}")

    @property
    def kernel(self):
        if self._kernel is None:
            own = os.open("/proc/self/ns/net", os.O_RDONLY)
            there = os.open(f"/proc/{self.pid}/ns/net", os.O_RDONLY)
            try:
                set_network(there)
                try:
                    self._kernel = Nl80211()
                finally:
                    set_network(own)
            finally:
                os.close(own)
                os.close(there)
        return self._kernel


class Attachment:
    """A datagram socket at the control socket of hostapd or wpa_supplicant."""

    _count = 0

    def __init__(self, place, path):
        Attachment._count += 1
        # The other side answers to this name, which must mean the same to it.
        self._own = place.path(f"/tmp/agent-{Attachment._count}")
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(str(self._own))
        try:
            self.socket.connect(str(place.path(path)))
        except OSError:
            self.close()
            raise
        self.socket.setblocking(False)

    def close(self):
        self.socket.close()
        self._own.unlink(missing_ok=True)

    async def ask(self, command):
        loop = asyncio.get_running_loop()
        self.socket.send(command.encode())
        while True:
            text = (await asyncio.wait_for(loop.sock_recv(self.socket, CONTROL_BYTES),
                                           CONTROL_WAIT)).decode(errors="replace")
            if not text.startswith("<"):
                return text


class Agent:
    """Serves one host until it goes away."""

    def __init__(self, reader, writer):
        self._reader, self._writer = reader, writer
        self._places = {"": Place()}
        self._children = {}
        self._tasks = set()

    async def serve(self):
        self.tell(event="ready")
        while line := await self._reader.readline():
            self._keep(self._answer(json.loads(line)))

    def _keep(self, coroutine):
        task = asyncio.create_task(coroutine)
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    def tell(self, **members):
        self._writer.write(json.dumps({**members, "t": time.time()}).encode() + b"\n")

    async def _answer(self, request):
        number, call = request.pop("id"), request.pop("call")
        try:
            self.tell(id=number, result=await getattr(self, f"call_{call}")(**request))
        except Exception as error:  # whatever it is, it is the host's to judge
            self.tell(id=number, error=f"{type(error).__name__}: {error}")

    # Calls

    async def call_place(self, name, commands=()):
        """Makes a place and runs commands in it."""
        script = "mount -t tmpfs run /run && mount -t tmpfs tmp /tmp && mount -t sysfs sys /sys " \
            "&& mkdir -p /run/lock && ip link set lo up && echo made && exec sleep infinity"
        keeper = await asyncio.create_subprocess_exec(
            "unshare", "-n", "-m", "sh", "-c", script, stdin=asyncio.subprocess.DEVNULL,
            stdout=asyncio.subprocess.PIPE, stderr=asyncio.subprocess.PIPE)
        if await keeper.stdout.readline() != b"made\n":
            why = (await keeper.stderr.read()).decode(errors="replace").strip()
            raise OSError(f"no place {name}: {why}")
        self._places[name] = Place(keeper)
        for command in commands:
            done = await self.call_run(name, command)
            if done["status"] != 0:
                raise OSError(f"{command}: {done['output']}")
        return keeper.pid

    async def call_run(self, place, command, timeout=60, environment=None):
        """A command to its end: status and what it said."""
        child = await asyncio.create_subprocess_exec(
            *self._places[place].command(command), env={**os.environ, **(environment or {})},
            stdin=asyncio.subprocess.DEVNULL, stdout=asyncio.subprocess.PIPE,
            stderr=asyncio.subprocess.STDOUT)
        try:
            output = (await asyncio.wait_for(child.communicate(), timeout))[0]
        except asyncio.TimeoutError:
            child.kill()
            raise
        return {"status": child.returncode, "output": output[-MAX_TEXT:].decode(errors="replace")}

    async def call_start(self, place, command, log, environment=None):
        """A process that goes on; what it says goes to a file of the machine's. Its number."""
        with open(log, "ab") as output:
            child = await asyncio.create_subprocess_exec(
                *self._places[place].command(command), env={**os.environ, **(environment or {})},
                stdin=asyncio.subprocess.DEVNULL, stdout=output, stderr=output,
                start_new_session=True)
        self._children[child.pid] = child
        self._keep(self._tell_end(child))
        return child.pid

    async def _tell_end(self, child):
        await child.wait()
        self.tell(event="end", pid=child.pid, status=child.returncode)

    async def call_signal(self, pid, number):
        """False when the process had ended."""
        child = self._children.get(pid)
        if child is None or child.returncode is not None:
            return False
        child.send_signal(signal.Signals(number))
        return True

    async def call_write(self, place, path, text):
        file = self._places[place].path(path)
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text, encoding="utf-8")

    async def call_read(self, place, path, offset=0):
        """The bytes from `offset` on, base64; null when there is no such file. Below 0 it counts
        from the end."""
        try:
            with open(self._places[place].path(path), "rb") as file:
                end = file.seek(0, os.SEEK_END)
                file.seek(offset if offset >= 0 else max(end + offset, 0))
                return base64.b64encode(file.read(LINE_LIMIT // 2)).decode()
        except FileNotFoundError:
            return None

    async def call_interfaces(self, place):
        return self._places[place].kernel.interfaces()

    async def call_stations(self, place, ifname):
        return self._places[place].kernel.stations(ifname)

    async def call_survey(self, place, ifname):
        return self._places[place].kernel.survey(ifname)

    async def call_control(self, place, path, command):
        """The answer of a control socket."""
        attachment = Attachment(self._places[place], path)
        try:
            return await attachment.ask(command)
        finally:
            attachment.close()

    async def call_attach(self, place, path, name):
        """From now on every event of a control socket is told under that name."""
        attachment = Attachment(self._places[place], path)
        if (await attachment.ask("ATTACH")).strip() != "OK":
            attachment.close()
            raise OSError(f"{path} lets nobody listen")
        asyncio.get_running_loop().add_reader(attachment.socket, self._hear, attachment, name)

    def _hear(self, attachment, name):
        try:
            text = attachment.socket.recv(CONTROL_BYTES).decode(errors="replace")
        except BlockingIOError:
            return
        except OSError:
            asyncio.get_running_loop().remove_reader(attachment.socket)
            attachment.close()
            return
        self.tell(event="control", name=name, text=text.partition(">")[2])

    async def call_facts(self, pid):
        """Of a process: Pss and private memory in KiB, threads, descriptors; null when there is
        none."""
        folder = pathlib.Path(f"/proc/{pid}")
        try:
            sizes = dict(line.split(":", 1) for line in
                         (folder / "smaps_rollup").read_text(encoding="ascii").splitlines()[1:])
            return {"pss": int(sizes["Pss"].split()[0]),
                    "private": int(sizes["Private_Dirty"].split()[0]),
                    "threads": len(list((folder / "task").iterdir())),
                    "descriptors": len(list((folder / "fd").iterdir()))}
        except (FileNotFoundError, ProcessLookupError):
            return None

    async def call_clock(self):
        return time.time()

    async def call_end(self):
        """The machine goes off after this process."""
        sys.exit(0)


async def main():
    reader, writer = await asyncio.open_connection(sys.argv[1], int(sys.argv[2]), limit=LINE_LIMIT)
    await Agent(reader, writer).serve()


if __name__ == "__main__":
    asyncio.run(main())
