"""A whole lab: message bus, access point, service and one lumd, on a private folder.

`Lab` is for asyncio programs (./run). `running_lab` is for tests: it runs a Lab on a thread of its
own and gives a `LabHandle` whose calls block, with a bounded wait and a message that shows the end
of the conversation when something did not come.
"""
import asyncio
import collections
import contextlib
import ctypes
import os
import pathlib
import shlex
import shutil
import signal
import tempfile
import threading

from labservice.server import Service

from . import journal as journals, scenario as scenarios
from .accesspoint import AccessPoint
from .clock import LabClock
from .journal import Journal

TREE = pathlib.Path(__file__).resolve().parent.parent.parent
URL_KEYS = {"rrm": "orvanta_service_url", "portal": "roam_service_url",
            "wids": "mac-list-service-url"}
PR_SET_PDEATHSIG = 1
ELF_DATA, ELF_LITTLE_ENDIAN = 5, 1  # elf(5): e_ident[EI_DATA], ELFDATA2LSB
EVERY_LOG_LEVEL = 65535
WAIT = 30.0           # real seconds; generous, since a build may be running beside the tests
STOP_PATIENCE = 10.0  # real seconds until SIGKILL
SHOWN_EVENTS, SHOWN_LOG_LINES = 12, 15
LIBRARY_NOISE = "->libwebsocket-debug>"
LAST_WORDS = 0.5      # real seconds in which the end of a dead lumd's talk still arrives

Build = collections.namedtuple("Build", "bin lib emulator", defaults=((),))


class LabError(Exception):
    """What did not happen, and what happened instead."""


def find_build(preset="release"):
    """Where the programs and the preload libraries are: $LUMD_BIN_DIR and $LUMD_LIB_DIR, or the
    folders of a preset. $LUMD_EMULATOR is the command that runs programs of another machine."""
    build = TREE / "build" / preset
    return Build(pathlib.Path(os.environ.get("LUMD_BIN_DIR", build / "bin")),
                 pathlib.Path(os.environ.get("LUMD_LIB_DIR", build / "lib")),
                 tuple(shlex.split(os.environ.get("LUMD_EMULATOR", ""))))


def byte_order(program):
    """"<" or ">" as an ELF file says it."""
    with open(program, "rb") as file:
        return "<" if file.read(ELF_DATA + 1)[ELF_DATA] == ELF_LITTLE_ENDIAN else ">"


_libc = ctypes.CDLL(None)


def _die_with_parent():
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


class Process:
    """A child program in a session of its own; its output goes to a file."""

    def __init__(self, name, output):
        self.name, self.output = name, pathlib.Path(output)
        self._child = None

    async def start(self, command, environment):
        with open(self.output, "ab") as output:
            self._child = await asyncio.create_subprocess_exec(
                *map(str, command), env=environment, stdin=asyncio.subprocess.DEVNULL,
                stdout=output, stderr=output, start_new_session=True,
                preexec_fn=_die_with_parent)

    @property
    def pid(self):
        return self._child.pid if self._child is not None else None

    @property
    def running(self):
        return self._child is not None and self._child.returncode is None

    @property
    def status(self):
        return self._child.returncode if self._child is not None else None

    def signal(self, number):
        if self.running:
            self._child.send_signal(number)

    async def wait(self, timeout=STOP_PATIENCE):
        """The exit status (negative: the signal); LabError when it does not end."""
        try:
            return await asyncio.wait_for(self._child.wait(), timeout)
        except asyncio.TimeoutError:
            raise LabError(f"{self.name} did not end within {timeout:g} s") from None

    async def stop(self):
        """SIGTERM, then SIGKILL; the exit status."""
        if self._child is None:
            return None
        self.signal(signal.SIGTERM)
        try:
            return await self.wait()
        except LabError:
            self.signal(signal.SIGKILL)
            return await self._child.wait()


