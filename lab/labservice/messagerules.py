"""The rules about what a service says: each message by itself, and whether it is time for it."""
import json

from labtalk import contract

SUBSCRIPTION_SECONDS = 30.0  # lumd asks again then
UNSUPPORTED = frozenset({"rrm-blacklist", "rrm-probe-request", "rrm-disassoc-request",
                         "rrm-client-assoc-ack"})
FIRST_CHANNEL_5G = 36
# The longest survey without its delays: five passes over a whole 5 GHz band, with a margin.
LONGEST_SURVEY = 75 + 15
ENDS_A_SURVEY = frozenset({"rrm-update", "rrm-request-mode"})


class MessageRules:
    """Judges the messages of a service to one access point of the RRM or WIDS mode, in the light of
    what the access point has told (`ap`, an ApModel). `now()`: seconds of lumd's clock."""

    def __init__(self, border: str, ap, conformance, now):
        self._border, self._ap, self._conformance, self._now = border, ap, conformance, now
        self._asked = None       # when the subscription was, unless it is answered
        self._survey_until = None
        self._config = {}        # switches of the last configuration

    # What lumd said

    def told(self, message) -> None:
        """The access point learns nothing from what it says itself, but the rules do."""
        cmd = message.get("cmd") if isinstance(message, dict) else None
        if cmd == "subscribe-request":
            self._unanswered()
            self._asked = self._now()
        elif cmd in ("rrm-response", "rrm-disassoc-all-clients"):
            self._survey_until = None

    @property
    def survey_under_way(self) -> bool:
        """Whether the service waits for an rrm-response that may come still."""
        return self._survey_until is not None and self._now() < self._survey_until

    def link_lost(self) -> None:
        self._unanswered()
        self._asked = self._survey_until = None

    def _unanswered(self):
        """A subscription that was not answered in time; one that had not the time is none."""
        if self._asked is not None and self._now() - self._asked >= SUBSCRIPTION_SECONDS - 1:
            self._conformance.judge("subscription", ["subscribe-request was not answered within "
                                                     f"{SUBSCRIPTION_SECONDS:.0f} s"])

    # What the service said

    def heard(self, text: str) -> None:
        """A message of the service."""
        try:
            message = json.loads(text)
        except ValueError as error:
            message, fault = None, f"no JSON ({error}): {text[:60]!r}"
        else:
            fault = f"no object: {text[:60]!r}"
        self._conformance.judge("message", [] if isinstance(message, dict) else [fault])
        if isinstance(message, dict):
            self._message(message)

    def _message(self, message):
        name = contract.name_of(self._border, message)
        name = name.lower() if isinstance(name, str) else None
        schema = contract.messages(self._border).get(name)
        self._version(name, message)
        self._conformance.judge("command", self._command_faults(name, schema, message))
        if schema is None:
            return
        if contract.IS_COMPLETE:
            self._conformance.judge("members", [
                f"{name}: {complaint}" for complaint in contract.complaints(self._border, message)
                if not about_the_header(complaint)])
        self._address(name, message)
        handler = self.HANDLERS.get(name)
        if handler is not None:
            handler(self, message)
        self._patience(name, message)

    def _version(self, name, message):
        if self._border == "rrm-to-lumd":
            version = message.get("version")
            self._conformance.judge("version", [] if new_enough(version) else [
                f"{name}: version {version!r}: lumd gives the link up until it is restarted"])

    def _command_faults(self, name, schema, message):
        if schema is None:
            return [f"unknown command {name!r}" if name else "a message without \"cmd\""]
        if name in UNSUPPORTED:
            return [f"{name}: lumd does not support it"]
        service = message.get("service")
        if self._border == "rrm-to-lumd" and str(service).lower() != "rrm":
            return [f"{name}: service {service!r} instead of 'rrm': lumd drops it"]
        return []

    def _address(self, name, message):
        mac = message.get("ap-mac")
        if mac is not None and self._ap.mac:
            self._conformance.judge("address", [] if mac == self._ap.mac else [
                f"{name}: for {mac}, on the link of {self._ap.mac}"])

    def _patience(self, name, message):
        if name in ENDS_A_SURVEY and self._survey_until is not None:
            self._conformance.see("patience")
            if self._now() < self._survey_until:
                self._conformance.advise("patience", f"{name} came before the rrm-response of the "
                                         "survey under way, which may never come now")
            self._survey_until = None
        if name == "rrm-update":
            delay = message.get("rrm-scan-delay", 0)
            delay = delay if isinstance(delay, (int, float)) and delay > 0 else 0
            self._survey_until = self._now() + 2 * delay + LONGEST_SURVEY
            self._conformance.see("patience")

    # Commands

    def _subscribe_response(self, message):
        if self._asked is None:
            self._conformance.advise("subscription", "a subscribe-response that nothing asked for")
        else:
            seconds = self._now() - self._asked
            self._conformance.judge("subscription", [] if seconds <= SUBSCRIPTION_SECONDS else [
                f"subscribe-request was answered after {seconds:.1f} s"])
        status = message.get("status")
        if status is not None:
            self._asked = None
        if status is not None and str(status).lower() != "success":
            self._conformance.advise("subscription", f"the access point was refused: {status!r}, "
                                     f"code {message.get('code')}")
        if isinstance(message.get("config"), dict):
            self._settings("subscribe-response", message["config"])

    def _info(self, message):
        self._settings("rrm-info", message)

    def _settings(self, name, settings):
        self._config.update({key: settings.get(key, 0)
                             for key in ("use-tpc", "use-dca", "use-80211v")})
        self._config["use-80211r"] = settings.get("use-80211r", self._config.get("use-80211r", 0))
        for radio in objects(settings.get("radios")):
            for want, faults in self._radio_faults(radio):
                self._conformance.judge("refusal", [f"{name}: {fault}" for fault in faults])
                self._switched_off(name, want)

    def _switched_off(self, name, want):
        switch = {"channel": "use-dca", "power": "use-tpc"}[want]
        if not self._config.get(switch):
            self._conformance.advise("refusal", f"{name}: {want} without {switch} changes nothing")

    def _radio_faults(self, radio):
        """[(what is wanted, why it cannot be)] of an element of "radios"."""
        known = self._ap.radios.get(radio.get("id", 0))
        wants = [(want, value) for want in ("channel", "power") if (value := radio.get(want))]
        if known is None:
            return [(want, [f"there is no radio {radio.get('id')}"]) for want, _ in wants] \
                if self._ap.radios else []
        return [(want, self._cannot(known, want, value)) for want, value in wants]

    @staticmethod
    def _cannot(radio, want, value):
        name = f"radio {radio['id']}"
        if not radio.get("status"):
            return [f"{name} is down"]
        if radio.get("locked-for-dca" if want == "channel" else "locked-for-tpc"):
            return [f"{want} of {name} is locked"]
        available = radio.get("available-channels", "").split()
        if want == "channel" and str(value) not in available:
            return [f"{name} has no channel {value}, but {' '.join(available)}"]
        lowest, highest = radio.get("power-min", value), radio.get("power-max", value)
        if want == "power" and not lowest <= as_number(value) <= highest:
            return [f"the power of {name} is {lowest} to {highest} dBm, not {value}"]
        return []

    def _update(self, message):
        listed = message.get("rrm-scan-channels", "")
        channels = [int(word) for word in str(listed).split() if word.isdigit()]
        if message.get("vexor-rrm-scanning"):
            return
        for number, radio in sorted(self._ap.radios.items()):
            high = radio.get("band") != 2
            if radio.get("status") and not any((channel >= FIRST_CHANNEL_5G) == high
                                               for channel in channels):
                self._conformance.advise("refusal", f"rrm-update: no channel of radio {number} is "
                                         "listed: its whole band is surveyed")

    def _steer(self, message):
        self._conformance.see("refusal")
        if not self._config.get("use-80211v"):
            self._conformance.advise("refusal", "rrm-sta-overload: while use-80211v is 0 nobody "
                                     "tells which clients go")
        for wanted in objects(message.get("radios")):
            radio = self._ap.radios.get(wanted.get("id", 0))
            if radio is None and self._ap.radios:
                self._conformance.violate("refusal", "rrm-sta-overload: there is no radio "
                                          f"{wanted.get('id')}")
            elif radio is not None and radio.get("locked-for-80211v"):
                self._conformance.advise("refusal", f"rrm-sta-overload: radio {radio['id']} is "
                                         "locked for 802.11v")

    def _fast_transition(self, message):
        if not self._config.get("use-80211r") and objects(message.get("vaps")):
            self._conformance.advise("refusal", "fbt-info: while use-80211r is 0 it withdraws what "
                                     "it should set")

    def refused(self, reason: str) -> None:
        """The network manager did not do what lumd asked it for in the service's name."""
        self._conformance.judge("refusal", [f"the network manager refused: {reason}"])

    HANDLERS = {"subscribe-response": _subscribe_response, "rrm-info": _info,
                "rrm-update": _update, "rrm-sta-overload": _steer, "fbt-info": _fast_transition}


def about_the_header(complaint: str) -> bool:
    """Whether a rule of its own looks at it."""
    return complaint.startswith(("version:", "service:", "cmd:", "'version'", "'service'"))


def new_enough(version) -> bool:
    """Whether a message's version is one that lumd takes: 2.4 or later."""
    first, _, rest = str(version).partition(".")
    second = rest.partition(".")[0]
    return first.isdigit() and second.isdigit() and (int(first), int(second)) >= (2, 4)


def objects(value) -> list[dict]:
    """Those of an array, which may be none."""
    return [entry for entry in value if isinstance(entry, dict)] if isinstance(value, list) else []


def as_number(value) -> float:
    """As lumd reads one, as far as numbers and texts of digits go."""
    try:
        return float(value)
    except (TypeError, ValueError):
        return 0
