"""A lab around the lumd that is installed on this machine, which systemd runs.

The radios and the daemons of the access point are the lab's; msgbusd, hostapd, systemd, /tmp and
/run are real.
"""
import asyncio
import os
import pathlib
import shutil
import subprocess

from labap.accesspoint import AccessPoint
from labap.clock import LabClock
from labap.msgbus import BusError
from labservice.server import Service
from labshow.harness import Lab
from labshow.process import TREE, Build, LabError
from labtalk.waiting import until

FOLDER = pathlib.Path("/run/lab")
ROOT, TOOLS = FOLDER / "root", FOLDER / "bin"  # LAB_ROOT and the head of PATH of lumd's unit
BUS, PLATFORM, LOG = "/run/msgbus.sock", "/etc/lumd", "/var/log/lumd.log"
PORT = 8080
WAIT = 120.0         # real seconds, on an emulated processor
PROCESSES = pathlib.Path("/sys/fs/cgroup/system.slice/lumd.service/cgroup.procs")
PAUSE = 0.05         # seconds between two looks
REJOIN = 0.2         # seconds between two looks for a broker that has come back


def runs_helpers():
    """Whether lumd has a child process."""
    try:
        return len(PROCESSES.read_text(encoding="ascii").split()) > 1
    except OSError:
        return False  # nor does lumd run


class Unit:
    """What a Lab asks of its lumd. Its output goes to the journal."""

    output = None

    def __init__(self, name):
        self.name = name

    def _show(self, name):
        return subprocess.run(["systemctl", "show", "--value", "-p", name, self.name],
                              capture_output=True, text=True, check=True).stdout.strip()

    @property
    def pid(self):
        return int(self._show("MainPID"))

    @property
    def running(self):
        return self._show("ActiveState") == "active"

    @property
    def status(self):
        return self._show("ExecMainStatus")


class InstalledLab(Lab):
    """The lab beside lumd.service. Runs on one asyncio loop, until the process ends."""

    def __init__(self, scenario=pathlib.Path(__file__).with_name("home.json")):
        super().__init__(scenario, build=Build(pathlib.Path("/usr/sbin"), TREE))
        self.folder, self.bus_path, self.lumd_log = FOLDER, BUS, pathlib.Path(LOG)
        self.lumd = Unit("lumd.service")
        self._keeper = None

    async def _start(self, start_lumd):
        self._make_places()
        self.scenario["hostapd"] = False  # the lab announces none: this machine's own does it
        self.clock = LabClock()
        self.ap = AccessPoint(self.scenario, ROOT, BUS, PLATFORM, self.clock,
                              journal=self.journal, checker=self.checker)
        if not await until(self._bus_listens, WAIT):
            raise LabError(f"nobody listens at {BUS}")
        await self.ap.start()
        self.ap.files.hostapd = self.scenario["hostapd"] = True  # for its interfaces
        self.ap.files.refresh()
        self.service = Service(port=PORT, journal=self.journal, checker=self.checker)
        self.service.subscribe_answers = [{"status": "success", "code": 200,
                                           **self.scenario["service"]}]
        await self.service.start()
        self._keeper = asyncio.create_task(self._keep_joined())

    def _make_places(self):
        """Where the lab writes notify files and looks for lumd's flag are the machine's folders."""
        for shared, real in (("tmp", "/tmp"), ("var/run", "/run")):
            (ROOT / shared).mkdir(parents=True)
            subprocess.run(["mount", "--bind", real, ROOT / shared], check=True)
        TOOLS.mkdir()
        for tool in (TREE / "lab/bin").iterdir():
            (TOOLS / tool.name).symlink_to(TREE / "lab-tool")  # the compiled one

    async def _keep_joined(self):
        """The daemons come back by themselves when the broker has been restarted."""
        while True:
            for daemon in self.ap.daemons.values():
                try:
                    await daemon.start()
                except BusError:
                    break
            await asyncio.sleep(REJOIN)

    async def stop(self):
        """Everything ends with the machine."""

    def write_config(self):
        raise NotImplementedError("an operator does that")

    async def wait(self, what, since=0, timeout=WAIT, predicate=None, **match):
        event = await self.journal.wait(since, max(timeout, WAIT), predicate, what=what, **match)
        if event is None:
            raise LabError(self.explain(f"no {what!r} {match or ''}"))
        return event

    async def settle(self, quiet=0.6, limit=WAIT):
        """Until nothing was said, and lumd ran no other program, for `quiet` seconds: one of its
        commands takes longer than that here."""
        loop = asyncio.get_running_loop()
        deadline, since, before = loop.time() + limit, loop.time(), self.mark()
        while loop.time() < min(deadline, since + quiet):
            await asyncio.sleep(PAUSE)
            if before != self.mark() or runs_helpers():
                since, before = loop.time(), self.mark()

    async def wait_again(self, what, since):
        """`what`, and that lumd is subscribed then."""
        await self.wait(what, since)
        await self.settle()
        if not self.service.ap().subscribed or not os.path.exists("/tmp/.orvanta-connected"):
            raise LabError(self.explain("lumd is not subscribed"))

    def real_wpa_cli(self):
        """lumd finds hostapd's own wpa_cli instead of the lab's."""
        (TOOLS / "wpa_cli").unlink()

    def clear_away(self):
        """What the lab has put into folders that are the package's."""
        shutil.rmtree("/etc/systemd/system/lumd.service.d")
