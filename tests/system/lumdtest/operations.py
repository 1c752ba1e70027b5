"""What the agent is asked to do while calls of its fail. Each operation tells in one word or two
what came of it: DONE when all that belongs to it did."""
import json
import time

from labservice.server import ServiceError

from .lab import CONFIG, LabError, ask

DONE, NOTHING = "done", "not done"
ENOUGH_TO_ROTATE = 5  # large messages, each dumped to a log of a mebibyte
BURST = 100
NO_LINK_PAUSE = 0.1  # real seconds
BROKER_AWAY = 0.2    # real seconds
MAC, SSID = "00:11:22:33:44:50", "office"


class Operations:
    """`patience`: real seconds that an operation waits for what it should bring about."""

    def __init__(self, lab, patience=3.0):
        self.lab, self.patience, self._turn = lab, patience, 0

    def _wait(self, what, since, **match):
        return self.lab.wait(what, since, timeout=self.patience, **match)

    def _ask(self, message, answer):
        return ask(self.lab, message, answer, timeout=self.patience)

    def _next(self):
        self._turn += 1
        return self._turn

    def _restart_broker(self):
        self.lab.run(self.lab.lab.restart_broker(BROKER_AWAY))

    def carry_out(self, name):
        try:
            return getattr(self, name)() or DONE
        except LabError:
            return NOTHING
        except ServiceError:
            time.sleep(NO_LINK_PAUSE)
            return NOTHING

    # RRM mode

    def report(self):
        told = self._ask({"cmd": "rrm-request-mode"}, "rrm-mode-response").get("radios")
        real = self.lab.ap("status")["radios"]
        return "incomplete" if told is None or _told(told) != _real(real) else DONE

    def survey(self):
        return self._survey({"rrm-scan-channels": "6 36"})

    def vendor_survey(self):
        return self._survey({"rrm-scan-channels": "6 36", "vexor-rrm-scanning": 1})

    def _survey(self, how):
        found = self._ask({"cmd": "rrm-update", **how}, "rrm-response").get("rf-environment") or []
        channels = {entry.get("channel") for table in found for entry in table}
        return DONE if channels == {6, 36} else "incomplete" if channels else "empty"

    def channel_and_power(self):
        for number, radio in enumerate(self.lab.ap("status")["radios"]):
            low, high = ((1, 11), (44, 100))[number]
            channel, power = (high, 14) if radio["channel"] == low else (low, 12)
            since = self.lab.mark()
            self.lab.send({"cmd": "rrm-info", **CONFIG, "radios": [
                {"id": number, "channel": channel, "power": power}]})
            self._wait("update-orvanta", since, data={"params": {"channel": str(channel)}})
            self._wait("rrm-config-changed", since)

    def neighbours(self):
        mac = f"00:11:22:33:50:{self._next() % 256:02x}"
        lists = [{"neighbour-mac": mac, "channel": channel, "priority": 3,
                  "vaps": [{"ssid": SSID, "mac": mac}]} for channel in (11, 52)]
        self.lab.send({"cmd": "rrm-info", **CONFIG, "802dot11k": lists})
        self.report()
        written = [mac.replace(":", "") in line.replace(":", "")
                   for report in self.lab.ap("reports") for line in report["lines"]
                   if report["list"] == "standard"]
        told = mac in self.lab.ap("hostapd-neighbours").get("wlan1-va0", {})
        complete = written == [True, True] and told
        return DONE if complete else "incomplete" if any(written) or told else NOTHING

    def fast_transition(self):
        self.lab.send({"cmd": "rrm-info", **CONFIG, "use-80211r": 1})
        since = self.lab.mark()
        self.lab.send({"cmd": "fbt-info", "fbt-reassoc-deadline": 500, "fbt-over-ds": 0, "vaps": [
            {"vap_id": 2, "radio_id": 1, "mobility-domain": 7, "r0-key-holder-id": "r0",
             "r1-key-holder-id": "r1", "fbt-rrb-key": "key", "remotes": [
                 {"remote-r1-kh-id": "aa", "remote-r0-kh-id": "bb", "remote-r1-kh-key": "cc"}]}]})
        told = self._wait("update-orvanta-fbt", since)["data"]
        self.lab.send({"cmd": "rrm-info", **CONFIG, "use-80211r": 0})
        self.lab.send({"cmd": "fbt-info"})
        self._wait("reset-orvanta-fbt", since)
        remote = told.get("wlan1-va2", {}).get("ft-config", {}).get("mac", {}).get("aa", {})
        return DONE if remote.get("r1-kh-key") == "cc" else "incomplete"

    def steering(self):
        since = self.lab.mark()
        mac = self._visitor("wlan0-va0", rssi=-88)
        self.lab.send({"cmd": "rrm-info", **CONFIG, "radios": []})
        self.lab.send({"cmd": "rrm-sta-overload", "ap-mac": MAC,
                       "radios": [{"id": 0, "roam-count": 1}], "802dot11k": [
                           {"neighbour-mac": "00:11:22:33:50:51", "channel": 11,
                            "vaps": [{"ssid": SSID, "mac": "00:11:22:33:50:51"}]}]})
        try:
            self._wait("bss-transition", since, data={"station": mac})
            self._wait("rrm-sta-roam", since)
        finally:
            self._leave(mac)

    def clients(self):
        since = self.lab.mark()
        mac = self._visitor("wlan1-va0")
        try:
            self._wait("rrm-client-assoc", since, data={"sta-mac": mac})
        finally:
            self._leave(mac)
        self._wait("rrm-client-disassoc", since, data={"sta-mac": mac})

    def _visitor(self, vap, rssi=-50, **more):
        turn = self._next()
        mac = f"02:ff:00:00:{turn >> 8:02x}:{turn & 255:02x}"
        self.lab.ap("station-add", vap=vap, mac=mac, rssi=rssi, **more)
        return mac

    def _leave(self, mac):
        present = [station["mac"] for radio in self.lab.ap("status")["radios"]
                   for vap in radio["vaps"] for station in vap["stations"]]
        if mac in present:
            self.lab.ap("station-remove", mac=mac)

    def configuration(self):
        since = self.lab.mark()
        self.lab.ap("config-set", path="/orvanta/dca", value=("false", "true")[self._next() % 2])
        self._wait("rrm-config-changed", since)

    def hostapd(self):
        since = self.lab.mark()
        self.lab.ap("hostapd", action="stop")
        try:
            self._wait("rrm-disassoc-all-clients", since)
        finally:
            self.lab.ap("hostapd", action="start")
        self._wait("rrm-config-changed", since)
        return self.report()

    def link(self):
        since = self.lab.mark()
        self.lab.service("drop", hard=self._next() % 2 == 0)
        self._wait("subscribe-response", since)
        return self.report()

    def large_messages(self):
        """Longer than one read, one write and one line of the log."""
        self.lab.send({"cmd": "rrm-info", **CONFIG, "radios": [], "padding": "x" * 300_000})
        return self.report()

    def log(self):
        """As many lines as make the log start a new file."""
        path = self.lab.lab.lumd_log
        before = _identity(path)
        for _ in range(ENOUGH_TO_ROTATE):
            self.large_messages()
            if _identity(path) != before:
                return self.report()
        raise LabError("no new file")

    def bus(self):
        self._restart_broker()
        if self.report() != DONE:
            raise LabError("no report")
        deadline = time.monotonic() + self.patience
        while time.monotonic() < deadline:
            try:
                return self.clients_at_once()
            except LabError:
                continue
        raise LabError("no trap")

    def clients_at_once(self):
        since = self.lab.mark()
        self.lab.ap("trap", type="recv-deauth", dev="wlan0-va0", mac="02:ee:00:00:00:01",
                    ssid=SSID)
        self.lab.wait("rrm-client-disassoc", since, timeout=0.3)

    # Portal and WIDS mode

    def relay(self):
        """To the bus and back."""
        self.lab.ap("portal-echo")
        text = {"number": self._next()}
        since = self.lab.mark()
        self.lab.send(json.dumps(text))
        self._wait("message", since, to="portal", data=text)
        self._wait("message", since, to="service", data=text)

    def burst(self):
        """More messages at once than the link takes one by one."""
        since = self.lab.mark()
        texts = [{"number": self._next()} for _ in range(BURST)]

        def send():
            for text in texts:
                self.lab.lab.ap.portal_send(text)

        self.lab.do(send)
        self._wait("message", since, to="service", data=texts[-1])

    def bus_of_the_portal(self):
        self._restart_broker()
        return self.relay_again()

    def relay_again(self):
        """The agent comes back to the bus in its own time."""
        deadline = time.monotonic() + self.patience
        while time.monotonic() < deadline:
            since = self.lab.mark()
            self.lab.send(json.dumps({"number": self._next()}))
            try:
                self.lab.wait("message", since, timeout=0.3, to="portal")
                return self.relay()
            except LabError:
                continue
        raise LabError("no relay")

    def connection(self):
        since = self.lab.mark()
        self.lab.service("drop", hard=self._next() % 2 == 0)
        self._wait("connected", since)

    def mac_list(self):
        since = self.lab.mark()
        name = self.lab.lab.scenario["mac-list-id"]
        self.lab.send({"Name": name, "white": ["02:00:00:00:00:01"], "black": []})
        self._wait("mac-list-received", since)
        self._wait("update-wids-mac-lists", since)

    def foreign_mac_list(self):
        since = self.lab.mark()
        self.lab.send({"Name": "other", "white": []})
        self._wait("mac-list-rejected", since)


def _identity(path):
    return path.stat().st_ino if path.exists() else None


def _objects(radio, key):
    return [item for item in radio.get(key) or [] if isinstance(item, dict)]


def _told(radios):
    return [(radio.get("channel"), radio.get("power"), radio.get("status"),
             {client.get("mac"): client.get("rssi") for client in _objects(radio, "assoclist")},
             [vap.get("ssid") for vap in _objects(radio, "vaps")]) for radio in radios if isinstance(radio, dict)]


def _real(radios):
    return [(radio["channel"], radio["tx-power"], 1,
             {station["mac"]: max(station["rssi"]) for vap in radio["vaps"]
              for station in vap["stations"]},
             [vap["ssid"] for vap in radio["vaps"]]) for radio in radios]
