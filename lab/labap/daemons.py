"""The daemons beside lumd, as clients of its message bus: vaultd, hubd, scand and the portal.

Each can be stopped and started (its module is then absent from the bus), and its answers can be
delayed, withheld, turned into refusals or into garbage: see `Behaviour`.
"""
import asyncio
import copy
import dataclasses

from labtalk.contract import Checker
from labtalk.journal import summary

from . import msgbus, scenario as scenarios

ANSWERS = ("normal", "silent", "refuse", "garbage")
LUMD = msgbus.NAMES[msgbus.LUMD]
LINK = "internal-ipc"  # "service" of what a link and its partner tell each other


@dataclasses.dataclass
class Behaviour:
    """How a daemon answers. `only`: a command or a path that this is limited to; `times`: how
    many requests it lasts, None for ever."""
    answer: str = "normal"
    delay: float = 0
    reason: str | None = "refused by the lab"
    only: str | None = None
    times: int | None = None

    def applies(self, message):
        return self.times != 0 and self.only in (None, message.get("command"), message.get("path"))


class Daemon:
    """One module of the bus. Subclasses answer requests in `handle`."""

    name = ""
    module = 0
    heard_border, said_border = "bus-from-lumd", "bus-to-lumd"  # see labtalk.contract

    def __init__(self, journal, clock):
        self.journal, self.clock, self.checker = journal, clock, Checker(journal)
        self.behaviour = Behaviour()
        self.received = []
        self._bus = None
        self._tasks = set()

    def join(self, bus_path, order, checker):
        self.checker = checker
        self._bus = msgbus.BusClient(bus_path, self.module, self._on_frame, self._on_lost, order)

    @property
    def running(self):
        return self._bus is not None and self._bus.connected

    async def start(self):
        if not self.running:
            await self._bus.start()
            self.journal.tape("bus", "lab", "join", module=self.module)
            self.journal.add(self.name, "bus", "started")

    async def stop(self):
        for task in list(self._tasks):
            task.cancel()
        if self.running:
            self.journal.tape("bus", "lab", "leave", module=self.module)
            await self._bus.stop()
            self.journal.add(self.name, "bus", "stopped")

    def set_behaviour(self, **given):
        self.behaviour = Behaviour(**given)
        if self.behaviour.answer not in ANSWERS:
            raise scenarios.ScenarioError(f"answer: {self.behaviour.answer!r} is none of {ANSWERS}")

    def handle(self, message):
        """The answer to a request, None for none."""
        raise NotImplementedError

    def send(self, dst, message):
        self.journal.tape("bus", "lab", "frame", src=self.module, dst=dst, text=msgbus.text_of(
            message))
        self._bus.send(dst, message)

    def _on_frame(self, _bus, frame):
        self._tape_heard(frame)
        message = frame.json()
        self.received.append(message if message is not None else
                             frame.payload.decode(errors="replace"))
        sender = msgbus.NAMES.get(frame.src, str(frame.src))
        what = (message or {}).get("command", "message")
        self.journal.add(sender, self.name, what, self.received[-1])
        if sender == LUMD:
            self._look(self.heard_border, message)
        if message is None:
            return
        task = asyncio.create_task(self._respond(frame, message))
        self._tasks.add(task)
        task.add_done_callback(self._tasks.discard)

    def _tape_heard(self, frame):
        if msgbus.NAMES.get(frame.src) == LUMD:
            self.journal.tape("bus", "lumd", "frame", src=frame.src, dst=frame.dst, seq=frame.seq,
                              text=frame.payload.decode(errors="replace"))

    def _on_lost(self, _bus, frame):
        self.journal.add(self.name, msgbus.NAMES.get(frame.src, str(frame.src)), "undeliverable")

    async def _respond(self, frame, message):
        behaviour = Behaviour()
        if self.behaviour.applies(message):
            behaviour = self.behaviour
            if behaviour.times is not None:
                behaviour.times -= 1
        if behaviour.delay:
            await self.clock.sleep(behaviour.delay)
        answer = self._shaped(behaviour, message)
        if answer is None or not self.running:
            return
        self.journal.tape("bus", "lab", "answer", src=self.module, dst=frame.src, seq=frame.seq,
                          text=msgbus.text_of(answer))
        self._bus.answer(frame, answer)
        if behaviour.answer != "garbage" and msgbus.NAMES.get(frame.src) == LUMD:
            self._look(self.said_border, answer)
        what = answer.get("command", "message") if isinstance(answer, dict) else "garbage"
        self.journal.add(self.name, msgbus.NAMES.get(frame.src, str(frame.src)), what, answer)

    def _look(self, border, message):
        self.checker.look(border, message)

    def _shaped(self, behaviour, message):
        if behaviour.answer == "silent":
            return None
        if behaviour.answer == "garbage":
            return "}{ this is no JSON"
        if behaviour.answer == "refuse":
            refusal = {"command": f"{message.get('command')}-response", "status": "error"}
            return refusal if behaviour.reason is None else {**refusal,
                                                             "reason": behaviour.reason}
        return self.handle(message)


