"""A whole lab: message bus, access point, service and one lumd, on a private folder.

`Lab` is for asyncio programs; code without an event loop takes `running_lab` of handle.py.
"""
import asyncio
import os
import pathlib
import shutil
import signal
import tempfile
from collections.abc import Callable, Sequence

from labap import scenario as scenarios
from labap.accesspoint import AccessPoint
from labap.clock import LabClock
from labservice.endpoint import Endpoint
from labservice.foreign import ForeignService
from labservice.server import Service
from labtalk import journal as journals
from labtalk.contract import Checker
from labtalk.journal import Journal
from labtalk.resources import resource
from labtalk.waiting import until

from .policy import write_policy
from .process import Build, LabError, Process, byte_order, find_build
from .recording import Recorder

URL_KEYS = {"rrm": "orvanta_service_url", "portal": "roam_service_url",
            "wids": "mac-list-service-url"}
EVERY_LOG_LEVEL = 65535
WAIT = 30.0           # real seconds; generous, since a build may be running beside the tests
SHOWN_EVENTS, SHOWN_LOG_LINES = 12, 15
LIBRARY_NOISE = "->libwebsocket-debug>"
LAST_WORDS = 0.5      # real seconds in which the end of a dead lumd's talk still arrives
CONNECTED_FLAG = "/tmp/.orvanta-connected"


