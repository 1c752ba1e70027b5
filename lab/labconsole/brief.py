"""Events as the page lists them: short, with what they are searched by."""
import json
import re

from labtalk.journal import HEADER, cut
from labtalk.quiet import NOISE

LONGEST = 100       # characters of an event's content
LOOKED_AT = 8192    # characters of it that names are looked for in
MOST_NAMES = 24     # of an event
LANES = ("service", "lumd", "bus", "driver", "hostapd")
OTHERS = {"relay": "service", "network": "service", "client": "driver", "guardd": "hostapd",
          "traps": "hostapd", "checker": "lumd"}
MAC = re.compile(r"\b(?:[0-9a-f]{2}:){5}[0-9a-f]{2}\b")
RADIO = re.compile(r"\bwlan[0-9]+\b")
BY_NUMBER = ("radio", "radio_id")  # members that name a radio by its number
MARKS = {"COMPLAINT": "bad", "VIOLATION": "bad", "undeliverable": "bad", "garbage": "bad"}


def lane(speaker: str) -> str:
    """Which of LANES a speaker stands in: whoever is nobody else is a daemon on the bus."""
    return speaker if speaker in LANES else OTHERS.get(speaker, "bus")


def kind(event: dict) -> str:
    """What an event is filtered by: the border it passed, or "reads" for those by the dozen."""
    if event["what"] in NOISE:
        return "reads"
    lanes = {lane(event["from"]), lane(event["to"])} - {"lumd"}
    return next((name for name in LANES if name in lanes), "lumd")


def brief(event: dict) -> list:
    """[number, time, lane it leaves, lane it reaches, speaker, listener, what, content, kind,
    names in it, "bad" or ""]"""
    text = _text(event["data"])
    return [event["n"], round(event["t"], 3), LANES.index(lane(event["from"])),
            LANES.index(lane(event["to"])), event["from"], event["to"], event["what"],
            cut(_news(event, text), LONGEST), kind(event), _names(event["data"], text),
            "bad" if _is_bad(event) else ""]


def _text(data):
    if data is None:
        return ""
    if isinstance(data, str):
        return data[:LOOKED_AT]
    return json.dumps(data, ensure_ascii=False, separators=(",", ":"))[:LOOKED_AT]


def _news(event, text):
    """The content without what the row tells anyway."""
    data = event["data"]
    if not isinstance(data, dict):
        return text
    parts = []
    length = 0
    for key, value in data.items():
        if key in HEADER or value == event["what"]:
            continue
        part = f"{key}={value if isinstance(value, str) else _text(value)[:LONGEST]}"
        parts.append(part)
        length += len(part)
        if length > LONGEST:
            break
    return " ".join(parts)


def _names(data, text):
    names = dict.fromkeys(MAC.findall(text) + RADIO.findall(text))
    if isinstance(data, dict):
        names.update(dict.fromkeys(f"wlan{data[key]}" for key in BY_NUMBER if key in data))
    return " ".join([*names][:MOST_NAMES])


def _is_bad(event):
    data = event["data"]
    return event["what"] in MARKS or isinstance(data, dict) and (
        data.get("status") == "error" or isinstance(data.get("result"), int) and data["result"] < 0)
