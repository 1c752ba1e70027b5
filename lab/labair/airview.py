"""An access point of the air on the console's page. The guest's kernel is looked at once a second
while a page shows it."""
import asyncio
import collections
import contextlib
import time

from labconsole import apstate
from labconsole.source import View
from labconsole.watch import Watch
from labservice.server import ServiceError
from labshow.console import Refused
from labshow.outcome import FAILED, REFUSED, Outcome
from labtalk.journal import cut

from .accesspoint import BANDS, DAEMONS, LIBRARY_NOISE, LUMD_LOG
from .airtalk import AirTalk
from .commands import AP, AirCommands
from .machine import GuestError
from .steps import channel_of

LOOK_SECONDS = 1.0  # between two looks
PATIENCE = 3.0      # seconds after which a page that does not ask any more has gone
QUIET, LONGEST_WAIT = 2.0, 20.0  # seconds of silence that end a command, and without it
LOG_LINES, LONGEST_LINE = 200, 300
DRIVER = "nl80211"


class AirView(View):
    """Made on the loop of `air`, whose access point `point` is. `takes_commands`: not while
    somebody else gives them. `doing`: what that is, in words."""

    def __init__(self, air, point):
        self._talk = AirTalk(air, point)
        super().__init__(point.name, "rrm", self._talk.journal)
        self.takes_commands, self.doing = False, ""
        self._air, self._point = air, point
        self._commands = AirCommands(
            point, [other for other in air.points if other is not point], self._runs)
        self._watch = Watch(self.journal, radios=self._commands.radios)
        self._kernel, self._stations, self._survey, self._own = {}, {}, {}, set()
        self._log, self._log_read, self._ended = collections.deque(maxlen=LOG_LINES), 0, set()
        self._asked = 0.0
        air.machine.listeners.append(self._hear)
        self._looking = asyncio.ensure_future(self._look_on())

    def close(self):
        self._looking.cancel()
        self._watch.close()
        self._talk.close()
        if self._hear in self._air.machine.listeners:
            self._air.machine.listeners.remove(self._hear)

    # What is looked at

    def _hear(self, event):
        if event["event"] == "end":
            self._ended.add(event["pid"])

    async def _look_on(self):
        while True:
            if self._point.pids and time.monotonic() - self._asked < PATIENCE:
                with contextlib.suppress(GuestError):
                    await self._look()
            await asyncio.sleep(LOOK_SECONDS)

    async def _look(self):
        self._kernel = await self._point.kernel()
        self._own.update(entry["address"] for entry in self._kernel.values()
                         if entry["type"] == AP)
        for number in range(len(BANDS)):
            try:
                await self._look_at(number)
            except GuestError:  # an interface that is just not there
                self._stations[number] = {}
        self._watch.sample(self._clients())
        await self._read_log()
        await self._talk.look(self._own)

    async def _look_at(self, number):
        point = self._point
        stations = await point.stations(number)
        for entry in await self._air.machine.call("survey", place=point.name, ifname=_vap(number)):
            self._survey[channel_of(entry["frequency"])] = entry
        self._stations[number] = stations

    async def _read_log(self):
        data = await self._air.machine.read(self._point.name, LUMD_LOG, self._log_read) or b""
        whole = data[:data.rfind(b"\n") + 1]
        self._log_read += len(whole)
        self._log.extend(line[:LONGEST_LINE] for line in whole.decode(errors="replace").splitlines()
                         if LIBRARY_NOISE not in line)

    # State

    @property
    def _known(self):
        try:
            return self._point.known
        except ServiceError:
            return None

    def state(self):
        self._asked = time.monotonic()
        clients = self._clients()
        for client in clients:
            client["signal"] = self._watch.signal(client["mac"])
        return {"about": {"scenario": "real 802.11", "mode": self.mode, "speed": 1,
                          "doing": self.doing,
                          "description": f"{self.name}: mac80211 and hostapd in a virtual machine"},
                "link": self._link(), "radios": self._radios(), "vaps": self._vaps(),
                "clients": clients, "roams": list(self._watch.roams), "survey": self._heard(),
                "timers": list(self._watch.timers.values()),
                "daemons": {name: self._runs(name) for name in DAEMONS if name != "lumd"},
                "faults": [], "complaints": len(self._point.checker.found),
                "log": list(self._log)}

    def _runs(self, name):
        return self._point.pids.get(name) not in (None, *self._ended)

    def _link(self):
        known, service = self._known, self._point.service
        return {"state": "connected" if service.links else "no link",
                "connected": bool(service.links), "subscribed": bool(known and known.subscribed),
                "domain": known.domain if known else "", "mac": self._point.mac,
                "factory": known.factory if known else {}, "connections": service.connections,
                "lumd": f"running as {self._point.pids['lumd']} of the guest"
                if self._runs("lumd") else "ended"}

    def _radios(self):
        """What the service was told, and what the kernel has meanwhile."""
        told = {radio["ifname"]: radio for radio in apstate.radios(self._known)} \
            if self._known else {}
        return [{**told.get(f"wlan{number}", {}), "ifname": f"wlan{number}", "band": band,
                 "driver": DRIVER, "up": self._has_channel(number), "model": self._model(number)}
                for number, band in enumerate(BANDS)]

    def _has_channel(self, number):
        return self._kernel.get(_vap(number), {}).get("frequency") is not None

    def _model(self, number):
        """As the kernel has it; None while it has nothing."""
        if not self._has_channel(number):
            return None
        here = self._kernel[_vap(number)]
        channel = channel_of(here["frequency"])
        primary = "none" if here["width"] != 40 else \
            "lower" if here["center"] > here["frequency"] else "upper"
        return {"channel": channel, "bandwidth": here["width"], "primary": primary,
                "power": here["power"], "noise": self._survey.get(channel, {}).get("noise")}

    def _vaps(self):
        told = {vap["ifname"]: vap for vap in apstate.vaps(self._known)} if self._known else {}
        settings = self._point.settings()["interface"]
        return [{**told.get(_vap(number), {}), "ifname": _vap(number), "radio": f"wlan{number}",
                 "ssid": self._point.network.ssid,
                 "mac": self._kernel.get(_vap(number), {}).get("address"),
                 "up": self._has_channel(number),
                 "security": settings[_vap(number)]["vap"]["ap-security"]["mode"],
                 "clients": len(self._stations.get(number, ()))} for number in range(len(BANDS))]

    def _clients(self):
        """Those that the kernel has; whether the service knows of each."""
        known = self._known.clients if self._known else {}
        return [{"mac": mac, "vap": _vap(number), "radio": f"wlan{number}",
                 "ssid": self._point.network.ssid, "rssi": station["signal"], "known": mac in known,
                 "80211v": self._talk.takes_transitions.get(mac)}
                for number, stations in self._stations.items()
                for mac, station in stations.items() if station["signal"] is not None]

    def _heard(self):
        """The last survey; the load is the kernel's, of the channels on which it was."""
        names = {vap["mac"]: vap["ssid"] for point in self._air.points
                 for known in point.service.aps.values() for vap in apstate.vaps(known)}
        survey = self._watch.survey(names)
        if survey is None:
            return None
        load = {channel: round(100 * entry["busy"] / entry["time"])
                for channel, entry in self._survey.items()
                if entry["time"] and entry["busy"] is not None}
        return {**survey, "load": load} if load else survey

    def summary(self):
        known = self._known
        radios = apstate.radios(known) if known else []
        return {"link": self._link()["state"], "connected": bool(self._point.service.links),
                "subscribed": bool(known and known.subscribed),
                "radios": " ".join(f"{radio['channel']}/{radio['bandwidth']}" if radio["up"]
                                   else "down" for radio in radios),
                "clients": len(known.clients) if known else 0, "events": self.journal.count,
                "complaints": len(self._point.checker.found), "faults": 0}

    # Commands

    def forms(self):
        return self._commands.forms()

    async def execute(self, line, transcript):
        if not self.takes_commands:
            return Outcome(line, REFUSED, "the tour is under way")
        try:
            await self._commands.run(line.strip())
            await self._settle()
            with contextlib.suppress(GuestError):
                await self._look()
        except GuestError as error:
            return Outcome(line, FAILED, cut(str(error).partition("\n")[0], LONGEST_LINE))
        except (Refused, ServiceError, ValueError, TypeError) as error:
            return Outcome(line, REFUSED, str(error))
        self._tell(transcript)
        return Outcome(line)

    def _tell(self, transcript):
        """What the guest's kernel has now."""
        transcript.heading("in the kernel")
        for number in range(len(BANDS)):
            model = self._model(number)
            transcript.text(f"wlan{number}: " + (
                f"channel {model['channel']}, {model['bandwidth']} MHz, {model['power']} dBm, "
                f"{len(self._stations.get(number, ()))} clients" if model else "no channel"))

    async def _settle(self):
        """Until nobody says anything."""
        for _ in range(int(LONGEST_WAIT / QUIET)):
            before = self.journal.count
            await asyncio.sleep(QUIET)
            if self.journal.count == before:
                return


def _vap(number):
    """The access point of a radio."""
    return f"wlan{number}-va0"
