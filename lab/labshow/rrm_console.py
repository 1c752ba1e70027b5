"""The commands of a lab in RRM mode."""
import asyncio
import json
import pathlib

from . import tables
from .console import Console, Refused, integer
from .process import LabError

SCAN_CHANNELS = "1 6 11 36 40 44 48"
PASSES = 5  # of the generic scan
RRM_SCAN_SECONDS = 6
TICK = 0.25
KEY_HOLDER_KEY = "00112233445566778899aabbccddeeff"


class RrmConsole(Console):
    """The service's commands, and what happens to clients and hostapd meanwhile."""

    def __init__(self, lab, show):
        super().__init__(lab, show)
        self.config = {"use-tpc": 1, "use-dca": 1, "use-80211v": 1, "use-80211r": 0,
                       **lab.scenario["service"].get("config", {})}

    @property
    def known(self):
        return self.lab.service.ap()

    # Steps: each raises LabError when what must follow does not come

    async def ask(self, message, answer=None, timeout=15.0, **match):
        """Sends, waits for the answer if one is named, and lets the rest of the talk pass by."""
        since = self.lab.mark()
        await self.lab.service.send(message)
        event = await self.lab.wait(answer, since, timeout, **match) if answer else None
        await self.settle()
        return event

    async def configure(self, **more):
        await self.ask({"cmd": "rrm-info", **self.config, **more})

    async def refresh(self):
        """Asks for the radios; without hostapd lumd does not answer that."""
        if not self.lab.ap.files.hostapd:
            self.show.text("hostapd is not running: this is what was known before")
            return
        await self.ask({"cmd": "rrm-request-mode"}, "rrm-mode-response")

    async def status(self):
        """status: ask lumd for its radios and show what the service knows"""
        await self.refresh()
        hostapd = "running" if self.lab.ap.files.hostapd else "stopped"
        self.show.heading(f"access point {self.known.mac}, domain {self.known.domain}, "
                          f"{'subscribed' if self.known.subscribed else 'not subscribed'}, "
                          f"hostapd {hostapd}")
        self.show.text(tables.overview(self.known))

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
        await self.ask(message)

    async def hostapd(self, action):
        """hostapd stop|start: the daemon goes away or comes back"""
        if action not in ("stop", "start"):
            raise Refused("hostapd stop or hostapd start")
        since = self.lab.mark()
        subscribed = any(ap.subscribed for ap in self.lab.service.aps.values())
        await self.lab.ap.hostapd_command(action)
        if action == "start":
            await self.lab.wait("rrm-config-changed" if subscribed else "subscribe-request", since)
        elif subscribed:
            await self.lab.wait("rrm-disassoc-all-clients", since)
        await self.settle()

    async def drop_link(self):
        """drop-link: close the connection; lumd comes back and subscribes again"""
        since = self.lab.mark()
        await self.lab.service.drop()
        await self.lab.wait("subscribe-request", since, 30)
        await self.settle()

    async def channel(self, radio, channel, bandwidth="20", side=None):
        """channel RADIO CHANNEL BANDWIDTH [upper|lower]: change a radio's channel"""
        number = self.radio_number(radio)
        change = {"id": number, "channel": integer(channel), "bandwidth": integer(bandwidth)}
        if side is not None:
            if side not in ("upper", "lower"):
                raise Refused("the primary channel is upper or lower")
            change["primary-channel"] = side
        await self.configure(radios=[change])
        await self.refresh()
        reported = self.known.radios[number]
        self.show.text(tables.radios(self.known))
        if reported["channel"] != change["channel"]:
            raise LabError(f"wlan{number} still reports channel {reported['channel']}")

    async def power(self, radio, dbm):
        """power RADIO DBM: change a radio's transmit power"""
        number = self.radio_number(radio)
        await self.configure(radios=[{"id": number, "power": integer(dbm)}])
        await self.refresh()
        self.show.text(tables.radios(self.known))
        if self.known.radios[number]["power"] != integer(dbm):
            raise LabError(f"wlan{number} still reports {self.known.radios[number]['power']} dBm")

    def same_network(self):
        """The scenario's neighbours that carry one of our SSIDs, as the service lists them."""
        ours = {vap.ssid for radio in self.lab.ap.air.radios for vap in radio.vaps}
        return [{"neighbour-mac": entry["bssid"], "channel": entry["channel"], "priority": 1,
                 "vaps": [{"ssid": entry["ssid"], "mac": entry["bssid"]}]}
                for entry in self.lab.ap.air.neighbours if entry["ssid"] in ours]

    async def neighbours(self):
        """neighbours: load the 802.11k neighbour lists and show where they arrived"""
        self.config["802dot11k"] = self.same_network()
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
        self.config["use-80211r"] = int(state == "on")
        await self.configure()
        since = self.lab.mark()
        answer = "update-orvanta-fbt-response" if state == "on" else "reset-orvanta-fbt-response"
        await self.lab.service.send({"cmd": "fbt-info", "fbt-reassoc-deadline": 1000,
                                     "fbt-over-ds": 1, "vaps": self.key_holders()})
        await self.lab.wait(answer, since, data={"status": "ok"})
        await self.settle()

    def key_holders(self):
        vaps = []
        for radio in self.lab.ap.air.radios:
            for vap in radio.vaps:
                if not ("WPA2" in vap.security or "WPA3" in vap.security):
                    continue
                holder = vap.mac.replace(":", "")
                remote = {"remote-r1-kh-id": "00:11:22:33:50:51", "remote-r0-kh-id": "001122335051",
                          "remote-r1-kh-key": KEY_HOLDER_KEY}
                vaps.append({"vap_id": vap.number, "radio_id": radio.number,
                             "mobility-domain": 4660, "r0-key-holder-id": holder,
                             "r1-key-holder-id": vap.mac, "fbt-rrb-key": KEY_HOLDER_KEY,
                             "remotes": [remote]})
        return vaps

    async def scan(self, *words):
        """scan [CHANNELS] [--vendor] [--delay S]: survey the air and draw it"""
        words, vendor, delay = list(words), False, 0
        if "--vendor" in words:
            words.remove("--vendor")
            vendor = True
        if "--delay" in words:
            at = words.index("--delay")
            delay = integer(words[at + 1] if at + 1 < len(words) else "")
            del words[at:at + 2]
        channels = [integer(word) for word in words] or \
            [integer(word) for word in SCAN_CHANNELS.split()]
        text = " ".join(map(str, channels))
        since = self.lab.mark()
        await self.lab.service.send({"cmd": "rrm-update", "rrm-scan-delay": delay,
                                     "vexor-rrm-scanning": int(vendor),
                                     "rrm-scan-channels": text})
        await self.follow_scan(since, scan_seconds(channels, vendor, delay))
        self.show.heading("the air")
        self.show.text(tables.picture(self.known))
        if not self.known.neighbours():
            raise LabError(self.lab.explain("the survey found no neighbour"))

    async def follow_scan(self, since, seconds):
        """A progress line until the response is there."""
        seconds /= self.lab.speed
        waiting = asyncio.create_task(self.lab.wait("rrm-response", since, seconds + 20))
        passed = 0.0
        while not waiting.done():
            share = min(passed / seconds, 1.0) if seconds else 1.0
            bar = "█" * round(share * 30)
            self.show.progress(f"scanning │{bar:<30}│ {passed:4.1f} of about {seconds:.0f} s")
            await asyncio.wait([waiting], timeout=TICK)
            passed += TICK
        self.show.end_progress()
        waiting.result()

    async def clients(self):
        """clients: who is associated, as the access point and the service see it"""
        await self.refresh()
        here = [[station["mac"], vap["ifname"], vap["ssid"], max(station["rssi"]), station["roam"],
                 "no" if station["no-balance"] else "yes"]
                for radio in self.lab.ap.status()["radios"] for vap in radio["vaps"]
                for station in vap["stations"]]
        self.show.heading("at the access point")
        self.show.text(tables.table(["client", "VAP", "SSID", "dBm", "if asked", "802.11v"], here))
        self.show.heading("known to the service")
        self.show.text(tables.clients(self.known))

    async def steer(self, radio, count="1"):
        """steer RADIO COUNT: have the weakest clients of a radio move elsewhere"""
        number = self.radio_number(radio)
        since = self.lab.mark()
        await self.ask({"cmd": "rrm-sta-overload", "ap-mac": self.known.mac,
                        "radios": [{"id": number, "roam-count": integer(count)}],
                        "802dot11k": self.same_network()}, "bss-transition")
        asked = self.lab.journal.since(since, what="bss-transition")
        moved = self.lab.journal.since(since, what="transition-accepted")
        await self.refresh()
        self.show.text(f"{len(asked)} asked to move, {len(moved)} moved")
        self.show.text(tables.clients(self.known))
        left = {event["data"]["station"] for event in moved} & set(self.known.clients)
        if left:
            raise LabError(f"still reported here: {', '.join(left)}")

    async def client(self, action, *words):
        """client add VAP MAC [DBM] | move MAC VAP | remove MAC: clients come, move and go"""
        if action == "add" and len(words) in (2, 3):
            signal_dbm = integer(words[2]) if len(words) == 3 else -60
            self.lab.ap.station_add(words[0], mac=words[1], rssi=signal_dbm)
        elif action == "move" and len(words) == 2:
            self.lab.ap.clients.move(*words)
        elif action == "remove" and len(words) == 1:
            self.lab.ap.clients.remove(*words)
        else:
            raise Refused("client add VAP MAC [DBM], client move MAC VAP or client remove MAC")
        await self.settle()

    def radio_number(self, text):
        """0, wlan0"""
        number = integer(text.removeprefix("wlan"))
        if not 0 <= number < len(self.lab.ap.air.radios):
            raise Refused(f"there is no radio {text}")
        return number

    def commands(self):
        return {"status": self.status, "send": self.send, "hostapd": self.hostapd,
                "drop-link": self.drop_link, "channel": self.channel, "power": self.power,
                "neighbours": self.neighbours, "ft": self.ft, "scan": self.scan,
                "clients": self.clients, "steer": self.steer, "client": self.client}

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
        self.show.text(tables.overview(self.known))

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


def scan_seconds(channels, vendor, delay):
    """How long the survey takes: the longer of the two radios', in seconds."""
    if vendor:
        return 2 * delay + RRM_SCAN_SECONDS
    counts = (sum(1 for channel in channels if channel < 36),
              sum(1 for channel in channels if channel >= 36))
    return delay + PASSES * max(count * 7 // 10 + 1 for count in counts)
