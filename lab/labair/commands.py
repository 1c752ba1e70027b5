"""What a person commands of an access point of the air: messages of its service, a lost link, daemons
that end and start."""
import dataclasses
import json

from labconsole import apstate, forms
from labservice.server import ServiceError
from labshow.console import Refused, integer, within
from labshow.prompt import split
from labshow.rrm_choices import BANDWIDTHS
from labshow.survey import Survey

from .accesspoint import DAEMONS
from .station import frequency
from .steps import CONFIG, as_neighbour
from .tour import SURVEY_WAIT

AP = "AP"           # a type, as labair.nl80211 calls it
CHANGE_WAIT = 60.0  # seconds until the kernel has what was commanded; a machine may be slow
MOVE_WAIT = 30.0    # seconds until a client has moved that was asked to


@dataclasses.dataclass(frozen=True)
class Radio:
    """As the service was told of it; what forms and surveys take."""

    ifname: str
    band: str
    channel: int
    bandwidth: int
    tx_power: int
    power_range: tuple[int, int]
    available: tuple[int, ...]

    def hears(self, channel: int) -> bool:
        """Whether it can be on that channel."""
        return channel in self.available


class AirCommands:
    """Of `point`, whose clients may go to the `others`. `runs(daemon)`: whether one does."""

    def __init__(self, point, others, runs):
        self._point, self._others, self._runs = point, others, runs
        self._listed = []  # for 802.11k; each configuration repeats it
        self._commands = {
            "status": self._status, "channel": self._channel, "power": self._power,
            "scan": self._scan, "neighbours": self._neighbours, "steer": self._steer,
            "send": self._send, "drop-link": self._drop, "daemon": self._daemon}

    def radios(self) -> list[Radio]:
        """Those that are up; none while the service was told of none."""
        try:
            told = apstate.radios(self._point.known)
        except ServiceError:
            return []
        return [Radio(radio["ifname"], radio["band"], radio["channel"], radio["bandwidth"],
                      radio["power"], (radio["power-min"], radio["power-max"]),
                      tuple(radio["available"])) for radio in told if radio["up"]]

    def forms(self) -> list[dict]:
        """See labconsole.forms."""
        return forms.of_air("rrm", self.radios(), DAEMONS)

    async def run(self, line: str) -> None:
        """Until what must follow has come; Refused when it was not begun, GuestError when that does
        not come."""
        name, *words = split(line)
        command = self._commands.get(name)
        if command is None:
            raise Refused("unknown command")
        await command(*words)

    def _radio(self, name):
        for radio in self.radios():
            if radio.ifname == name:
                return int(name.removeprefix("wlan")), radio
        raise Refused(f"there is no radio {name} that is up")

    async def _configure(self, **more):
        await self._point.send({"cmd": "rrm-info", **CONFIG, "802dot11k": self._listed, **more})

    async def _on_air(self, number, problem, predicate):
        """Until the kernel has it; then the service asks lumd."""
        vap = f"wlan{number}-va0"
        await self._point.until(problem, self._point.kernel, lambda all_: predicate(all_[vap]),
                                CHANGE_WAIT)
        await self._status()

    async def _status(self):
        since = await self._point.send({"cmd": "rrm-request-mode"})
        await self._point.heard("rrm-mode-response", since)

    async def _channel(self, name, channel, bandwidth, side=None):
        number, radio = self._radio(name)
        change = {"id": number, "channel": integer(channel), "bandwidth": integer(bandwidth)}
        if not radio.hears(change["channel"]) or change["bandwidth"] not in BANDWIDTHS[radio.band]:
            raise Refused(f"{name} has no channel {channel} of {bandwidth} MHz")
        if side is not None:
            change["primary-channel"] = side
        await self._configure(radios=[change])
        wanted = frequency(change["channel"]), change["bandwidth"]
        await self._on_air(number, f"not on channel {channel}, {bandwidth} MHz",
                           lambda vap: (vap["frequency"], vap["width"]) == wanted)

    async def _power(self, name, dbm):
        number, radio = self._radio(name)
        dbm = within(integer(dbm), *radio.power_range, f"the power of {name}", "dBm")
        await self._configure(radios=[{"id": number, "power": dbm}])
        await self._on_air(number, f"not {dbm} dBm", lambda vap: vap["power"] == dbm)

    async def _scan(self, *words):
        since = await self._point.send(Survey.parse(words, self.radios()).message())
        await self._point.heard("rrm-response", since, SURVEY_WAIT)

    async def _neighbours(self):
        self._listed = await self._list()
        await self._configure()

    async def _list(self):
        """The others' access points that send."""
        return [as_neighbour(other, here) for other in self._others
                for here in (await other.kernel()).values()
                if here["type"] == AP and here["frequency"] is not None]

    async def _steer(self, name, count):
        number, _ = self._radio(name)
        since = await self._point.send({
            "cmd": "rrm-sta-overload", "ap-mac": self._point.known.mac,
            "802dot11k": await self._list(),
            "radios": [{"id": number, "roam-count": integer(count)}]})
        await self._point.heard("rrm-sta-roam", since, MOVE_WAIT)

    async def _send(self, text):
        message = json.loads(text)
        if not isinstance(message, dict):
            raise Refused("a message is an object")
        await self._point.service.send(message)

    async def _drop(self):
        await self._point.service.drop()

    async def _daemon(self, name, action):
        if name not in DAEMONS or action not in ("stop", "start"):
            raise Refused(f"daemon {'|'.join(DAEMONS)} stop|start")
        runs = self._runs(name)
        if runs == (action == "start"):
            raise Refused(f"{name} {'runs' if runs else 'does not run'}")
        await (self._point.start_daemon(name) if action == "start" else self._point.kill(name))