class Lab:
    """`mode`: rrm, portal or wids (the scenario's when None). `speed`: how much faster than real
    time lumd and the lab run. `config`: more lines for lumd's configuration file."""

    def __init__(self, scenario="minimal", mode=None, build=None, speed=1.0, config=(),
                 environment=None):
        self.scenario = scenarios.load(scenario) if isinstance(scenario, (str, os.PathLike)) \
            else scenarios.complete(scenario)
        self.mode = mode or self.scenario["mode"]
        self.build, self.speed = build or find_build(), speed
        self.extra_config, self.extra_environment = list(config), dict(environment or {})
        self.journal = Journal()
        self.folder = self.clock = self.ap = self.service = self.broker = self.lumd = None

    async def start(self, start_lumd=True):
        try:
            await self._start(start_lumd)
        except BaseException:
            await self.stop()
            raise

    async def _start(self, start_lumd):
        for program in (self.build.bin / "msgbusd", self.build.bin / "lumd",
                        self.build.lib / "liblabkernel.so"):
            if not program.exists():
                raise LabError(f"{program} is not built")
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="lumd-lab-"))
        self.bus_path = self.folder / "bus.sock"
        self.lumd_log = self.folder / "lumd.log"
        self.broker = Process("msgbusd", self.folder / "msgbusd.out")
        await self.broker.start([*self.build.emulator, self.build.bin / "msgbusd"],
                                self._environment())
        await self._bus_is_there()
        order = byte_order(self.build.bin / "lumd")
        self.clock = LabClock(self.speed, self.folder / "clock", order)
        self.ap = AccessPoint(self.scenario, self.folder / "root", self.bus_path,
                              self.folder / "platform", self.clock, order, self.journal)
        await self.ap.start()
        self.service = Service(journal=self.journal)
        self.service.subscribe_answers = [{"status": "success", "code": 200,
                                           **self.scenario["service"]}]
        await self.service.start(self.folder / "service.sock")
        self.write_config()
        self.lumd = Process("lumd", self.folder / "lumd.out")
        if start_lumd:
            await self.start_lumd()

    async def _bus_is_there(self, timeout=10.0):
        deadline = asyncio.get_running_loop().time() + timeout
        while not await self._bus_listens():
            if not self.broker.running or asyncio.get_running_loop().time() > deadline:
                text = self.broker.output.read_text(errors="replace").strip()
                raise LabError(f"msgbusd does not listen (status {self.broker.status}): {text}")
            await asyncio.sleep(0.02)

    async def _bus_listens(self):
        """A socket file exists a moment before anybody listens on it."""
        try:
            _, writer = await asyncio.open_unix_connection(str(self.bus_path))
        except OSError:
            return False
        writer.close()
        return True

    def write_config(self):
        lines = [f"{URL_KEYS[self.mode]}=ws://127.0.0.1:{self.service.port}/agent",
                 "initial_connection_delay=1", "max_connection_delay=8",
                 f"ap_location={self.scenario['ap-location']}", f"log_level={EVERY_LOG_LEVEL}",
                 f"log_file={self.lumd_log}", f"mac-list-id={self.scenario['mac-list-id']}",
                 *self.extra_config]
        self.config_path = self.folder / "lumd.conf"
        self.config_path.write_text("\n".join(lines) + "\n", encoding="utf-8")

    def _environment(self, **more):
        return {**os.environ, "MSGBUS_SOCKET": str(self.bus_path), **more}

    def lumd_environment(self):
        """What lumd is started with."""
        preload = [self.build.lib / "liblabkernel.so"]
        if self.speed != 1:
            preload.append(self.build.lib / "liblabclock.so")
        if "LAB_FAULTS" in self.extra_environment:
            preload.insert(0, self.build.lib / "liblabfaults.so")
        options = ":".join(filter(None, [os.environ.get("ASAN_OPTIONS"),
                                         "verify_asan_link_order=0"]))
        own = {"LAB_ROOT": str(self.ap.root), "LUMD_PLATFORM_DIR": str(self.folder / "platform"),
               "LD_PRELOAD": " ".join(map(str, preload)), "ASAN_OPTIONS": options,
               "LAB_CLOCK_FILE": str(self.folder / "clock"),
               "PATH": f"{TREE / 'lab' / 'bin'}:{os.environ.get('PATH', '')}"}
        return self._environment(**{**own, **self.extra_environment})

    async def start_lumd(self):
        await self.lumd.start([*self.build.emulator, self.build.bin / "lumd", "-f",
                               self.config_path], self.lumd_environment())

    async def stop(self):
        """Ends everything in reverse order; harmless when called again. lumd's exit status."""
        status = None
        if self.lumd is not None:
            status = await self.lumd.stop()
        for part in (self.service, self.ap, self.broker):
            if part is not None:
                await part.stop()
        if self.folder is not None:
            shutil.rmtree(self.folder, ignore_errors=True)
        return status

    # Waiting

    def mark(self):
        """A place in the conversation to wait from."""
        return len(self.journal.events)

    async def wait(self, what, since=0, timeout=WAIT, predicate=None, **match):
        """The first event of that kind after `since`; LabError tells what came instead."""
        waiting = asyncio.create_task(
            self.journal.wait(since, timeout, predicate, what=what, **match))
        try:
            was_running = self.lumd.running
            while not waiting.done():
                await asyncio.wait([waiting], timeout=LAST_WORDS)
                if was_running and not self.lumd.running:
                    await asyncio.wait([waiting], timeout=LAST_WORDS)
                    break
        finally:
            waiting.cancel()
        event = waiting.result() if waiting.done() and not waiting.cancelled() else None
        if event is None:
            raise LabError(self.explain(f"no {what!r} {match or ''} within {timeout:g} s"))
        return event

    async def wait_subscribed(self, timeout=30.0):
        """The subscribe request, once its answer has been accepted."""
        event = await self.wait("subscribe-request", timeout=timeout)
        await self.wait("subscribe-response", event["n"])
        flag = "/tmp/.orvanta-connected"
        if not await _until(lambda: self.ap.files.exists(flag), timeout):
            raise LabError(self.explain(f"{flag} did not appear within {timeout:g} s"))
        return event

    async def settle(self, quiet=0.6, limit=10.0):
        """Waits until nothing was said for `quiet` seconds."""
        for _ in range(int(limit / quiet)):
            before = self.mark()
            await asyncio.sleep(quiet)
            if before == self.mark():
                return

    def explain(self, problem):
        """The problem, the end of the conversation and of lumd's log."""
        events = "\n".join("  " + journals.line(event)
                           for event in self.journal.events[-SHOWN_EVENTS:])
        state = "running" if self.lumd is not None and self.lumd.running else \
            f"ended with status {self.lumd.status}" if self.lumd is not None else "not started"
        told = [text for text in self.log_lines() if LIBRARY_NOISE not in text]
        log = "\n".join("  " + text for text in told[-SHOWN_LOG_LINES:])
        return f"{problem}\nlumd is {state}; the last events:\n{events}\nlumd's log ends:\n{log}"

    def log_lines(self):
        """What lumd and the tools it runs wrote to standard output and error, then its log."""
        lines = []
        for path in (self.lumd.output if self.lumd is not None else None, self.lumd_log):
            if path is not None and path.exists():
                lines += path.read_text(errors="replace").splitlines()
        return lines


