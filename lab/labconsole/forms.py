"""Forms for the prompt's commands: their words with limits, units and explanations from the schemas,
and the choices that the prompt completes.

A form is {"name", "help", "line": words of the command before its fields, "fields"}; a field {"name",
"kind": choice, number or text, "help", "unit", "choices", "lowest", "highest", "default", "optional",
"before": a word that stands before its value, "words": its value is several words, "equals": it is
typed NAME=VALUE, "by": the field that its choices and limits depend
on}. Of a field with "by" these are in "each", by the value of that field.
"""
import json
import types

from labap import faults
from labap.daemons import ANSWERS
from labap.scenario import names as scenarios
from labshow.harness import LIBRARY_NOISE
from labshow.rrm_choices import BANDWIDTHS
from labshow.rrm_console import SIGNAL_DBM, STRONGEST_DBM, WEAKEST_DBM
from labshow.survey import CHANNELS, LONGEST_DELAY
from labtalk import contract
from labtalk.resources import resource

from .explain import in_words, place

SERVICE, LAB, FAULTS = "service", "access point", "faults"
DROPS = "close the connection; lumd comes back by itself"
OVER_THE_AIR = ("status", "channel", "power", "scan", "steer", "neighbours")  # the second lab, too
# What the prompt has and a page shows otherwise, or cannot.
LEFT_OUT = frozenset({"show", "log", "help", "record", "quit"})


def is_noise(line):
    return LIBRARY_NOISE in line


def of(console):
    """The forms of everything that this console commands."""
    known, radios = console.commands(), console.lab.ap.air.radios
    made = [form for name, maker in MAKERS.items() if name in known
            for form in maker(radios, console.lab)]
    named = {form["line"].split()[0] for form in made}
    return made + [_form(name, _help(command), LAB) for name, command in known.items()
                   if name not in named | LEFT_OUT]


def of_air(mode, radios, daemons):
    """Of an access point of the second lab, whose radios that are up and whose daemons are these."""
    lab = types.SimpleNamespace(mode=mode, endpoint=None, scenario={
        "radios": [{"tx-power-range": radio.power_range} for radio in radios]})
    told = [form for name in OVER_THE_AIR for form in MAKERS[name](radios, lab)] if radios else []
    return [*told, *_sending(mode), *_plain("drop-link", DROPS, FAULTS)(None, None),
            _form("daemon", "a daemon ends or starts", FAULTS, {
                "name": "daemon", "kind": "choice", "choices": list(daemons),
                "help": "Of the access point."}, {
                "name": "action", "kind": "choice", "choices": ["stop", "start"], "help": ""})]


def _help(command):
    return (command.__doc__ or "").partition(": ")[2]


def _form(line, text, group, *fields):
    return {"name": line, "line": line, "help": text, "group": group, "fields": list(fields)}


def _field(name, kind, schema=None, **more):
    schema = schema or {}
    # The control itself shows the limits.
    field = {"name": name, "kind": kind, "help": schema.get("description", "")}
    if "x-unit" in schema:
        field["unit"] = schema["x-unit"]
    return {**field, **more}


def _radio_field(radios):
    return _field("radio", "choice", place("rrm-to-lumd", "rrm-info", "radios[].id"),
                  choices=[radio.ifname for radio in radios])


def _status(_radios, lab):
    """Elsewhere it tells what the lab knows and asks nobody."""
    return _plain("status", "ask lumd for its radios", SERVICE)(None, lab) \
        if lab.mode == "rrm" and lab.endpoint is None else []


