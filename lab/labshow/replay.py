"""./run --replay: everything but lumd as it was recorded, and the first thing that lumd does
otherwise."""
import asyncio
import contextlib
import math
import os

from labap import msgbus, scenario as scenarios
from labap.kernel import KernelServer
from labap.presence import OWN_PID, Files
from labtalk import websocket
from labtalk.control import ControlServer
from labservice.server import SUBPROTOCOLS

from .harness import Lab
from .process import Build, LabError, byte_order
from .recording import RecordingError, load
from .script import Difference, Script

PATIENCE = 30.0      # real seconds, and twice the longest pause of the recording
LAST_WORDS = 1.0     # real seconds for what lumd may do beyond the end of the recording


class Over(ConnectionError):
    """lumd did something otherwise: nothing more is played to it."""


class PlayedAccessPoint:
    """The access point as it was recorded: answers come from the script, the rest from whoever
    plays it."""

    def __init__(self, lab, actor):
        self.root = lab.folder / "root"
        scenarios.write_platform_files(lab.scenario, lab.folder / "platform")
        self.files = Files(self.root, None, lab.journal)
        self.daemons = {}  # by module
        self._lab, self._actor = lab, actor
        self._kernel_server = KernelServer(self, lab.journal)
        self._control_server = ControlServer({"iwpriv": self.iwpriv, "wpa-cli": self.wpa_cli})

    async def start(self):
        await self._kernel_server.start(str(self.root / "kernel.sock"))
        await self._control_server.start(str(self.root / "control.sock"))

    async def stop(self):
        for client in self.daemons.values():
            await client.stop()
        await self._control_server.stop()
        await self._kernel_server.stop()

    async def ioctl(self, request, ifname, length, data, _order):
        entry = self._actor.did(border="driver", what="ioctl", request=request, ifname=ifname,
                                length=length, data=data.rstrip(b"\0").hex())
        return entry["result"], entry["out_length"], bytes.fromhex(entry["answer"])

    def written(self, name, content):
        self._actor.did(border="driver", what="write", path=name, content=content)

    async def iwpriv(self, arguments):
        return self._called("driver", "iwpriv", arguments)

    async def wpa_cli(self, arguments):
        return self._called("hostapd", "wpa_cli", arguments)

    def _called(self, border, what, arguments):
        entry = self._actor.did(border=border, what=what, arguments=arguments)
        return {"status": entry["status"], "output": entry["output"]}

    async def join(self, module):
        self.daemons[module] = msgbus.BusClient(str(self._lab.bus_path), module, self._on_frame,
                                                order=self._lab.order)
        await self.daemons[module].start()

    async def leave(self, module):
        await self.daemons[module].stop()

    def _on_frame(self, client, frame):
        entry = self._actor.did(frame=frame, border="bus", what="frame", src=frame.src,
                                dst=frame.dst, seq=frame.seq,
                                text=frame.payload.decode(errors="replace"))
        for answer in entry.get("answers", ()):
            client.answer(frame, answer)


