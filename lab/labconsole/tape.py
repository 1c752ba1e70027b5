"""A recording on a page: all of it at once, its events as those of the lab that was recorded."""
import json

from labap import msgbus, records
from labservice.model import ApModel
from labshow.recording import load
from labtalk.journal import Journal

from . import apstate, modes
from .source import View
from .watch import Watch

VENDOR = "vendor"
# The names that the lab's own journal has for calls of the drivers.
CALLS = {number: name for name, families in (
    (VENDOR, records.VENDOR_COMMAND), ("bss-transition", records.BSS_TRANSITION),
    ("mib-set", records.MIB_SET), ("mib-get", records.MIB_GET),
    ("rrm-scan-start", records.SCAN_TRIGGER)) for number in families.values()}
COMMANDS = {records.CUSTOM_SCAN: "scan-start", records.CUSTOM_SCAN_STOP: "scan-stop",
            records.CUSTOM_SCAN_RESULTS: "scan-results", records.RRM_SCAN_RESULTS: "scan-results",
            records.GET_ASSOC_STAS: "station-list", records.GET_AVAILABLE_CHANNELS: "channel-list"}
ORDERS = {"<": "little", ">": "big"}


class TapeView(View):
    """Of a file that `./run --record` wrote; RecordingError when it is none."""

    is_live = False

    def __init__(self, path):
        head, entries = load(path)
        self._head = head
        super().__init__(head["scenario"]["name"], head["mode"], Journal())
        self._known = ApModel("")
        self._connections, self._links, self._ended = 0, 0, False
        for entry in entries:
            self._read(entry)
        self._watch = Watch(self.journal, head["speed"])
        self._follower = modes.follower(self.mode, self.journal)

    def close(self):
        self._watch.close()
        if self._follower is not None:
            self._follower.close()

    # Events

    def _read(self, entry):
        reader = self.READERS.get((entry["border"], entry["by"], entry["what"]))
        if reader is None:
            return
        said = reader(self, entry)
        if said is not None:
            self.journal.add(*said)["t"] = entry["t"]

    def _service_text(self, entry):
        message = _parsed(entry["text"])
        name = message.get("cmd", "message") if isinstance(message, dict) else "message"
        if entry["by"] == "lab":
            self._take_answer(name, message)
            return "service", "lumd", name, message
        if isinstance(message, dict):
            self._known.mac = message.get("ap-mac", self._known.mac)
            self._known.learn(message)
        return "lumd", "service", name, message

    def _take_answer(self, name, message):
        if name == "subscribe-response":
            self._known.subscribed = str(message.get("status")).lower() == "success"

    def _connect(self, entry):
        self._connections += 1
        self._links += 1
        return "lumd", "service", "connected", {key: entry.get(key)
                                                for key in ("path", "subprotocol")}

    def _disconnect(self, entry):
        self._links -= 1
        self._known.subscribed = False
        return "lumd", "service", "disconnected", {"code": entry.get("code")}

    def _bus_frame(self, entry):
        message = _parsed(entry["text"])
        name = message.get("command", "message") if isinstance(message, dict) else "message"
        return _module(entry["src"]), _module(entry["dst"]), name, message

    def _joined(self, entry):
        return _module(entry["module"]), "bus", "started", None

    def _left(self, entry):
        return _module(entry["module"]), "bus", "stopped", None

    def _ioctl(self, entry):
        data = {"ifname": entry["ifname"], "result": entry["result"]}
        name = CALLS.get(entry["request"], hex(entry["request"]))
        raw = bytes.fromhex(entry["data"])
        if name == VENDOR:
            command = int.from_bytes(raw[:4], ORDERS[self._head["order"]])
            name = COMMANDS.get(command, f"vendor command {command}")
        elif name in ("mib-get", "mib-set"):
            data["name"] = raw.decode(errors="replace")
        elif name == "bss-transition":
            data["station"] = records.mac_text(raw[:6].ljust(6, b"\0"))
        return "lumd", "driver", name, data

    def _iwpriv(self, entry):
        what = "mib-get" if "get_mib" in entry["arguments"] else "iwpriv"
        return "lumd", "driver", what, {"command": " ".join(entry["arguments"]),
                                        "output": entry["output"]}

    def _wpa_cli(self, entry):
        return "lumd", "hostapd", "wpa_cli", {"command": " ".join(entry["arguments"]),
                                              "output": entry["output"]}

    def _write(self, entry):
        return "lumd", "driver", "proc-write", {key: entry[key] for key in ("path", "content")}

    def _process_end(self, entry):
        self._ended = True
        return "lumd", "lumd", "ended", {"status": entry.get("status")}

    READERS = {
        ("service", "lumd", "text"): _service_text, ("service", "lab", "text"): _service_text,
        ("service", "lumd", "connect"): _connect, ("service", "lumd", "disconnect"): _disconnect,
        ("service", "lumd", "ping"): lambda self, entry: ("lumd", "service", "ping", None),
        ("service", "lab", "drop"): lambda self, entry: ("service", "lumd", "dropped",
                                                         {"hard": entry.get("hard")}),
        ("bus", "lumd", "frame"): _bus_frame, ("bus", "lab", "frame"): _bus_frame,
        ("bus", "lab", "answer"): _bus_frame, ("bus", "lab", "join"): _joined,
        ("bus", "lab", "leave"): _left, ("driver", "lumd", "ioctl"): _ioctl,
        ("driver", "lumd", "iwpriv"): _iwpriv, ("driver", "lumd", "write"): _write,
        ("hostapd", "lumd", "wpa_cli"): _wpa_cli,
        ("lumd", "lab", "start"): lambda self, entry: ("lumd", "lumd", "started", None),
        ("lumd", "lab", "stop"): lambda self, entry: ("lumd", "lumd", "told to end", None),
        ("lumd", "lumd", "end"): _process_end,
    }

    # State: that of the end

    def state(self):
        scenario, known = self._head["scenario"], self._known
        names = {entry["bssid"]: entry["ssid"] for entry in scenario["neighbours"]}
        return {"about": {"scenario": scenario["name"], "mode": self.mode,
                          "speed": self._head["speed"], "description": scenario["description"],
                          "recording": True},
                "link": {"state": "connected" if self._links else "no link",
                         "connected": self._links > 0, "subscribed": self._subscribed,
                         "domain": known.domain, "mac": known.mac, "factory": known.factory,
                         "connections": self._connections,
                         "lumd": "ended" if self._ended else "running"},
                "radios": apstate.radios(known), "vaps": apstate.vaps(known),
                "clients": apstate.clients(known), "roams": list(self._watch.roams),
                "survey": self._watch.survey(names), "timers": [], "daemons": {}, "faults": [],
                "complaints": 0, "log": [],
                **modes.state(self._follower, {"waits-for": scenario["mac-list-id"]})}

    @property
    def _subscribed(self):
        """None in a mode that has no subscription."""
        return self._known.subscribed if self.mode == "rrm" else None

    def summary(self):
        return {"link": "recording", "connected": self._links > 0,
                "subscribed": self._subscribed, "radios": "",
                "clients": len(self._known.clients), "events": self.journal.count,
                "complaints": 0, "faults": 0}


def _module(number):
    return msgbus.NAMES.get(number, str(number))


def _parsed(text):
    try:
        return json.loads(text)
    except ValueError:
        return text