def _channel(radios, _lab):
    setting = "radios[]."
    at = {name: place("rrm-to-lumd", "rrm-info", setting + name)
          for name in ("channel", "bandwidth", "primary-channel")}
    yield _form("channel", "change a radio's channel", SERVICE, _radio_field(radios), _field(
        "channel", "choice", at["channel"], by="radio",
        each={radio.ifname: {"choices": radio.available, "default": radio.channel}
              for radio in radios}), _field(
        "bandwidth", "choice", at["bandwidth"], by="radio", unit="MHz",
        each={radio.ifname: {"choices": BANDWIDTHS[radio.band], "default": radio.bandwidth}
              for radio in radios}), _field(
        "side", "choice", at["primary-channel"], choices=["lower", "upper"], optional=True))


def _power(radios, lab):
    limits = {}
    for radio, given in zip(radios, lab.scenario["radios"]):
        lowest, highest = given["tx-power-range"]
        limits[radio.ifname] = {"lowest": lowest, "highest": highest, "default": radio.tx_power}
    yield _form("power", "change a radio's transmit power", SERVICE, _radio_field(radios), _field(
        "power", "number", place("rrm-to-lumd", "rrm-info", "radios[].power"), by="radio",
        unit="dBm", each=limits))


def _scan(_radios, _lab):
    yield _form("scan", "survey the air", SERVICE, _field(
        "channels", "text", place("rrm-to-lumd", "rrm-update", "rrm-scan-channels"),
        default=" ".join(map(str, CHANNELS)), optional=True, words=True), _field(
        "path", "choice", place("rrm-to-lumd", "rrm-update", "vexor-rrm-scanning"),
        choices=["", "--vendor"], labels=["generic", "vendor"], optional=True), _field(
        "delay", "number", place("rrm-to-lumd", "rrm-update", "rrm-scan-delay"), lowest=0,
        highest=LONGEST_DELAY, default=0, before="--delay", optional=True))


def _steer(radios, _lab):
    yield _form("steer", "have the weakest clients of a radio move elsewhere", SERVICE,
                _radio_field(radios), _field(
                    "count", "number",
                    place("rrm-to-lumd", "rrm-sta-overload", "radios[].roam-count"), lowest=1,
                    highest=100, default=1))


def _ft(_radios, _lab):
    yield _form("ft", "push or withdraw 802.11r parameters", SERVICE, _field(
        "state", "choice", place("rrm-to-lumd", "rrm-info", "use-80211r"),
        choices=["on", "off"]))


def _plain(name, text, group):
    return lambda _radios, _lab: [_form(name, text, group)]


def _send(_radios, lab):
    return _sending(lab.mode)


def _sending(mode):
    border = f"{mode}-to-lumd"
    if border not in contract.borders():
        return
    yield _form("send", "a message as it stands; a header is filled in where it has none", SERVICE,
                _field("message", "json", examples=[
                    {"name": name, "title": schema.get("title", name),
                     "text": _example(border, name),
                     "about": [[member, in_words(_member(schema, member))]
                               for member in _members(schema) if member not in ENVELOPE]}
                    for name, schema in contract.messages(border).items()]))


ENVELOPE = ("version", "service", "cmd")


def _members(schema):
    for part in (schema, *schema.get("allOf", ())):
        yield from part.get("properties", {})


def _member(schema, name):
    return next(part["properties"][name] for part in (schema, *schema.get("allOf", ()))
                if name in part.get("properties", {}))


def _example(border, name):
    """The recorded one, or the bare command."""
    recorded = _recorded(border).get(name)
    message = recorded[0] if isinstance(recorded, list) and recorded else recorded
    return message if isinstance(message, dict) else {"cmd": name}


def _recorded(border):
    path = resource("schemas") / "examples" / f"{border}.json"
    return json.loads(path.read_text(encoding="utf-8")) if path.is_file() else {}


