"""The whole access point around one lumd, and the commands that change it while it runs."""
import pathlib

from labtalk.contract import Checker
from labtalk.control import ControlServer
from labtalk.journal import Journal

from . import msgbus, scenario as scenarios
from .air import Air
from .clients import Clients
from .clock import LabClock
from .daemons import Hubd, Portal, Scand, Traps, Vaultd
from .faults import Faults
from .hostapd import NeighbourTables
from .kernel import Kernel, KernelServer
from .presence import Files


class AccessPoint:
    """Plays everything that lumd meets on its machine. Runs on one asyncio loop.

    `root`: the lab's folder (LAB_ROOT of lumd). `order`: byte order of lumd's machine.
    """

    def __init__(self, scenario, root, bus_path, platform_dir=None, clock=None,
                 order=msgbus.HOST_ORDER, journal=None, checker=None):
        self.scenario, self.root = scenario, pathlib.Path(root)
        self.bus_path, self.order = str(bus_path), order
        self.clock, self.journal = clock or LabClock(), journal or Journal()
        self.checker = checker or Checker(self.journal)
        self.root.mkdir(parents=True, exist_ok=True)
        scenarios.write_platform_files(scenario, platform_dir or self.root / "platform")
        self.tree = scenarios.config_tree(scenario)
        self.air = Air(scenario, self.clock)
        self.faults = Faults(scenario["faults"])
        self.files = Files(self.root, self.air, self.journal)
        self.hostapd = NeighbourTables(self.journal, self.faults, self.clock, self.checker)
        self.hostapd.running = lambda: self.files.hostapd
        self._make_daemons()
        self.kernel = Kernel(self.air, self.journal, self.faults, self.clock,
                             lambda vap, station: self.clients.asked_to_move(vap, station),
                             self.checker)
        self.clients = Clients(self.air, self.kernel, self.daemons["traps"], self.journal,
                               self.clock, scenario["roam-delay"])
        self._kernel_server = KernelServer(self.kernel, self.journal)
        self._control_server = ControlServer(self.commands())

    def _make_daemons(self):
        journal, clock = self.journal, self.clock
        daemons = {
            "vaultd": Vaultd(journal, clock, self.tree),
            "hubd": Hubd(journal, clock, self.tree, self.air, self._configuration_applied),
            "scand": Scand(journal, clock),
            "portal": Portal(journal, clock),
            "traps": Traps(journal, clock),
        }
        for name, behaviour in self.scenario["daemons"].items():
            if name not in daemons:
                raise scenarios.ScenarioError(f"daemons: unknown daemon {name!r}")
            daemons[name].set_behaviour(**behaviour)
        self.daemons = daemons

    async def start(self):
        """Everything up: sockets first, daemons next, hostapd and guardd last."""
        await self._kernel_server.start(str(self.root / "kernel.sock"))
        await self._control_server.start(str(self.root / "control.sock"))
        for daemon in self.daemons.values():
            daemon.join(self.bus_path, self.order, self.checker)
            await daemon.start()
        self.files.refresh()
        if self.scenario["hostapd"]:
            self.files.start_hostapd()
        if self.scenario["guardd"]:
            self.files.start_guardd()

    async def stop(self):
        self.clients.stop()
        for daemon in self.daemons.values():
            await daemon.stop()
        await self._control_server.stop()
        await self._kernel_server.stop()

    def _configuration_applied(self):
        self.files.refresh()
        if self.scenario["notify-after-update"]:
            self.files.notify("config_updated")

    # Commands of the control socket

    def commands(self):
        return {
            "status": self.status, "events": self.events, "wait-event": self.wait_event,
            "radio-set": self.radio_set, "vap-set": self.vap_set,
            "station-add": self.station_add, "station-remove": self.clients.remove,
            "station-move": self.station_move, "station-set": self.clients.change,
            "neighbour-add": self.neighbour_add, "neighbour-remove": self.neighbour_remove,
            "config-get": lambda path: scenarios.find(self.tree, path),
            "config-set": self.config_set,
            "hostapd": self.hostapd_command, "guardd": self.guardd_command,
            "notify": self.files.notify, "trap": self.daemons["traps"].trap,
            "daemon": self.daemon, "received": lambda name: self._daemon(name).received,
            "portal-send": self.portal_send, "portal-echo": self.portal_echo,
            "locks": lambda: sorted(self.daemons["scand"].locked),
            "reports": self.reports, "hostapd-neighbours": lambda: self.hostapd.tables,
            "mibs": lambda ifname: self._radio(ifname).mibs.get(ifname, {}),
            "fault-add": self.faults.add, "fault-list": lambda: self.faults.rules,
            "fault-clear": self.faults.clear,
            "file-write": self.files.write, "file-remove": self.files.remove,
            "file-exists": self.files.exists,
            "file-read": lambda path: self.files.path(path).read_text(encoding="utf-8"),
            "iwpriv": self.iwpriv, "wpa-cli": self.wpa_cli,
        }

    def status(self):
        return {
            "scenario": self.scenario["name"], "hostapd": self.files.hostapd,
            "guardd": self.files.guardd,
            "daemons": {name: daemon.running for name, daemon in self.daemons.items()},
            "locks": sorted(self.daemons["scand"].locked),
            "radios": [self._radio_status(radio) for radio in self.air.radios],
            "neighbours": self.air.neighbours,
            "connected": self.files.exists("/tmp/.orvanta-connected"),
        }

    def _radio_status(self, radio):
        return {
            "ifname": radio.ifname, "driver": radio.driver, "band": radio.band, "up": radio.up,
            "channel": radio.channel, "bandwidth": radio.bandwidth, "primary": radio.primary,
            "tx-power": radio.tx_power, "noise": radio.noise,
            "scanning": radio.scan is not None and radio.scan.stopped is None,
            "vaps": [{"ifname": vap.ifname, "mac": vap.mac, "ssid": vap.ssid, "up": vap.up,
                      "security": vap.security, "stations": self._stations(vap)}
                     for vap in radio.vaps],
        }

    def _stations(self, vap):
        now = self.clock.now()
        return [{"mac": station.mac, "rssi": station.signal(now), "roam": station.roam,
                 "roam-attempt": station.roam_attempt, "no-balance": station.no_balance}
                for station in vap.stations.values()]

    def events(self, since=0, **match):
        return self.journal.since(since, **_members(match))

    async def wait_event(self, since=0, timeout=10.0, **match):
        return await self.journal.wait(since, timeout, **_members(match))

    def radio_set(self, ifname, **changes):
        """channel, bandwidth, primary, tx-power, up, available, obss-coex, noise."""
        radio = self._radio(ifname)
        for name, value in changes.items():
            if not hasattr(radio, name) or name in ("vaps", "scan", "rrm_scan", "mibs"):
                raise scenarios.ScenarioError(f"a radio has no {name!r} to set")
            setattr(radio, name, value)
        self.files.refresh()

    def vap_set(self, ifname, **changes):
        vap = self.air.vap(ifname)
        if vap is None or set(changes) - {"up", "ssid", "security"}:
            raise scenarios.ScenarioError(f"{ifname}: up, ssid or security of a known VAP")
        for name, value in changes.items():
            setattr(vap, name, value)
        paths = {"ssid": "vap/ssid", "security": "vap/ap-security/mode"}
        for name in set(changes) & set(paths):
            scenarios.put(self.tree, f"/interface/{ifname}/{paths[name]}", changes[name])
        self.files.refresh()

    def station_add(self, vap, **station):
        return self.clients.add(vap, _members(station))

    def station_move(self, mac, vap):
        self.clients.move(mac, vap)

    def neighbour_add(self, **entry):
        entry = scenarios.fill(_members(entry), scenarios.NEIGHBOUR, "neighbour",
                               ("bssid", "channel"))
        self.neighbour_remove(entry["bssid"])
        self.air.neighbours.append(entry)

    def neighbour_remove(self, bssid):
        self.air.neighbours[:] = [entry for entry in self.air.neighbours
                                  if entry["bssid"] != bssid]

    def config_set(self, path, value, notify=True):
        scenarios.put(self.tree, path, value)
        if notify:
            self.files.notify("config_updated")

    async def hostapd_command(self, action, away=5.0):
        """start, stop, or restart after `away` seconds."""
        if action in ("stop", "restart"):
            self.files.stop_hostapd()
            self.hostapd.tables.clear()
        if action == "restart":
            await self.clock.sleep(away)
        if action in ("start", "restart"):
            self.files.start_hostapd()

    def guardd_command(self, action):
        {"start": self.files.start_guardd, "stop": self.files.stop_guardd}[action]()

    async def daemon(self, name, action=None, **behaviour):
        """action "start" or "stop"; or answer, delay, reason, only, times (see docs/lab.md)."""
        daemon = self._daemon(name)
        if action is not None:
            await {"start": daemon.start, "stop": daemon.stop}[action]()
        else:
            daemon.set_behaviour(**behaviour)

    def portal_send(self, message):
        self.daemons["portal"].send(msgbus.LUMD, message)
        self.journal.add("portal", "lumd", "message", message)

    def portal_echo(self, on=True):
        self.daemons["portal"].echo = on

    def reports(self):
        """The neighbour lists that were written to /proc: interface, kind, lines."""
        return [{"ifname": ifname, "list": kind, "lines": list(lines)}
                for (ifname, kind), lines in self.kernel.neighbour_lists.items()]

    async def iwpriv(self, arguments):
        status, output = await self.kernel.iwpriv(arguments)
        self.journal.tape("driver", "lumd", "iwpriv", arguments=arguments, status=status,
                          output=output)
        return {"status": status, "output": output}

    async def wpa_cli(self, arguments):
        status, output = await self.hostapd.wpa_cli(arguments)
        self.journal.tape("hostapd", "lumd", "wpa_cli", arguments=arguments, status=status,
                          output=output)
        return {"status": status, "output": output}

    def _radio(self, ifname):
        radio = self.air.radio(ifname)
        if radio is None:
            raise scenarios.ScenarioError(f"no radio {ifname!r}")
        return radio

    def _daemon(self, name):
        if name not in self.daemons:
            raise scenarios.ScenarioError(f"no daemon {name!r} ({', '.join(self.daemons)})")
        return self.daemons[name]


def _members(arguments):
    """Keyword arguments as the JSON members they were."""
    return {key.rstrip("_").replace("_", "-"): value for key, value in arguments.items()}