class PlayedService:
    """The service as it was recorded."""

    path = "/agent"

    def __init__(self, actor, path):
        self.path, self.port = path, 0
        self._actor, self._link = actor, None
        self._server, self._accepting, self._answer_pings = None, True, True

    async def start(self, _control_path=None):
        await self.listen()

    async def stop(self):
        await self.silence()

    async def listen(self):
        if self._server is None:
            self._server = websocket.Server(self._serve, SUBPROTOCOLS, self._admit)
            await self._server.start("127.0.0.1", self.port)
            self.port = self._server.port

    async def silence(self):
        if self._server is not None:
            server, self._server = self._server, None
            await server.stop()

    def _admit(self, _path):
        return None if self._accepting else "refused by the lab\n"

    async def _listen_to(self, link):
        self._link, link.answer_pings = link, self._answer_pings
        self._actor.did(border="service", what="connect", path=link.path,
                        subprotocol=link.subprotocol)
        async for text in link:
            self._actor.did(border="service", what="text", text=text)

    async def _serve(self, link):
        with contextlib.suppress(Over):
            await self._listen_to(link)

    async def say(self, text, pieces):
        if self._link is None:
            raise LabError("the recording says something while lumd is not connected")
        size = -(-len(text) // max(pieces, 1)) or 1
        parts = [text[at:at + size] for at in range(0, len(text), size)] or [""]
        await self._link.send(parts if len(parts) > 1 else parts[0])

    async def drop(self, hard):
        if self._link is not None and hard:
            self._link.abort()
        elif self._link is not None:
            await self._link.close()

    def settings(self, accepting, answer_pings):
        self._accepting = self._accepting if accepting is None else accepting
        self._answer_pings = self._answer_pings if answer_pings is None else answer_pings
        if self._link is not None:
            self._link.answer_pings = self._answer_pings


class PlayedLab(Lab):
    """A lab in which only lumd and the broker are real."""

    def __init__(self, head, build, lumd, actor, path):
        super().__init__(head["scenario"], head["mode"], build, head["speed"], head["config"],
                         lumd=lumd)
        self._actor, self._path = actor, path

    def _make_access_point(self):
        return PlayedAccessPoint(self, self._actor)

    def _make_service(self):
        return PlayedService(self._actor, self._path)


class Actor:
    """Holds what lumd does against the script, and keeps the first difference."""

    def __init__(self, script):
        self.script = script
        self.difference = None
        self.moved = asyncio.Event()
        self._frames = {}  # by the place of the request in the recording

    def did(self, frame=None, **entry):
        """The recorded entry, in which the answer is. Over when it is not what was recorded."""
        if self.difference is not None:
            raise Over
        try:
            recorded = self.script.did({"by": "lumd", **entry})
        except Difference as difference:
            self.difference = difference
            self.moved.set()
            raise Over from difference
        if frame is not None:
            self._frames[recorded["place"]] = frame
        self.moved.set()
        return recorded

    def frame_at(self, place):
        return self._frames[place]


class Replay:
    """Plays a recording to a lumd: the build's, or the program `lumd`. `longest_pause`: real
    seconds; what happens to lumd after a longer one happens sooner."""

    def __init__(self, path: str | os.PathLike, build: Build,
                 lumd: str | os.PathLike | None = None, longest_pause: float = math.inf):
        self.head, entries = load(path)
        order = byte_order(lumd or build.bin / "lumd")
        if self.head["order"] != order:
            raise RecordingError(f"{path}: recorded on a machine of the other byte order")
        self._longest_pause = longest_pause
        self.script = Script(entries, self.head["order"])
        self.actor = Actor(self.script)
        self._patience = PATIENCE + 2 * self.script.longest_pause()
        paths = [entry["path"] for entry in entries if entry["what"] == "connect"]
        self.lab = PlayedLab(self.head, build, lumd, self.actor, paths[0] if paths else "/agent")

    async def run(self) -> int:
        """How many acts were the same; Difference tells the first other one."""
        try:
            await self.lab.start(start_lumd=False)
            while (following := self.script.next_input()) is not None:
                place, entry = following
                await self._until(lambda place=place: self.script.is_ready(place))
                pause = self.script.pause_before(place)
                await asyncio.sleep(min(pause, self._longest_pause))
                await self._happen(place, entry)
            await self._until(lambda: self.script.is_over)
            await asyncio.sleep(LAST_WORDS)
            self._none_yet()
        finally:
            await asyncio.shield(self.lab.stop())
        return self.script.count()

    async def _until(self, condition):
        loop = asyncio.get_running_loop()
        deadline = loop.time() + self._patience
        while True:
            self._none_yet()
            if condition():
                return
            self.actor.moved.clear()
            try:
                await asyncio.wait_for(self.actor.moved.wait(), max(deadline - loop.time(), 0.01))
            except asyncio.TimeoutError:
                if loop.time() >= deadline:
                    raise self.script.not_done(self._patience) from None

    def _none_yet(self):
        if self.actor.difference is not None:
            raise self.actor.difference

    async def _happen(self, place, entry):
        """One thing that happened to lumd happens again."""
        self.script.happened(place)
        act = self.HAPPENINGS.get((entry["border"], entry["what"]))
        try:
            await act(self, entry)
        except (KeyError, TypeError) as error:
            raise LabError(f"{entry['what']!r} at the {entry['border']}, {entry['t']:.1f} s into "
                           f"the recording, cannot be played ({error!r})") from error

    async def _start_lumd(self, _entry):
        await self.lab.start_lumd()

    async def _stop_lumd(self, _entry):
        status = await self.lab.lumd.stop()
        with contextlib.suppress(Over):
            self.actor.did(border="lumd", what="end", status=status)

    async def _frame(self, entry):
        self.lab.ap.daemons[entry["src"]].send(entry["dst"], entry["text"])

    async def _answer(self, entry):
        if entry["answers_place"] is not None:
            request = self.actor.frame_at(entry["answers_place"])
            self.lab.ap.daemons[entry["src"]].answer(request, entry["text"])

    async def _write(self, entry):
        own = entry["content"] == OWN_PID
        self.lab.ap.files.write(entry["path"], f"{os.getpid()}\n" if own else entry["content"])

    async def _remove(self, entry):
        self.lab.ap.files.remove(entry["path"])

    async def _say(self, entry):
        """What a service says to a lumd that ends, nobody hears."""
        try:
            await self.lab.service.say(entry["text"], entry["pieces"])
        except websocket.LinkClosed:
            if self.lab.lumd.running:
                raise LabError("the recording says something after lumd has ended its link") from None

    async def _settings(self, entry):
        self.lab.service.settings(entry["accepting"], entry["answer_pings"])

    HAPPENINGS = {
        ("lumd", "start"): _start_lumd, ("lumd", "stop"): _stop_lumd,
        ("bus", "frame"): _frame, ("bus", "answer"): _answer,
        ("bus", "join"): lambda self, entry: self.lab.ap.join(entry["module"]),
        ("bus", "leave"): lambda self, entry: self.lab.ap.leave(entry["module"]),
        ("files", "write"): _write, ("files", "remove"): _remove,
        ("service", "text"): _say,
        ("service", "drop"): lambda self, entry: self.lab.service.drop(entry["hard"]),
        ("service", "listen"): lambda self, _entry: self.lab.service.listen(),
        ("service", "silence"): lambda self, _entry: self.lab.service.silence(),
        ("service", "settings"): _settings,
    }