class Vaultd(Daemon):
    """The configuration store: "get" by path."""

    name, module = "vaultd", msgbus.VAULTD

    def __init__(self, journal, clock, tree):
        super().__init__(journal, clock)
        self.tree = tree

    def handle(self, message):
        if message.get("command") != "get":
            return None
        path = message.get("path", "")
        value = scenarios.find(self.tree, path)
        if value is None:
            return {"command": "get-response", "path": path, "status": "error",
                    "reason": "not found"}
        return {"command": "get-response", "path": path, "value": value}


class Hubd(Daemon):
    """The network manager: puts what it is told into the store and into the radios.

    `applied()` is called after each change of the configuration.
    """

    name, module = "hubd", msgbus.HUBD

    def __init__(self, journal, clock, tree, air, applied):
        super().__init__(journal, clock)
        self.tree, self.air, self.applied = tree, air, applied
        self._first = copy.deepcopy(tree)
        self._first_radios = {radio.ifname: (radio.channel, radio.bandwidth, radio.primary,
                                             radio.tx_power) for radio in air.radios}

    def handle(self, message):
        handler = self.HANDLERS.get(message.get("command"))
        if handler is None:
            return None
        reason = handler(self, message)
        answer = {"command": message["command"] + "-response",
                  "status": "ok" if reason is None else "error"}
        if reason is not None:
            answer["reason"] = reason
        return answer

    # Each handler returns the reason of a refusal, None when the request was carried out.

    def _update(self, message):
        ifname, params = message.get("ifname", ""), message.get("params")
        radio = next((radio for radio in self.air.radios if radio.ifname == ifname), None)
        if radio is None or not isinstance(params, dict):
            return f"no radio {summary(ifname)}"
        try:
            numbers = {key: int(params[key]) for key in ("channel", "bandwidth", "tx-power")
                       if key in params}
        except ValueError:
            return "a number is wanted"
        if numbers.get("channel", radio.channel) not in radio.available:
            return f"channel {numbers['channel']} is not available on {ifname}"
        radio.channel = numbers.get("channel", radio.channel)
        radio.bandwidth = numbers.get("bandwidth", radio.bandwidth)
        radio.tx_power = numbers.get("tx-power", radio.tx_power)
        radio.primary = params.get("control-sideband", radio.primary)
        for key, value in params.items():
            scenarios.put(self.tree, f"/interface/{ifname}/wlan/radio/{key}", value)
        self.applied()
        return None

    def _reset(self, message):
        ifname = message.get("ifname", "")
        radio = next((radio for radio in self.air.radios if radio.ifname == ifname), None)
        if radio is None:
            return f"no radio {summary(ifname)}"
        radio.channel, radio.bandwidth, radio.primary, radio.tx_power = self._first_radios[ifname]
        path = f"/interface/{ifname}/wlan/radio"
        scenarios.put(self.tree, path, copy.deepcopy(scenarios.find(self._first, path)))
        self.applied()
        return None

    def _update_fbt(self, message):
        for ifname, document in message.items():
            if not isinstance(document, dict):
                continue
            settings = document.get("ft-config")
            if isinstance(settings, dict):
                scenarios.put(self.tree, f"/interface/{ifname}/vap/ft-config", settings)
        return None

    def _reset_fbt(self, message):
        for ifname, document in message.items():
            path = f"/interface/{ifname}/vap/ft-config"
            before = scenarios.find(self._first, path)
            if isinstance(document, dict) and before is not None:
                scenarios.put(self.tree, path, copy.deepcopy(before))
        return None

    def _mac_lists(self, message):
        lists = {key: value for key, value in message.items() if key != "command"}
        scenarios.put(self.tree, "/wids/mac-lists", lists)
        return None

    HANDLERS = {
        "update-orvanta": _update, "reset-orvanta": _reset,
        "update-orvanta-fbt": _update_fbt, "reset-orvanta-fbt": _reset_fbt,
        "update-wids-mac-lists": _mac_lists,
    }


class Scand(Daemon):
    """The scan daemon: keeps off the interfaces that are locked, and answers nothing."""

    name, module = "scand", msgbus.SCAND

    def __init__(self, journal, clock):
        super().__init__(journal, clock)
        self.locked = set()

    def handle(self, message):
        change = {"lock-scan": self.locked.add,
                  "unlock-scan": self.locked.discard}.get(message.get("command"))
        if change is not None:
            change(message.get("interface"))


class Portal(Daemon):
    """The portal module at the other end of lumd's relay; `echo` sends back what arrives."""

    name, module = "portal", msgbus.PORTAL
    heard_border, said_border = "portal-from-lumd", "portal-to-lumd"

    def __init__(self, journal, clock):
        super().__init__(journal, clock)
        self.echo = False

    def handle(self, message):
        return message if self.echo else None

    def _look(self, border, message):
        """Most of what passes is the service's and nobody's concern."""
        if isinstance(message, dict) and message.get("service") == LINK:
            super()._look(border, message)


class Traps(Daemon):
    """Tells lumd about stations, as hostapd's event relay does."""

    name, module = "hostapd", msgbus.TRAPS

    def handle(self, message):
        return None

    def trap(self, broken=False, **event):
        event = {key.rstrip("_").replace("_", "-"): value for key, value in event.items()
                 if value is not None}
        if not self.running:
            return
        message = {"command": "wifi-client-trap", "event": event}
        if not broken:
            self._look(self.said_border, message)
        self.send(msgbus.ORVANTA_EVENTS, message)
        self.journal.add("hostapd", "lumd", "wifi-client-trap", event)
