"""Records the examples: plays a conversation with a real lumd in the lab and keeps of each message
of each border the first one."""
import json

from labap import scenario as scenarios
from labshow.handle import running_lab
from labtalk import contract
from labtalk.waiting import until

SPEED = 10
CONFIG = {"use-tpc": 1, "use-dca": 1, "use-80211v": 1, "use-80211r": 1}
NEIGHBOUR = {"neighbour-mac": "00:11:22:33:50:50", "channel": 11, "priority": 3,
             "vaps": [{"ssid": "lab", "mac": "00:11:22:33:50:51"}]}
ON_5_GHZ = {"neighbour-mac": "00:11:22:33:50:50", "channel": 44, "priority": 1,
            "vaps": [{"ssid": "lab", "mac": "00:11:22:33:50:59"}]}
REMOTE = {"remote-r1-kh-id": "001122335051", "remote-r0-kh-id": "ap2.lab",
          "remote-r1-kh-key": "0f0e0d0c0b0a09080706050403020100"}
FAST_TRANSITION = {
    "cmd": "fbt-info", "fbt-reassoc-deadline": 1000, "fbt-over-ds": 1, "vaps": [
        {"vap_id": 0, "radio_id": 1, "mobility-domain": 4660, "r0-key-holder-id": "ap1.lab",
         "r1-key-holder-id": "001122334459", "fbt-rrb-key": "000102030405060708090a0b0c0d0e0f",
         "remotes": [REMOTE]}]}
UNSUPPORTED = ("rrm-blacklist", "rrm-probe-request", "rrm-disassoc-request",
               "rrm-client-assoc-ack")


class Recorder:
    """{border: {message: [example]}} of what passes the checkers of labs."""

    def __init__(self):
        self.examples = {border: {} for border in (*contract.borders(), contract.TEXTS)}

    def attach(self, lab):
        checker = lab.lab.checker
        look, look_text = checker.look, checker.look_text

        def note(border, message):
            self.note(border, message)
            return look(border, message)

        def note_text(name, text):
            if not contract.text_complaints(name, text):
                self._keep(contract.TEXTS, name, text)
            return look_text(name, text)

        checker.look, checker.look_text = note, note_text

    def note(self, border, message):
        name = contract.name_of(border, message)
        if name in contract.messages(border) and not contract.complaints(border, message):
            self._keep(border, name, message)

    def _keep(self, border, name, message):
        """The longest tells most of a text; of a message the first."""
        known = self.examples[border].get(name)
        if known is None or border == contract.TEXTS and len(message) > len(known[0]):
            self.examples[border][name] = [message]

    def missing(self):
        return [f"{border} {name}" for border in self.examples for name in contract.messages(border)
                if name not in self.examples[border]]


def rrm(recorder):
    scenario = {**scenarios.load("minimal"), "service": {"domain": "building-7", "config": CONFIG}}
    with running_lab(scenario, start_lumd=False, speed=SPEED) as lab:
        recorder.attach(lab)
        lab.start_lumd()
        lab.wait_subscribed()
        lab.settle()
        configure(lab)
        survey_and_steer(lab)
        lab.ap("hostapd", action="stop")
        lab.wait("rrm-disassoc-all-clients")
        lab.wait("reset-orvanta", timeout=60)
        lab.ap("hostapd", action="start")
        lab.wait("rrm-config-changed", lab.mark())
        lab.send({"version": "2.3", "cmd": "rrm-request-mode"}, broken=True)
        lab.wait("unsubscribe-request")


def configure(lab):
    since = lab.mark()
    lab.send({"cmd": "rrm-info", **CONFIG, "802dot11k": [NEIGHBOUR, ON_5_GHZ], "radios": [
        {"id": 0, "power": 12, "no-balance-enterprise": 1, "vexor-roam-attempt-timeout": 30},
        {"id": 1, "channel": 44, "bandwidth": 40, "primary-channel": "lower"}]})
    lab.wait("rrm-config-changed", since)
    lab.send(FAST_TRANSITION)
    lab.wait("update-orvanta-fbt", since)
    lab.send({"cmd": "rrm-info", **CONFIG, "use-80211r": 0})
    lab.send(FAST_TRANSITION)
    lab.wait("reset-orvanta-fbt-response", since)
    for cmd in UNSUPPORTED:
        lab.send({"cmd": cmd})
    lab.send({"cmd": "rrm-request-mode"})
    lab.wait("rrm-mode-response", since)


def survey_and_steer(lab):
    since = lab.mark()
    lab.send({"cmd": "rrm-update", "rrm-scan-delay": 0, "vexor-rrm-scanning": 0,
              "rrm-scan-channels": "1 6 11 36 40"})
    lab.wait("rrm-response", since, timeout=60)
    lab.ap("station-add", vap="wlan0-va0", mac="02:00:00:00:00:07", rssi=-82)
    lab.wait("rrm-client-assoc", since)
    lab.send({"cmd": "rrm-sta-overload", "ap-mac": "00:11:22:33:44:50", "802dot11k": [NEIGHBOUR],
              "radios": [{"id": 0, "roam-count": 1}]})
    lab.wait("rrm-sta-roam", since)
    lab.ap("station-remove", mac="02:00:00:00:01:01")
    lab.wait("rrm-client-disassoc", since)


def wids(recorder):
    with running_lab("minimal", start_lumd=False, mode="wids") as lab:
        recorder.attach(lab)
        lab.start_lumd()
        lab.wait("connected")
        lab.send({"Name": "other"})
        lab.send({"Name": lab.lab.scenario["mac-list-id"], "white": ["02:00:00:00:00:01"],
                  "black": ["02:00:00:00:00:66"]})
        lab.wait("update-wids-mac-lists-response")
        lab.wait("mac-list-received")


def portal(recorder):
    with running_lab("minimal", start_lumd=False, mode="portal") as lab:
        recorder.attach(lab)
        lab.start_lumd()
        lab.wait("connected", to="service")

        def tell(message):
            recorder.note("portal-to-lumd", message)
            lab.do(lambda: lab.lab.ap.portal_send(message))

        def told(cmd):
            return lambda: cmd in recorder.examples["portal-from-lumd"]

        tell({"command": "update-timezone"})
        tell({"service": "internal-ipc", "cmd": "status"})
        lab.run(until(told("connected")))
        tell({"service": "internal-ipc", "cmd": "unlink"})
        lab.run(until(told("disconnected")))


def record(write):
    """Calls `write(border, examples)` for each border; the names of messages without an example."""
    recorder = Recorder()
    for play in (rrm, wids, portal):
        play(recorder)
    for border, examples in recorder.examples.items():
        order = [name for name in contract.messages(border) if name in examples]
        write(border, {name: json.loads(json.dumps(examples[name])) for name in order})
    return recorder.missing()
