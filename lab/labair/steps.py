"""What all steps of the tour have in common: who is there, what the service says, how one waits.
"""
import asyncio
import dataclasses
import time
from collections.abc import Callable

from labshow.process import LabError

from . import frames
from .accesspoint import AirAccessPoint
from .air import Air
from .machine import GuestError
from .station import LOOK_PAUSE, Station, frequency

CONFIG = {"use-tpc": 1, "use-dca": 1, "use-80211v": 1, "use-80211r": 0}
BAND_24, BAND_5 = 0, 1  # numbers of an access point's radios
TOGETHER, APART = 1, 2  # groups of radios that hear one another
TIMES_ASKED = 3
MOVE_WAIT = 20.0   # seconds
LOOKS_AWAY = 12.0  # after a failure wpa_supplicant leaves an access point out for 10 s
DISCONNECTED = "CTRL-EVENT-DISCONNECTED"


@dataclasses.dataclass(frozen=True)
class Row:
    """What was asked, what the kernel, a client or a frame then shows, what the service saw, and
    the seconds from the command until it was shown."""

    asked: str
    on_air: str
    service: str
    seconds: float | None = None


@dataclasses.dataclass(frozen=True)
class Watch:
    """Clients that are to keep their connection. `events`: place in the machine's; `started`: on
    the monotonic clock."""

    clients: tuple[Station, ...]
    events: int
    started: float


def channel_of(mhz: int | None) -> int | None:
    """The number of a channel at 2.4 or 5 GHz."""
    if mhz is None:
        return None
    return (mhz - 2407) // 5 if mhz < 3000 else (mhz - 5000) // 5


def as_neighbour(point: AirAccessPoint, here: dict) -> dict:
    """One access point of a radio's, as the kernel has it, as the service tells others of it."""
    return {"neighbour-mac": point.mac, "channel": channel_of(here["frequency"]), "priority": 1,
            "vaps": [{"ssid": point.network.ssid, "mac": here["address"]}]}


class Steps:
    """`tell` is called with each row, `begin` with what each step is about. `seconds`: figures by
    name."""

    def __init__(self, air: Air, tell: Callable[[str], None] = lambda text: None,
                 begin: Callable[[str], None] = lambda text: None):
        self.air, self._tell, self._begin = air, tell, begin
        self.rows: list[Row] = []
        self.seconds: dict[str, float] = {}
        for point in air.points:
            point.service.subscribe_answers = [
                {"status": "success", "code": 200, "config": dict(CONFIG)}]

    @property
    def first(self) -> AirAccessPoint:
        """The one that the service commands."""
        return self.air.points[0]

    @property
    def second(self) -> AirAccessPoint:
        return self.air.points[1]

    def clients_of(self, radio: int) -> list[Station]:
        """Those of a radio's band."""
        return [client for client in self.air.clients if (client.band == 5) == (radio == BAND_5)]

    def _row(self, asked, on_air, service, seconds=None):
        self.rows.append(Row(asked, on_air, service, seconds))
        within = "" if seconds is None else f" ({seconds:.2f} s)"
        self._tell(f"{asked}: {on_air}{within}; service: {service}")

    # What they share

    async def configure(self, point: AirAccessPoint, **more) -> int:
        """A configuration with the neighbours that were told last; the place in the journal."""
        return await point.send({"cmd": "rrm-info", **CONFIG,
                                 "802dot11k": getattr(self, "listed", []), **more})

    async def insist(self, point: AirAccessPoint, problem: str, ask: Callable, predicate: Callable,
                     **radio) -> int:
        """Commands a radio until it is so; again where hostapd was too slow for lumd's patience.
        The place in the journal before the command that was carried out."""
        for attempt in range(TIMES_ASKED):
            since = await self.configure(point, radios=[radio])
            try:
                await point.until(problem, ask, predicate)
                return since
            except GuestError as error:
                if attempt == TIMES_ASKED - 1:
                    raise
                self._tell(str(error).partition("\n")[0] + "; it is commanded again")
        return since

    async def withdraw_holders(self, point: AirAccessPoint) -> None:
        """What the service has set of 802.11r is taken back."""
        await self.configure(point)
        await point.send({"cmd": "fbt-info", "vaps": []})

    async def reported(self, point: AirAccessPoint) -> dict:
        """What lumd answers when it is asked for its radios."""
        since = await point.send({"cmd": "rrm-request-mode"})
        return (await point.heard("rrm-mode-response", since))["data"]

    async def neighbour_list(self) -> list[dict]:
        """The second access point, as the service would tell the first one of it."""
        return [as_neighbour(self.second, await self.second.access_point(radio))
                for radio in (BAND_24, BAND_5)]

    async def whereabouts(self, bssid: str) -> tuple[AirAccessPoint, int]:
        """Whose it is, and of which radio."""
        for point in self.air.points:
            for radio in (BAND_24, BAND_5):
                if await point.bssid(radio) == bssid:
                    return point, radio
        raise LabError(f"nobody has {bssid}")

    async def seated(self, client: Station, timeout: float = 60.0) -> dict[str, str]:
        """A client's status once the kernel of the access point that it names has it, too."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            status = await client.wait()
            point, radio = await self.whereabouts(status["bssid"])
            if client.address in await point.stations(radio):
                return status
            await asyncio.sleep(LOOK_PAUSE)
        raise GuestError(f"{client.name} is nowhere within {timeout:g} s")

    async def frame(self, since: int, problem: str, predicate: Callable[[frames.Frame], bool],
                    timeout: float = 30.0) -> frames.Frame:
        """The first frame from place `since` on that is wanted; GuestError when none comes."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            for frame in (await self.air.frames())[since:]:
                if predicate(frame):
                    return frame
            await asyncio.sleep(LOOK_PAUSE)
        raise GuestError(f"{problem} within {timeout:g} s\n{await self.first.last_words()}")

    @staticmethod
    def is_on(kernel: dict[str, dict], channels: dict[int, tuple[int, int]]) -> bool:
        """Whether each radio is where (channel, MHz) says."""
        return all((kernel[f"wlan{radio}-va0"]["frequency"], kernel[f"wlan{radio}-va0"]["width"])
                   == (frequency(channel), width) for radio, (channel, width) in channels.items())

    @staticmethod
    def _radio(message, number):
        return next(radio for radio in message["radios"] if radio["id"] == number)

    def _reported(self, message, number):
        radio = self._radio(message, number)
        return f"channel {radio['channel']}, {radio['bandwidth']} MHz, {radio['power']} dBm"

    # Who keeps a connection

    def watch(self, clients) -> Watch:
        """From now on."""
        return Watch(tuple(clients), len(self.air.machine.events), time.monotonic())

    async def lost(self, watch: Watch) -> list[str]:
        """The names of those that had no connection for a moment: they say so, or the kernel of
        their access point has known them for less than they were watched."""
        names = {client.name for client in watch.clients}
        lost = {event["name"] for event in self.air.machine.events[watch.events:]
                if event.get("name") in names and DISCONNECTED in event.get("text", "")}
        for client in watch.clients:
            point, radio = await self.whereabouts((await client.wait())["bssid"])
            known = (await point.stations(radio)).get(client.address, {"connected": 0})
            if known["connected"] + 1 < int(time.monotonic() - watch.started):
                lost.add(client.name)
        return sorted(lost)