async def _until(predicate, timeout):
    deadline = asyncio.get_running_loop().time() + timeout
    while not predicate():
        if asyncio.get_running_loop().time() > deadline:
            return False
        await asyncio.sleep(0.02)
    return True


class LabHandle:
    """A running Lab for code without an event loop: every call runs on the lab's own thread."""

    def __init__(self, lab, loop):
        self.lab, self._loop = lab, loop

    def run(self, coroutine, timeout=120.0):
        """The result of a coroutine of the lab."""
        return asyncio.run_coroutine_threadsafe(coroutine, self._loop).result(timeout)

    def do(self, function):
        """The result of a function that touches the lab's objects."""
        async def call():
            return function()
        return self.run(call())

    def ap(self, command, **arguments):
        """A command of the access point's control socket."""
        return self._command(self.lab.ap.commands(), command, arguments)

    def service(self, command, **arguments):
        """A command of the service's control socket."""
        return self._command(self.lab.service.commands(), command, arguments)

    def _command(self, commands, command, arguments):
        async def call():
            result = commands[command](**arguments)
            return await result if asyncio.iscoroutine(result) else result
        return self.run(call())

    def send(self, message, **options):
        """Sends a message to lumd from the service."""
        self.run(self.lab.service.send(message, **options))

    def mark(self):
        return self.do(self.lab.mark)

    def wait(self, what, since=0, timeout=WAIT, predicate=None, **match):
        return self.run(self.lab.wait(what, since, timeout, predicate, **match))

    def wait_subscribed(self, timeout=30.0):
        return self.run(self.lab.wait_subscribed(timeout))

    def events(self, since=0, **match):
        return self.do(lambda: self.lab.journal.since(since, **match))

    def settle(self, quiet=0.6, limit=10.0):
        self.run(self.lab.settle(quiet, limit))

    def log_lines(self):
        return self.lab.log_lines()

    def set_speed(self, speed):
        """Of lumd's clock and of the lab's; for a lab that was not started at speed 1."""
        self.do(lambda: self.lab.clock.set_speed(speed))

    def stop_lumd(self):
        """lumd's exit status after SIGTERM."""
        return self.run(self.lab.lumd.stop())

    def start_lumd(self):
        self.run(self.lab.start_lumd())


@contextlib.contextmanager
def running_lab(scenario="minimal", start_lumd=True, **options):
    """A LabHandle for the duration of a with statement; everything is gone afterwards."""
    lab = None
    loop = asyncio.new_event_loop()
    thread = threading.Thread(target=loop.run_forever, name="lab", daemon=True)
    thread.start()

    async def make():
        return Lab(scenario, **options)

    try:
        lab = asyncio.run_coroutine_threadsafe(make(), loop).result(10)
        handle = LabHandle(lab, loop)
        handle.run(lab.start(start_lumd))
        yield handle
    finally:
        if lab is not None:
            asyncio.run_coroutine_threadsafe(lab.stop(), loop).result(60)
        loop.call_soon_threadsafe(loop.stop)
        thread.join(10)
        loop.close()
