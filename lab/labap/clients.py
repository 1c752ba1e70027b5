"""Clients that come, go, move, and answer when they are asked to move."""
import asyncio

from . import scenario as scenarios
from .air import Station, chains

NOWHERE = "00:00:00:00:00:00"


class Clients:
    """Changes the stations of the radio model and has hostapd report it."""

    def __init__(self, air, kernel, traps, journal, clock, roam_delay):
        self.air, self.kernel, self.traps = air, kernel, traps
        self.journal, self.clock, self.roam_delay = journal, clock, roam_delay
        self._tasks = set()

    def add(self, ifname, given):
        vap = self._vap(ifname)
        station = Station.make(given, self.clock.now())
        self._leave(station.mac)
        vap.stations[station.mac] = station
        self._trap(vap, station, "8021x-success" if vap.enterprise else "auth")
        return station.mac

    def remove(self, mac, kind="recv-disassoc"):
        vap, station = self._find(mac)
        del vap.stations[mac]
        self._trap(vap, station, kind)

    def move(self, mac, ifname):
        """The client joins another VAP of this access point by itself."""
        vap, station = self._find(mac)
        target = self._vap(ifname)
        del vap.stations[mac]
        self._trap(vap, station, "recv-disassoc")
        target.stations[mac] = station
        self._trap(target, station, "8021x-success" if target.enterprise else "auth")

    def change(self, mac, given):
        """Signal, fading and manners of a client."""
        unknown = set(given) - set(scenarios.STATION)
        if unknown:
            raise scenarios.ScenarioError(f"station: unknown member {sorted(unknown)[0]!r}")
        _, station = self._find(mac)
        now = self.clock.now()
        station.rssi, station.fade_since = station.signal(now), now
        if "rssi" in given:
            station.rssi = chains(given["rssi"])
        names = {"fade": "fade", "roam": "roam", "roam-to": "roam_to", "no-balance": "no_balance",
                 "roam-attempt": "roam_attempt"}
        for key, attribute in names.items():
            if key in given:
                setattr(station, attribute, given[key])

    def asked_to_move(self, vap, station):
        """A BSS-transition request reached the client; it makes up its mind after a moment."""
        task = asyncio.create_task(self.decide(vap, station))
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    def stop(self):
        for task in list(self._tasks):
            task.cancel()

    async def decide(self, vap, station):
        """What the client does about the request, once it has made up its mind."""
        await self.clock.sleep(self.roam_delay)
        if station.roam == "ignore" or vap.stations.get(station.mac) is not station:
            return
        if station.roam == "refuse":
            station.roam_attempt = True
            self.journal.add("client", "driver", "transition-refused", {"station": station.mac})
            return
        target = station.roam_to or self._candidate(vap) or NOWHERE
        del vap.stations[station.mac]
        self.journal.add("client", "driver", "transition-accepted",
                         {"station": station.mac, "target": target})
        self._trap(vap, station, "80211v-roam", target_mac=target)
        home = self.air.vap_by_mac(target)
        if home is not None:
            home.stations[station.mac] = station
            self._trap(home, station, "8021x-success" if home.enterprise else "auth")

    def _candidate(self, vap):
        """The BSSID of the first neighbour on the VAP's lists, the custom one first."""
        for kind in ("custom", "standard"):
            for line in self.kernel.neighbours(vap.ifname, kind):
                mac = line.split()[1].replace(":", "")
                return ":".join(mac[at:at + 2] for at in range(0, 12, 2))
        return None

    def _leave(self, mac):
        vap, _ = self.air.locate(mac)
        if vap is not None:
            del vap.stations[mac]

    def _vap(self, ifname):
        vap = self.air.vap(ifname)
        if vap is None:
            raise scenarios.ScenarioError(f"no VAP {ifname!r}")
        return vap

    def _find(self, mac):
        vap, station = self.air.locate(mac)
        if vap is None:
            raise scenarios.ScenarioError(f"no client {mac!r}")
        return vap, station

    def _trap(self, vap, station, kind, **more):
        signal = max(station.signal(self.clock.now()))
        client = {"using-802.11v": "no" if station.no_balance else "yes"}
        self.traps.trap(type=kind, dev=vap.ifname, mac=station.mac, rssi=signal, ssid=vap.ssid,
                        client_info=client, **more)
