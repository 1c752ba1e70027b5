"""What follows from a conversation and stands in none of its messages: surveys compared, where
clients went, how their signal was, and which timers run."""
import collections

from labshow.survey import Survey

SAMPLES = 120        # of a client's signal
MOST_ROAMS = 100
PING_SECONDS = 30
REQUEST_SECONDS = 20  # lumd's patience with a daemon on the bus
SUBSCRIBE_SECONDS = (30, 60, 120)
BUSY_SECONDS = (60, 120)  # after code 503
CONNECT_SECONDS = (1, 2, 4, 8)  # of the lab's lumd: initial_connection_delay to the longest


class Watch:
    """Listens to one journal from its beginning. `speed`: of lumd's clock. `radios()`: those of the
    radio model, for how long a survey takes; empty where there is no telling."""

    def __init__(self, journal, speed=1.0, radios=lambda: ()):
        self._journal, self._speed, self._radios = journal, speed, radios
        self.surveys = collections.deque(maxlen=2)  # {"n", "t", "heard": {bssid: entry}, "passes"}
        self.roams = collections.deque(maxlen=MOST_ROAMS)
        self.timers = {}
        self._signals = {}
        self._failures = self._asked = self._busy = 0
        journal.follow(self._take)

    def close(self):
        self._journal.leave(self._take)

    # Signals

    def sample(self, clients):
        """One reading of each client; those that are gone are forgotten."""
        self._signals = {client["mac"]: self._signals.get(client["mac"], [])[1 - SAMPLES:] +
                         [client["rssi"]] for client in clients}

    def signal(self, mac):
        return self._signals.get(mac, [])

    # Events

    def _take(self, event):
        data = event["data"] if isinstance(event["data"], dict) else {}
        handler = self.HANDLERS.get((event["from"], event["what"]))
        if handler is not None:
            handler(self, event, data)
        elif event["from"] == "lumd" and data.get("command", "").startswith(("update-", "reset-")):
            self._start(f"{event['to']} {event['what']}", event, REQUEST_SECONDS, REQUEST_SECONDS,
                        f"until {event['to']} must have answered")
        elif event["to"] == "lumd" and event["what"].endswith("-response"):
            self._end(f"{event['from']} {event['what'].removesuffix('-response')}")

    def _start(self, name, event, least, most, meaning):
        self.timers[name] = {"name": name, "since": event["t"], "least": least / self._speed,
                             "most": most / self._speed, "meaning": meaning}

    def _end(self, *names):
        for name in names:
            self.timers.pop(name, None)

    def _connected(self, event, _data):
        self._failures = self._asked = self._busy = 0
        self.timers.clear()
        self._start("ping", event, PING_SECONDS, PING_SECONDS, "until lumd pings the service")

    def _disconnected(self, event, _data):
        if event["from"] == "lumd" and event["to"] != "service":
            return
        self.timers.clear()
        base = CONNECT_SECONDS[min(self._failures, len(CONNECT_SECONDS) - 1)]
        self._failures += 1
        self._start("retry", event, base / 2, base * 1.5 + 1, "until lumd tries to connect again")

    def _ping(self, event, _data):
        self._start("ping", event, PING_SECONDS, PING_SECONDS, "until lumd pings the service")

    def _asks(self, event, _data):
        seconds = SUBSCRIBE_SECONDS[min(self._asked, len(SUBSCRIBE_SECONDS) - 1)]
        self._asked += 1
        self._start("subscribe", event, seconds, seconds,
                    "until lumd asks again, unless it is answered")

    def _answered(self, event, data):
        self._end("subscribe")
        if data.get("code") == 503 and str(data.get("status")).lower() != "success":
            seconds = BUSY_SECONDS[min(self._busy, len(BUSY_SECONDS) - 1)]
            self._busy += 1
            self._start("subscribe", event, seconds, seconds, "until lumd asks again")

    def _survey_begins(self, event, data):
        radios = self._radios()
        words = str(data.get("rrm-scan-channels", "")).split()
        if not radios or not all(word.isdigit() for word in words):
            return
        survey = Survey(tuple(map(int, words)), bool(data.get("vexor-rrm-scanning")),
                        max(int(data.get("rrm-scan-delay") or 0), 0))
        seconds = survey.seconds(radios)
        self._start("survey", event, seconds, seconds, "until lumd reports what it heard")

    def _survey_is_given_up(self, _event, _data):
        self._end("survey")

    def _survey_ends(self, event, data):
        self._end("survey")
        passes = data.get("rf-environment")
        heard = {}
        for table in passes if isinstance(passes, list) else []:
            for entry in table:
                known = heard.get(entry.get("bssid"))
                if known is None or entry.get("rssi", -200) > known["rssi"]:
                    heard[entry.get("bssid")] = entry
        self.surveys.append({"n": event["n"], "t": event["t"], "passes": len(passes or ()),
                             "heard": heard})

    def _roamed(self, event, data):
        self.roams.append({"n": event["n"], "t": event["t"], "mac": data.get("sta-mac"),
                           "from": data.get("ssid"), "radio": data.get("radio"),
                           "to": data.get("target-mac")})

    HANDLERS = {
        ("lumd", "connected"): _connected, ("lumd", "disconnected"): _disconnected,
        ("service", "disconnected"): _disconnected, ("lumd", "ping"): _ping,
        ("lumd", "subscribe-request"): _asks, ("service", "subscribe-response"): _answered,
        ("service", "rrm-update"): _survey_begins, ("lumd", "rrm-response"): _survey_ends,
        ("service", "rrm-request-mode"): _survey_is_given_up, ("lumd", "rrm-sta-roam"): _roamed,
    }

    # What the page is told

    def survey(self, names):
        """The last survey beside the one before; `names`: {bssid: SSID} where they are known."""
        if not self.surveys:
            return None
        last = self.surveys[-1]
        before = self.surveys[0]["heard"] if len(self.surveys) == 2 else None
        heard = [{**entry, "ssid": names.get(bssid, ""), "change": _change(entry, before)}
                 for bssid, entry in last["heard"].items()]
        gone = [{**entry, "ssid": names.get(bssid, "")} for bssid, entry in (before or {}).items()
                if bssid not in last["heard"]]
        return {"n": last["n"], "t": last["t"], "passes": last["passes"], "first": before is None,
                "heard": sorted(heard, key=lambda entry: (entry["channel"], -entry["rssi"])),
                "gone": gone}


def _change(entry, before):
    """dB since the survey before; None: it was not heard then, or there was none."""
    known = (before or {}).get(entry["bssid"])
    return entry["rssi"] - known["rssi"] if known else None
