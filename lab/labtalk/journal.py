"""The conversation around one lumd: every message, command and file event in order.

An event is a dictionary: "n" its number from 1, "t" the time (seconds of the wall clock), "from"
and "to" who spoke to whom, "what" the kind, "data" the content.
"""
import asyncio
import json
import sys
import time
from collections.abc import Callable

WIDTH = 150  # characters of an event's content where no terminal limits it
NARROW = 110  # columns below which an event is told more briefly
HEADER = ("version", "service", "ap-mac")  # the same in one message after the other
COLOURS = {"service": "\x1b[36m", "hubd": "\x1b[33m", "driver": "\x1b[35m", "hostapd": "\x1b[32m",
           "vaultd": "\x1b[90m"}
RESET = "\x1b[0m"


class Journal:
    """Keeps events, shows them to listeners, and lets others wait for one. What passed at a border
    to the letter goes to `tapes` only: see labtalk.recording."""

    def __init__(self):
        self.events = []  # all of them, or those that are kept
        self.count = 0    # of all
        self.listeners = []
        self.tapes = []
        self._arrival = asyncio.Event()
        self._kept = None

    def keep(self, latest: int) -> None:
        """Forgets from now on what has at least `latest` successors, for a lab that runs for days."""
        self._kept = latest

    def listen(self, listener: Callable[[dict], None]) -> None:
        """`listener(event)` is called for every new event."""
        self.listeners.append(listener)

    def follow(self, listener: Callable[[dict], None]) -> None:
        """The same, after a call for every event that is kept."""
        for event in self.events:
            listener(event)
        self.listen(listener)

    def leave(self, listener: Callable[[dict], None]) -> None:
        """It is called no more; harmless when it is not anyway."""
        if listener in self.listeners:
            self.listeners.remove(listener)

    def tape(self, border: str, by: str, what: str, **members) -> None:
        """One entry of a recording; nobody listens as a rule."""
        for tape in self.tapes:
            tape(border, by, what, members)

    def add(self, source: str, target: str, what: str, data: object = None) -> dict:
        """The new event."""
        self.count += 1
        event = {"n": self.count, "t": time.time(), "from": source, "to": target,
                 "what": what, "data": data}
        self.events.append(event)
        if self._kept is not None and len(self.events) > 2 * self._kept:
            del self.events[:-self._kept]
        for listener in self.listeners:
            listener(event)
        arrival, self._arrival = self._arrival, asyncio.Event()
        arrival.set()
        return event

    def since(self, number: int, **match) -> list[dict]:
        """Events after event `number` whose members equal those of `match`."""
        match = {key.rstrip("_"): value for key, value in match.items()}
        forgotten = self.count - len(self.events)
        return [event for event in self.events[max(number - forgotten, 0):]
                if matches(event, match)]

    def between(self, after: int, last: int) -> list[dict]:
        """Those of the events `after` + 1 to `last` that are kept."""
        forgotten = self.count - len(self.events)
        return self.events[max(after - forgotten, 0):max(last - forgotten, 0)]

    async def wait(self, number: int = 0, timeout: float = 10.0,
                   predicate: Callable[[dict], bool] | None = None, **match) -> dict | None:
        """The first event after `number` that matches; None when none came in time."""
        deadline = time.monotonic() + timeout
        while True:
            arrival = self._arrival
            for event in self.since(number, **match):
                if predicate is None or predicate(event):
                    return event
                number = event["n"]
            try:
                await asyncio.wait_for(arrival.wait(), max(deadline - time.monotonic(), 0.001))
            except asyncio.TimeoutError:
                if time.monotonic() >= deadline:
                    return None


def matches(event, match):
    """Whether each member that `match` names is equal in the event; objects member by member."""
    for key, wanted in match.items():
        value = event.get(key) if isinstance(event, dict) else None
        if isinstance(wanted, dict):
            if not isinstance(value, dict) or not matches(value, wanted):
                return False
        elif value != wanted:
            return False
    return True


def summary(data, width=WIDTH):
    """The content on one line, cut at `width`."""
    if data is None:
        return ""
    if isinstance(data, dict):
        text = " ".join(f"{key}={_value(value)}" for key, value in data.items())
    else:
        text = _value(data)
    return cut(text, width)


def cut(text, width):
    """The text, or as much of it as fits and a sign that it goes on."""
    return text if len(text) <= width else text[:max(width - 1, 0)] + "…"


def _value(value):
    if isinstance(value, str):
        return value if value and " " not in value else json.dumps(value, ensure_ascii=False)
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False)


def _news(event):
    """The content without what the line tells anyway."""
    data = event["data"]
    return data if not isinstance(data, dict) else {
        key: value for key, value in data.items() if key not in HEADER and value != event["what"]}


def line(event, colour=False, width=None):
    """One event as a person reads it; `width`: of the terminal, if it is shown on one."""
    narrow = width is not None and width < NARROW
    clock = time.strftime("%H:%M:%S", time.localtime(event["t"]))
    if not narrow:
        clock += f".{int(event['t'] % 1 * 1000):03d}"
    speakers = f"{event['from']:>8} → {event['to']:<8}"
    first, last = f"{event['n']:>4} {clock} ", f" {event['what']:<{18 if narrow else 26}} "
    if width is None:
        text = last + summary(event["data"])
    else:
        text = cut((last + summary(_news(event))).rstrip(), width - len(first + speakers))
    if colour:
        tint = next((COLOURS[name] for name in (event["from"], event["to"]) if name in COLOURS), "")
        speakers = tint + speakers + RESET
    return (first + speakers + text).rstrip()


def printer(machine=False, stream=sys.stdout, hide=()):
    """A listener that prints each event, as a line of text or of JSON."""
    colour = not machine and stream.isatty()

    def show(event):
        if event["what"] in hide:
            return
        text = json.dumps(event, ensure_ascii=False) if machine else line(event, colour)
        try:
            print(text, file=stream, flush=True)
        except (BrokenPipeError, ValueError):
            pass

    return show
