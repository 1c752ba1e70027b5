"""The virtual machine: QEMU without KVM, and the host's end of the guest's agent."""
import asyncio
import base64
import itertools
import json
import os
import pathlib
import shutil
import tempfile
import time
from collections.abc import Callable
from typing import Any

from labshow.process import TREE, LabError, Process

BOOT_WAIT = 900.0    # seconds; 30 to 60 on a machine that has time
CALL_WAIT = 120.0
LINE_LIMIT = 1 << 24
MEMORY_MB = 1024
PROCESSORS = 2
NEEDED = ("lumd", "msgbusd", "apd")  # of the programs


class GuestError(LabError):
    """What the guest could not do."""


class Machine:
    """A running machine with so many radios. Runs on one asyncio loop.

    `programs`: the folder of lumd and its daemons, at /srv in the guest. `events`: what the guest
    told by itself, in order."""

    def __init__(self, radios: int, programs: pathlib.Path):
        self.radios, self.programs = radios, pathlib.Path(programs)
        self.events: list[dict] = []
        self.listeners: list[Callable[[dict], None]] = []
        self._numbers = itertools.count(1)
        self._pending: dict[int, asyncio.Future] = {}
        self._arrival = asyncio.Event()
        self._writer = self._server = self._reading = self.folder = self._qemu = None
        self._ready = None

    async def start(self) -> None:
        """Up to the agent's first word."""
        missing = [name for name in NEEDED if not (self.programs / name).exists()]
        if missing:
            raise GuestError(f"no {', '.join(missing)} in {self.programs}: ./run --air builds them")
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="lumd-air-"))
        self._ready = asyncio.get_running_loop().create_future()
        self._server = await asyncio.start_server(self._called, "127.0.0.1", 0, limit=LINE_LIMIT)
        image = await asyncio.create_subprocess_exec(TREE / "scripts/air-image")
        if await image.wait() != 0:
            raise GuestError("scripts/air-image failed")
        self._qemu = Process("qemu", self.folder / "qemu.out")
        await self._qemu.start(self._command(), os.environ)
        deadline = time.monotonic() + BOOT_WAIT
        while not self._ready.done():
            if not self._qemu.running or time.monotonic() > deadline:
                raise GuestError(f"the guest did not call\n{self.console()}")
            await asyncio.wait([self._ready], timeout=0.2)

    def _command(self):
        port = self._server.sockets[0].getsockname()[1]
        kernel = TREE / "build/air/kernel"
        version = (kernel / "version").read_text(encoding="ascii").strip()
        command = ["qemu-system-x86_64", "-accel", "tcg,thread=multi", "-cpu", "max",
                   "-smp", PROCESSORS, "-m", MEMORY_MB, "-display", "none", "-monitor", "none",
                   "-serial", f"file:{self.folder / 'console.log'}", "-no-reboot",
                   "-kernel", kernel / f"boot/vmlinuz-{version}",
                   "-initrd", TREE / "build/air/initrd.gz",
                   "-append", "console=ttyS0 quiet apparmor=0 mitigations=off nokaslr nowatchdog "
                   f"panic=-1 radios={self.radios} port={port}",
                   "-nic", "user,model=virtio-net-pci"]
        for tag, path in (("root", "/"), ("tree", TREE), ("programs", self.programs)):
            command += ["-virtfs", f"local,path={path},mount_tag={tag},security_model=none,"
                        "readonly=on,multidevs=remap"]
        return command

    def console(self) -> str:
        """The end of what the guest's kernel said, and QEMU."""
        lines = []
        for name in ("qemu.out", "console.log"):
            path = self.folder / name
            if path.exists():
                lines += path.read_text(errors="replace").splitlines()[-30:]
        return "\n".join(lines)

    async def stop(self) -> None:
        """Off; harmless when called again."""
        if self._writer is not None:
            self._writer.close()
        if self._reading is not None:
            self._reading.cancel()
        if self._server is not None:
            self._server.close()
        if self._qemu is not None:
            await self._qemu.stop()
        if self.folder is not None:
            shutil.rmtree(self.folder, ignore_errors=True)

    @property
    def running(self) -> bool:
        return self._qemu is not None and self._qemu.running

    async def _called(self, reader, writer):
        self._writer, self._reading = writer, asyncio.current_task()
        try:
            while line := await reader.readline():
                self._take(json.loads(line))
        finally:
            for future in self._pending.values():
                if not future.done():
                    future.set_exception(GuestError("the guest has gone"))

    def _take(self, message):
        if "id" in message:
            future = self._pending.pop(message["id"], None)
            if future is None or future.done():
                return
            if "error" in message:
                future.set_exception(GuestError(message["error"]))
            else:
                future.set_result(message["result"])
            return
        if message["event"] == "ready":
            self._ready.set_result(None)
        self.events.append(message)
        for listener in self.listeners:
            listener(message)
        arrival, self._arrival = self._arrival, asyncio.Event()
        arrival.set()

    async def call(self, call: str, **arguments) -> Any:
        """What the agent's call returns; GuestError tells why not."""
        number = next(self._numbers)
        future = self._pending[number] = asyncio.get_running_loop().create_future()
        self._writer.write(json.dumps({"id": number, "call": call, **arguments}).encode() + b"\n")
        try:
            return await asyncio.wait_for(future, CALL_WAIT)
        except asyncio.TimeoutError:
            raise GuestError(f"no answer to {call} {arguments}\n{self.console()}") from None

    async def clock_ahead(self) -> float:
        """Seconds by which the guest's clock is before this machine's, to some milliseconds."""
        before = time.time()
        told = await self.call("clock")
        return told - (before + time.time()) / 2

    async def run(self, place: str, *command: str, status: int | None = 0) -> str:
        """The output of a command, which must end with that status unless it is None."""
        done = await self.call("run", place=place, command=list(map(str, command)))
        if status is not None and done["status"] != status:
            raise GuestError(f"{place}: {' '.join(map(str, command))}: status {done['status']}\n"
                             f"{done['output']}")
        return done["output"]

    async def read(self, place: str, path: str, offset: int = 0) -> bytes | None:
        """A file of the guest's from `offset` on, below 0 from the end; None when there is none."""
        text = await self.call("read", place=place, path=path, offset=offset)
        return None if text is None else base64.b64decode(text)

    async def wait_event(self, since: int, predicate: Callable[[dict], bool],
                         timeout: float = 30.0) -> dict | None:
        """The first event from place `since` in `events` on; None when none comes in time."""
        deadline = time.monotonic() + timeout
        while True:
            arrival = self._arrival
            for event in self.events[since:]:
                since += 1
                if predicate(event):
                    return event
            try:
                await asyncio.wait_for(arrival.wait(), max(deadline - time.monotonic(), 0.001))
            except asyncio.TimeoutError:
                if time.monotonic() >= deadline:
                    return None