def _client(radios, _lab):
    vaps = [vap.ifname for radio in radios for vap in radio.vaps]
    present = [mac for radio in radios for vap in radio.vaps for mac in vap.stations]
    vap = {"name": "VAP", "kind": "choice", "choices": vaps, "help": "Where it goes."}
    who = {"name": "client", "kind": "choice", "choices": present, "help": "Which one."}
    yield _form("client add", "a client comes", LAB, vap, {
        "name": "address", "kind": "text", "default": "02:1a:2b:00:00:77",
        "help": "MAC address of the client that comes."}, {
        "name": "signal", "kind": "number", "lowest": WEAKEST_DBM, "highest": STRONGEST_DBM,
        "default": SIGNAL_DBM, "unit": "dBm", "help": "How strongly it is heard."})
    yield _form("client move", "a client joins another VAP by itself", LAB, who, vap)
    yield _form("client remove", "a client goes", LAB, who)


def _hostapd(_radios, _lab):
    yield _form("hostapd", "the daemon goes away or comes back", FAULTS, {
        "name": "action", "kind": "choice", "choices": ["stop", "start"], "help": ""})


def _fault(_radios, lab):
    def member(name, kind, text, **more):
        return {"name": name, "kind": kind, "help": text, "optional": True, "equals": True, **more}

    yield _form("fault", "let a call of the drivers or hostapd fail, lie or take its time", FAULTS, {
        "name": "call", "kind": "choice", "choices": list(faults.CALLS),
        "help": "Which kind of call."},
        member("errno", "text", "Error that it returns.", default="EIO"),
        member("ifname", "text", "Only at this interface."),
        member("name", "text", "Only this vendor command, MIB or hostapd command."),
        member("count", "number", "How many entries the result claims to hold."),
        member("value", "text", "Value of the MIB."),
        member("output", "text", "What the tool prints instead."),
        member("delay", "number", "Before the answer.", unit="s", lowest=0),
        member("times", "number", "How often; empty: until it is cleared.", lowest=1))
    daemons = {"name": "daemon", "kind": "choice", "choices": list(lab.ap.daemons),
               "help": "A daemon on the message bus."}
    yield _form("fault daemon", "a daemon is away from the bus, or back", FAULTS, daemons, {
        "name": "action", "kind": "choice", "choices": ["stop", "start"], "help": ""})
    yield {**_form("fault daemon", "a daemon answers otherwise than usual", FAULTS, daemons,
                   member("answer", "choice", "How it answers.", choices=list(ANSWERS),
                          default="silent"),
                   member("delay", "number", "Before the answer.", unit="s", lowest=0),
                   member("reason", "text", "Of a refusal."),
                   member("only", "text", "Only this command, or path of the store."),
                   member("times", "number", "How many requests.", lowest=1)),
           "name": "fault daemon answer"}
    yield _form("fault clear", "everything works again", FAULTS)


def _scenario(_radios, _lab):
    yield _form("scenario", "another lab from its beginning", LAB, {
        "name": "scenario", "kind": "choice", "choices": scenarios(), "help": ""})


def _push(_radios, lab):
    yield _form("push", "push a MAC list", SERVICE, _field(
        "name", "text", place("wids-to-lumd", "mac-list", "Name"),
        default=lab.scenario["mac-list-id"]))


def _text(name, text):
    return lambda _radios, _lab: [_form(name, text, SERVICE, {
        "name": "text", "kind": "text", "default": "hello", "help": "What is sent."})]


MAKERS = {
    "status": _status, "channel": _channel,
    "power": _power, "scan": _scan, "steer": _steer,
    "neighbours": _plain("neighbours", "load the 802.11k neighbour lists", SERVICE), "ft": _ft,
    "clients": _plain("clients", "who is associated, as the access point and the service see it",
                      SERVICE),
    "push": _push, "down": _text("down", "the service sends, the portal module must get it"),
    "up": _text("up", "the portal module sends, the service must get it"),
    "unlink": _plain("unlink", "the portal module ends the link for good", SERVICE),
    "send": _send, "client": _client, "scenario": _scenario,
    "drop-link": _plain("drop-link", DROPS, FAULTS),
    "hostapd": _hostapd,
    "restart": _plain("restart", "end lumd and start it again", FAULTS), "fault": _fault,
}
