"""A live lab on a page."""
import asyncio
import copy
import time

from labshow import misbehaviour
from labshow.console import LOG_LINES
from labshow.outcome import REFUSED, Outcome
from labshow.prompt import split
from labservice.server import ServiceError

from . import apstate, forms, modes
from .source import View
from .watch import Watch

SAMPLE_SECONDS = 1.0  # between two readings of the clients' signals
LONGEST_LINE = 300    # characters of a line of lumd's log
LOG_TAIL = 64 * 1024  # bytes of the log that its last lines are looked for in


class LabView(View):
    """`console`: whose commands the page gives, those of the prompt; the two share what they know."""

    def __init__(self, lab, console, name=None):
        super().__init__(name or lab.scenario["name"], lab.mode, lab.journal)
        self.lab, self._console = lab, console
        self._watch = Watch(lab.journal, lab.speed, lambda: lab.ap.air.radios)
        self._follower = modes.follower(lab.mode, lab.journal)
        self._turn = asyncio.Lock()
        self._sampled = 0.0
        self._ssids = {}

    def close(self):
        self._watch.close()
        if self._follower is not None:
            self._follower.close()

    # State

    @property
    def _known(self):
        try:
            return self.lab.service.ap()
        except ServiceError:
            return None

    def state(self):
        lab = self.lab
        clients = self._clients()
        if time.monotonic() - self._sampled >= SAMPLE_SECONDS:
            self._sampled = time.monotonic()
            self._watch.sample(clients)
        for client in clients:
            client["signal"] = self._watch.signal(client["mac"])
        return {"about": {"scenario": lab.scenario["name"], "mode": lab.mode, "speed": lab.speed,
                          "description": lab.scenario["description"]},
                "link": self._link(), "radios": self._radios(), "vaps": self._vaps(),
                "clients": clients, "roams": list(self._watch.roams),
                "survey": self._watch.survey(self._names()),
                "timers": list(self._watch.timers.values()), "daemons": self._daemons(),
                "faults": [misbehaviour.line(fault) for fault in misbehaviour.present(lab.ap)],
                "complaints": len(lab.checker.found), "log": self._log(), **self._of_the_mode()}

    def _of_the_mode(self):
        return modes.state(self._follower, {
            "waits-for": self.lab.scenario["mac-list-id"],
            "module": self.lab.ap.daemons["portal"].running})

    @property
    def _subscribed(self):
        """None in a mode that has no subscription."""
        known = self._known
        return bool(known and known.subscribed) if self.mode == "rrm" else None

    def _link(self):
        known, service = self._known, self.lab.service
        return {"state": self._console.link, "connected": bool(service.links),
                "subscribed": self._subscribed,
                "domain": known.domain if known else "", "mac": known.mac if known else "",
                "factory": known.factory if known else {},
                "connections": service.connections,
                "lumd": f"running as {self.lab.lumd.pid}" if self.lab.lumd.running else "ended"}

    def _radios(self):
        """What the service was told, and what the radio model has meanwhile."""
        told = {radio["ifname"]: radio for radio in apstate.radios(self._known)} \
            if self._known else {}
        return [{**told.get(radio.ifname, {}), "ifname": radio.ifname, "band": radio.band,
                 "driver": radio.driver, "up": radio.up,
                 "scanning": radio.scan is not None and radio.scan.stopped is None and bool(
                     self._watch.timers.get("survey")),
                 "model": {"channel": radio.channel, "bandwidth": radio.bandwidth,
                           "primary": radio.primary, "power": radio.tx_power,
                           "noise": radio.noise},
                 "available": radio.available} for radio in self.lab.ap.air.radios]

    def _vaps(self):
        told = {vap["ifname"]: vap for vap in apstate.vaps(self._known)} if self._known else {}
        return [{**told.get(vap.ifname, {}), "ifname": vap.ifname, "radio": radio.ifname,
                 "ssid": vap.ssid, "mac": vap.mac, "up": vap.up and radio.up,
                 "security": vap.security, "clients": len(vap.stations)}
                for radio in self.lab.ap.air.radios for vap in radio.vaps]

    def _clients(self):
        """Those at the access point; whether the service knows of each, in the mode that tells it."""
        now = self.lab.clock.now()
        known = (self._known.clients if self._known else {}) if self.mode == "rrm" else None
        return [{"mac": mac, "vap": vap.ifname, "radio": radio.ifname, "ssid": vap.ssid,
                 "rssi": max(station.signal(now)),
                 "known": None if known is None else mac in known,
                 "roam": station.roam, "asked": station.roam_attempt,
                 "80211v": not station.no_balance}
                for radio in self.lab.ap.air.radios for vap in radio.vaps
                for mac, station in vap.stations.items()]

    def _names(self):
        """SSIDs of neighbours, also of those that have gone."""
        self._ssids.update((entry["bssid"], entry["ssid"]) for entry in self.lab.ap.air.neighbours)
        return self._ssids

    def _daemons(self):
        files = self.lab.ap.files
        return {**{name: daemon.running for name, daemon in self.lab.ap.daemons.items()},
                "hostapd": files.hostapd, "guardd": files.guardd}

    def _log(self):
        """The last lines, without reading the whole file."""
        try:
            with open(self.lab.lumd_log, "rb") as file:
                file.seek(0, 2)
                file.seek(max(file.tell() - LOG_TAIL, 0))
                text = file.read().decode(errors="replace")
        except OSError:
            return []
        return [line[:LONGEST_LINE] for line in text.splitlines() if not forms.is_noise(line)][
            -10 * LOG_LINES:]

    def summary(self):
        radios = " ".join(f"{radio.channel}/{radio.bandwidth}" if radio.up else "down"
                          for radio in self.lab.ap.air.radios)
        return {"link": self._console.link, "connected": bool(self.lab.service.links),
                "subscribed": self._subscribed, "radios": radios,
                "clients": sum(len(vap.stations) for radio in self.lab.ap.air.radios
                               for vap in radio.vaps),
                "events": self.journal.count, "complaints": len(self.lab.checker.found),
                "faults": len(misbehaviour.present(self.lab.ap))}

    # Commands

    def forms(self):
        return forms.of(self._console)

    async def execute(self, line, transcript):
        """Like the prompt; what it knows of the link and the configuration is the prompt's."""
        if self._turn.locked():
            return Outcome(line, REFUSED, "another page's command is under way")
        async with self._turn:
            console = copy.copy(self._console)
            console.show = transcript
            try:
                name, *words = split(line.strip())
            except ValueError as error:
                return Outcome(line, REFUSED, f"{error}")
            outcome = await console.execute(line.strip(), name, words)
            if console.successor is not None:
                self._console.succeed(console.successor)
            return outcome