class Lab:
    """`mode`: rrm, portal or wids (the scenario's when None). `speed`: how much faster than real
    time lumd and the lab run. `config`: more lines for lumd's configuration file. `endpoint`: of
    somebody else's service, which then stands in the place of the lab's own. `lumd`: a program in
    the place of the build's. `record`: a file for the whole conversation (see recording.py)."""

    def __init__(self, scenario: str | os.PathLike | dict = "minimal", mode: str | None = None,
                 build: Build | None = None, speed: float = 1.0, config: Sequence[str] = (),
                 environment: dict[str, str] | None = None, endpoint: Endpoint | None = None,
                 lumd: str | os.PathLike | None = None, record: str | os.PathLike | None = None):
        self.scenario = scenarios.load(scenario) if isinstance(scenario, (str, os.PathLike)) \
            else scenarios.complete(scenario)
        self.mode = mode or self.scenario["mode"]
        self.build, self.speed, self.endpoint = build or find_build(), speed, endpoint
        self._record, self._recorder = record, None
        self.program = pathlib.Path(lumd or self.build.bin / "lumd")
        self.extra_config, self.extra_environment = list(config), dict(environment or {})
        self.journal = Journal()
        self.checker = Checker(self.journal)  # of all that is said around this lumd
        self.order = None  # of bytes, on lumd's machine
        self.folder = self.clock = self.ap = self.service = self.broker = self.lumd = None

    async def start(self, start_lumd: bool = True) -> None:
        """Everything, lumd last; when something fails, nothing is left of it."""
        try:
            await self._start(start_lumd)
        except BaseException:
            await self.stop()
            raise

    async def _start(self, start_lumd):
        for program in (self.build.bin / "msgbusd", self.program,
                        self.build.lib / "liblabkernel.so"):
            if not program.exists():
                raise LabError(f"{program} is not built")
        if self._record is not None:
            self._recorder = Recorder(self._record, self)
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="lumd-lab-"))
        self.bus_path = self.folder / "bus.sock"
        self.lumd_log = self.folder / "lumd.log"
        self.broker = Process("msgbusd", self.folder / "msgbusd.out")
        await self._start_broker()
        self.order = byte_order(self.program)
        self.clock = LabClock(self.speed, self.folder / "clock", self.order)
        self.ap = self._make_access_point()
        await self.ap.start()
        self.service = self._make_service()
        await self.service.start(self.folder / "service.sock")
        self.write_config()
        self.lumd = Process("lumd", self.folder / "lumd.out")
        if start_lumd:
            await self.start_lumd()

    def _make_access_point(self):
        return AccessPoint(self.scenario, self.folder / "root", self.bus_path,
                           self.folder / "platform", self.clock, self.order, self.journal,
                           self.checker)

    def _make_service(self):
        if self.endpoint is not None:
            return ForeignService(self.endpoint, self.mode, self.clock.now, self.journal,
                                  self.checker)
        service = Service(journal=self.journal, checker=self.checker)
        service.subscribe_answers = [{"status": "success", "code": 200,
                                      **self.scenario["service"]}]
        return service

    async def _start_broker(self):
        await self.broker.start([*self.build.emulator, self.build.bin / "msgbusd",
                                 "-c", write_policy(self.folder / "msgbusd.conf")],
                                self._environment())

        async def decided():
            return not self.broker.running or await self._bus_listens()

        if not await until(decided) or not self.broker.running:
            text = self.broker.output.read_text(errors="replace").strip()
            raise LabError(f"msgbusd does not listen (status {self.broker.status}): {text}")

    async def _bus_listens(self):
        """A socket file exists a moment before anybody listens on it."""
        try:
            _, writer = await asyncio.open_unix_connection(str(self.bus_path))
        except OSError:
            return False
        writer.close()
        return True

    def write_config(self) -> None:
        """lumd's configuration file, config_path."""
        lines = [f"{URL_KEYS[self.mode]}=ws://127.0.0.1:{self.service.port}{self.service.path}",
                 "initial_connection_delay=1", "max_connection_delay=8",
                 f"ap_location={self.scenario['ap-location']}", f"log_level={EVERY_LOG_LEVEL}",
                 f"log_file={self.lumd_log}", f"mac-list-id={self.scenario['mac-list-id']}",
                 *self.extra_config]
        self.config_path = self.folder / "lumd.conf"
        self.config_path.write_text("\n".join(lines) + "\n", encoding="utf-8")

    def _environment(self, **more):
        return {**os.environ, "MSGBUS_SOCKET": str(self.bus_path), **more}

    def lumd_environment(self) -> dict[str, str]:
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
               "PATH": f"{resource('bin')}:{os.environ.get('PATH', '')}"}
        return self._environment(**{**own, **self.extra_environment})

    async def start_lumd(self) -> None:
        """Starts the process, and waits for nothing that it does."""
        self.journal.tape("lumd", "lab", "start")
        await self.lumd.start([*self.build.emulator, self.program, "-f", self.config_path],
                              self.lumd_environment())

    async def stop_lumd(self) -> int | None:
        """lumd's exit status after SIGTERM; None when it was not started."""
        if self.lumd.pid is None:
            return None
        self.journal.tape("lumd", "lab", "stop")
        status = await self.lumd.stop()
        self.journal.tape("lumd", "lumd", "end", status=status)
        return status

    async def restart_broker(self, away: float = 0.0) -> None:
        """Kills the broker and starts another after `away` real seconds; the daemons join it."""
        self.broker.signal(signal.SIGKILL)
        await self.broker.wait()
        for daemon in self.ap.daemons.values():
            await daemon.stop()
        self.bus_path.unlink(missing_ok=True)
        await asyncio.sleep(away)
        await self._start_broker()
        for daemon in self.ap.daemons.values():
            await daemon.start()

    async def stop(self) -> int | None:
        """Ends everything in reverse order; harmless when called again. lumd's exit status."""
        status = None
        if self.lumd is not None:
            status = await self.stop_lumd()
        if self._recorder is not None:  # what the lab does to itself concerns nobody
            self._recorder.close()
        for part in (self.service, self.ap, self.broker):
            if part is not None:
                await part.stop()
        if self.folder is not None:
            shutil.rmtree(self.folder, ignore_errors=True)
        return status

    # Waiting

    def mark(self) -> int:
        """A place in the conversation to wait from."""
        return self.journal.count

    async def wait(self, what: str, since: int = 0, timeout: float = WAIT,
                   predicate: Callable[[dict], bool] | None = None, **match) -> dict:
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

    async def wait_subscribed(self, timeout: float = 30.0) -> dict:
        """The subscribe request, once its answer has been accepted."""
        event = await self.wait("subscribe-request", timeout=timeout)
        await self.wait("subscribe-response", event["n"])
        if not await until(lambda: self.ap.files.exists(CONNECTED_FLAG), timeout):
            raise LabError(self.explain(f"{CONNECTED_FLAG} did not appear within {timeout:g} s"))
        return event

    async def settle(self, quiet: float = 0.6, limit: float = 10.0) -> None:
        """Waits until nothing was said for `quiet` seconds."""
        for _ in range(int(limit / quiet)):
            before = self.mark()
            await asyncio.sleep(quiet)
            if before == self.mark():
                return

    def explain(self, problem: str) -> str:
        """The problem, the end of the conversation and of lumd's log."""
        events = "\n".join("  " + journals.line(event)
                           for event in self.journal.events[-SHOWN_EVENTS:])
        state = "running" if self.lumd is not None and self.lumd.running else \
            f"ended with status {self.lumd.status}" if self.lumd is not None else "not started"
        told = [text for text in self.log_lines() if LIBRARY_NOISE not in text]
        log = "\n".join("  " + text for text in told[-SHOWN_LOG_LINES:])
        return f"{problem}\nlumd is {state}; the last events:\n{events}\nlumd's log ends:\n{log}"

    def log_lines(self) -> list[str]:
        """What lumd and the tools it runs wrote to standard output and error, then its log."""
        lines = []
        for path in (self.lumd.output if self.lumd is not None else None, self.lumd_log):
            if path is not None and path.exists():
                lines += path.read_text(errors="replace").splitlines()
        return lines
