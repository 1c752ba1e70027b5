"""The commands of a lab in RRM mode."""
import json
import pathlib

from . import messages, rrm_choices, tables
from .console import LONGEST_BACK_OFF, Console, Refused, address, integer, within
from .process import LabError
from .rrm_choices import BANDWIDTHS
from .survey import Survey

# Seconds of lumd's: how long each request to the network manager may last, of which a configuration
# makes one a radio for power and one for channels.
REQUEST_SECONDS = 20
HEARD_SECONDS = 10  # until lumd has noticed that hostapd came or went
SIGNAL_DBM, WEAKEST_DBM, STRONGEST_DBM = -60, -100, 0


class RrmConsole(Console):
    """The service's commands, and what happens to clients and hostapd meanwhile."""

    def __init__(self, lab, show):
        super().__init__(lab, show)
        self.config = {"use-tpc": 1, "use-dca": 1, "use-80211v": 1, "use-80211r": 0,
                       **lab.scenario["service"].get("config", {})}

    @property
    def known(self):
        return self.lab.service.ap()

    @property
    def hostapd_runs(self):
        return self.lab.ap.files.hostapd

    def needs_hostapd(self):
        """For commands that lumd does not carry out otherwise."""
        if not self.hostapd_runs:
            raise Refused("hostapd is not running (hostapd start)")

    async def back_again(self, since):
        what = "subscribe-request" if self.is_served else "connected"
        await self.follow("connecting", what, since, LONGEST_BACK_OFF)
        await self.settle()

    @property
    def is_served(self):
        """Whether lumd finds somebody to report on; otherwise it does not subscribe."""
        return self.lab.mode == "rrm" and (self.hostapd_runs or self.lab.ap.files.guardd)

    # Steps: each raises LabError when what must follow does not come

    async def ask(self, message, answer=None, seconds=0, **match):
        """Sends, waits for the answer if one is named and comes within that many seconds, and
        lets the rest of the talk pass by."""
        since = self.lab.mark()
        await self.lab.service.send(message)
        event = await self.follow(answer, answer, since, seconds, **match) if answer else None
        await self.settle()
        return event

    @property
    def configuration_seconds(self):
        return REQUEST_SECONDS * (len(self.lab.ap.air.radios) + 1)

    async def configure(self, **more):
        await self.ask({"cmd": "rrm-info", **self.config, **more})

    async def refresh(self):
        """Asks for the radios; without hostapd lumd does not answer that."""
        if not self.hostapd_runs or not self.lab.service.links:
            why = "hostapd is not running" if self.lab.service.links else "there is no link"
            self.show.text(f"{why}: this is what was known before")
            return
        await self.ask({"cmd": "rrm-request-mode"}, "rrm-mode-response",
                       self.configuration_seconds)  # of one that is being carried out

    def status_line(self):
        mode, link, *more = super().status_line()
        aps = list(self.lab.service.aps.values())
        subscribed = ["subscribed" if any(ap.subscribed for ap in aps) else "not subscribed"]
        clients = [f"clients: {sum(len(ap.clients) for ap in aps)}"]
        hostapd = [] if self.hostapd_runs else ["no hostapd"]
        return [mode, link, *subscribed, *hostapd, *clients, *more]

    async def status(self):
        """status: ask lumd for its radios and show what the service knows"""
        await self.refresh()
        subscribed = "subscribed" if self.known.subscribed else "not subscribed"
        hostapd = "running" if self.hostapd_runs else "stopped"
        self.show.heading(f"access point {self.known.mac}, domain {self.known.domain}, "
                          f"{self.link}, {subscribed}, hostapd {hostapd}")
        self.show.text(tables.overview(self.known, self.show.width))
        return self.known.as_json()

    async def send(self, *words):
        """send FILE|JSON: send a message as it stands (a header is filled in where it has none)"""
        text = " ".join(words)
        if not text:
            raise Refused("send what? a file or a JSON object")
        try:
            if not text.startswith("{"):
                text = pathlib.Path(text).read_text(encoding="utf-8")
            message = json.loads(text)
        except OSError as error:
            raise Refused(f"{text}: {error.strerror}") from error
        except ValueError as error:
            raise Refused(f"not JSON: {error}") from error
        before = len(self.lab.checker.found)
        await self.ask(message)
        return {"complaints": self.lab.checker.found[before:]}

    async def hostapd(self, action):
        """hostapd stop|start: the daemon goes away or comes back"""
        if action not in ("stop", "start"):
            raise Refused("hostapd stop or hostapd start")
        if self.hostapd_runs == (action == "start"):
            raise Refused(f"hostapd is {'running' if self.hostapd_runs else 'stopped'} already")
        since = self.lab.mark()
        subscribed = any(ap.subscribed for ap in self.lab.service.aps.values())
        await self.lab.ap.hostapd_command(action)
        if action == "start":
            await self.follow("hostapd", "rrm-config-changed" if subscribed else
                              "subscribe-request", since, HEARD_SECONDS)
        elif subscribed:
            await self.follow("hostapd", "rrm-disassoc-all-clients", since, HEARD_SECONDS)
        await self.settle()

    async def channel(self, radio, channel, bandwidth="20", side=None):
        """channel RADIO CHANNEL BANDWIDTH [upper|lower]: change a radio's channel"""
        number = self.radio_number(radio)
        change = {"id": number, "channel": integer(channel), "bandwidth": integer(bandwidth)}
        self.check_channel(self.lab.ap.air.radios[number], change)
        if side is not None:
            if side not in ("upper", "lower"):
                raise Refused("the primary channel is upper or lower")
            change["primary-channel"] = side
        self.needs_hostapd()
        await self.configure(radios=[change])
        await self.refresh()
        reported = self.known.radios[number]
        self.show.text(tables.radios(self.known, self.show.width))
        if reported["channel"] != change["channel"]:
            raise LabError(f"wlan{number} still reports channel {reported['channel']}")

    @staticmethod
    def check_channel(radio, change):
        if change["channel"] not in radio.available:
            raise Refused(f"{radio.ifname} has no channel {change['channel']}, but "
                          f"{' '.join(map(str, radio.available))}")
        bandwidths = BANDWIDTHS[radio.band]
        if change["bandwidth"] not in bandwidths:
            raise Refused(f"a bandwidth at {radio.band} is {', '.join(map(str, bandwidths))} MHz, "
                          f"not {change['bandwidth']}")

    async def power(self, radio, dbm):
        """power RADIO DBM: change a radio's transmit power"""
        number, dbm = self.radio_number(radio), integer(dbm)
        lowest, highest = self.lab.scenario["radios"][number]["tx-power-range"]
        within(dbm, lowest, highest, f"the power of wlan{number}", "dBm")
        self.needs_hostapd()
        await self.configure(radios=[{"id": number, "power": dbm}])
        await self.refresh()
        self.show.text(tables.radios(self.known, self.show.width))
        if self.known.radios[number]["power"] != dbm:
            raise LabError(f"wlan{number} still reports {self.known.radios[number]['power']} dBm")

    async def neighbours(self):
        """neighbours: load the 802.11k neighbour lists and show where they arrived"""
        self.needs_hostapd()
        self.config["802dot11k"] = messages.same_network(self.lab.ap.air)
        await self.configure()
        self.show.heading("in the driver (/proc)")
        for report in self.lab.ap.reports():
            for line in report["lines"]:
                self.show.text(f"  {report['ifname']} {report['list']}: {line}")
        self.show.heading("in hostapd")
        for ifname, table in self.lab.ap.hostapd.tables.items():
            for bssid, entry in table.items():
                self.show.text(f"  {ifname}: {bssid} {entry['ssid']} {entry['nr']}")
        if self.config["802dot11k"] and not any(report["lines"]
                                                for report in self.lab.ap.reports()):
            raise LabError("no neighbour arrived in the driver")

    async def ft(self, state):
        """ft on|off: push or withdraw 802.11r parameters"""
        if state not in ("on", "off"):
            raise Refused("ft on or ft off")
        self.needs_hostapd()
        self.config["use-80211r"] = int(state == "on")
        await self.configure()
        since = self.lab.mark()
        answer = "update-orvanta-fbt-response" if state == "on" else "reset-orvanta-fbt-response"
        vaps = messages.key_holders(self.lab.ap.air)
        await self.lab.service.send({"cmd": "fbt-info", "fbt-reassoc-deadline": 1000,
                                     "fbt-over-ds": 1, "vaps": vaps})
        await self.follow("network manager", answer, since, REQUEST_SECONDS, data={"status": "ok"})
        await self.settle()

    async def scan(self, *words):
        """scan [CHANNELS] [--vendor] [--delay S]: survey the air and draw it"""
        survey = Survey.parse(words, self.lab.ap.air.radios)
        self.needs_hostapd()
        since = self.lab.mark()
        await self.lab.service.send(survey.message())
        await self.follow("scanning", "rrm-response", since,
                          survey.seconds(self.lab.ap.air.radios))
        self.show.heading("the air")
        self.show.text(tables.picture(self.known, self.show.width))
        if not self.known.neighbours() and survey.heard_for_certain(self.lab.ap.air):
            raise LabError(self.lab.explain("the survey found no neighbour"))
        return self.known.neighbours()

    async def clients(self):
        """clients: who is associated, as the access point and the service see it"""
        await self.refresh()
        here = [[station["mac"], vap["ifname"], vap["ssid"], max(station["rssi"]), station["roam"],
                 "no" if station["no-balance"] else "yes"]
                for radio in self.lab.ap.status()["radios"] for vap in radio["vaps"]
                for station in vap["stations"]]
        self.show.heading("at the access point")
        self.show.text(tables.table(["client", "VAP", "SSID", "dBm", "if asked", "802.11v"], here,
                                    self.show.width))
        self.show.heading("known to the service")
        self.show.text(tables.clients(self.known, self.show.width))
        return self.known.clients

    async def steer(self, radio, count="1"):
        """steer RADIO COUNT: have the weakest clients of a radio move elsewhere"""
        number, count = self.radio_number(radio), integer(count)
        self.check_steering(self.lab.ap.air.radios[number], count)
        since = self.lab.mark()
        await self.ask({"cmd": "rrm-sta-overload", "ap-mac": self.known.mac,
                        "radios": [{"id": number, "roam-count": count}],
                        "802dot11k": messages.same_network(self.lab.ap.air)}, "bss-transition")
        asked = self.lab.journal.since(since, what="bss-transition")
        moved = self.lab.journal.since(since, what="transition-accepted")
        await self.refresh()
        self.show.text(f"{len(asked)} asked to move, {len(moved)} moved")
        self.show.text(tables.clients(self.known, self.show.width))
        left = {event["data"]["station"] for event in moved} & set(self.known.clients)
        if left:
            raise LabError(f"still reported here: {', '.join(left)}")
        return {"asked": len(asked), "moved": len(moved)}

    def check_steering(self, radio, count):
        if count < 1:
            raise Refused(f"{count} clients cannot be steered: 1 or more")
        self.needs_hostapd()
        stations = [station for vap in radio.vaps for station in vap.stations.values()]
        if not stations:
            raise Refused(f"{radio.ifname} has no client")
        if all(station.no_balance or station.roam_attempt for station in stations):
            raise Refused(f"no client of {radio.ifname} can be asked: each of them knows no "
                          "802.11v or has been asked already")

    async def client(self, action, *words):
        """client add VAP MAC [DBM] | move MAC VAP | remove MAC: clients come, move and go"""
        acts = {("add", 2): self.add_client, ("add", 3): self.add_client,
                ("move", 2): self.move_client, ("remove", 1): self.remove_client}
        act = acts.get((action, len(words)))
        if act is None:
            raise Refused("client add VAP MAC [DBM], client move MAC VAP or client remove MAC")
        act(*words)
        await self.settle()

    def add_client(self, vap, mac, signal_dbm=str(SIGNAL_DBM)):
        mac = address(mac)
        rssi = within(integer(signal_dbm), WEAKEST_DBM, STRONGEST_DBM, "a signal", "dBm")
        self.needs_hostapd()
        self.lab.ap.station_add(vap, mac=mac, rssi=rssi)

    def move_client(self, mac, vap):
        mac = address(mac)
        self.needs_hostapd()
        self.lab.ap.clients.move(mac, vap)

    def remove_client(self, mac):
        self.lab.ap.clients.remove(address(mac))

    def radio_number(self, text):
        """0, wlan0"""
        number = integer(text.removeprefix("wlan"))
        if not 0 <= number < len(self.lab.ap.air.radios):
            raise Refused(f"there is no radio {text}")
        return number

    def commands(self):
        return {"status": self.status, "send": self.send, "hostapd": self.hostapd,
                "channel": self.channel, "power": self.power,
                "neighbours": self.neighbours, "ft": self.ft, "scan": self.scan,
                "clients": self.clients, "steer": self.steer, "client": self.client,
                **self.common_commands()}

    def choices(self, words):
        own = rrm_choices.choices(words, self.lab.ap.air) if words else []
        return own or super().choices(words)

    async def opening(self):
        """The link, the subscription and what the service knows then."""
        if not (self.lab.scenario["hostapd"] or self.lab.scenario["guardd"]):
            await self.lab.wait("connected")
            self.show.text("hostapd is not running: lumd waits with its subscription "
                           "(try: hostapd start)")
            return
        await self.lab.wait_subscribed()
        await self.settle()
        self.show.heading("what the service knows now")
        self.show.text(tables.overview(self.known, self.show.width))

    def script(self):
        if not self.lab.scenario["hostapd"]:
            return ["status"] if self.lab.scenario["guardd"] else ["hostapd start", "status"]
        radios = self.lab.ap.air.radios
        spare = next(channel for channel in radios[0].available if channel != radios[0].channel)
        lines = [f"channel wlan0 {spare} 20", f"power wlan0 {radios[0].tx_power - 2}",
                 "neighbours", "ft on", "scan", "clients"]
        vap = radios[0].vaps[0].ifname
        return lines + [f"client add {vap} 02:1a:2b:00:00:77 -88", "steer wlan0 1", "ft off",
                        "drop-link", "status"]
