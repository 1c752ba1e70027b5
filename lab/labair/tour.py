"""A day on air in some minutes: what the service asks, what the kernel and the clients then show.

Each step of a `Tour` carries something out, waits until the kernel, hostapd or a client says that
it is so, and returns what was seen; what lumd tells the service is waited for besides. A step that
does not get there raises LabError. The steps stand in the order of `Tour.STEPS`; each needs those
before it.
"""
import asyncio
import dataclasses
import signal
import time

from labshow.process import LabError

from . import frames
from .accesspoint import DAEMONS, LUMD_LOG
from .air import FAR, NEAR
from .machine import GuestError
from .radiosteps import RadioSteps
from .securitysteps import SecuritySteps
from .station import frequency
from .steps import (APART, BAND_5, BAND_24, DISCONNECTED, LOOKS_AWAY, MOVE_WAIT, TIMES_ASKED,
                    TOGETHER, channel_of)

CHANNELS = {BAND_24: (11, 20), BAND_5: (44, 80)}  # to which the service moves the first one
POWERS = {BAND_24: 9, BAND_5: 12}  # dBm
SURVEYED = "1 6 36 44"
SURVEY_WAIT = 90.0
LIST_FIELD = "nr="
GRACE = 60.0  # seconds that lumd waits for hostapd to come back
LOST = 95     # dB on the way from the client that is to move


@dataclasses.dataclass(frozen=True)
class Moved:
    """A client's way from one access point to another: the frames, and who told the service."""

    request: frames.Frame
    response: frames.Frame
    transition: list[frames.Frame]
    status: dict[str, str]
    left: dict
    arrived: dict


class Tour(RadioSteps, SecuritySteps):
    """`run()` is all of it. The radar check of the second access point takes the minute that lumd of
    the first one waits for hostapd."""

    async def run(self) -> None:
        """All steps."""
        for name in self.STEPS:
            step = getattr(self, name)
            self._begin(" ".join(step.__doc__.partition(". By radio")[0].split()))
            await step()

    # The steps

    async def boot(self) -> None:
        """The machine boots; each access point has two radios in a place of its own."""
        started = time.monotonic()
        await self.air.start()
        self.seconds["boot"] = time.monotonic() - started

    async def subscription(self) -> list[dict]:
        """msgbusd, hostapd, apd and lumd start; lumd subscribes with what its radios really do."""
        started = time.monotonic()
        await self.air.start_daemons()
        told = []
        for point in self.air.points:
            event = await point.heard("subscribe-request", timeout=120)
            kernel = await point.kernel()
            told.append(event["data"])
            for radio in (BAND_24, BAND_5):
                here = kernel[f"wlan{radio}-va0"]
                self._row(f"{point.name} wlan{radio} as stored",
                          f"channel {channel_of(here['frequency'])}, {here['width']} MHz, "
                          f"{here['power']} dBm", self._reported(event["data"], radio))
        self.seconds["start"] = time.monotonic() - started
        return told

    async def association(self) -> dict[str, dict]:
        """Clients of both bands join the access point that they hear; lumd reports them."""
        for radio in self.second.radios:
            await self.air.set_group(radio, APART)
        await self.air.start_clients()
        states = {}
        for client in self.air.clients:
            status = await client.wait()
            await client.listen()
            states[client.name] = status
            point, radio = await self.whereabouts(status["bssid"])
            await point.heard("rrm-client-assoc", data={"sta-mac": client.address})
            self._row(f"{client.name} joins", f"{status['key_mgmt']} at {point.name} wlan{radio}, "
                      f"{status['freq']} MHz", "rrm-client-assoc")
        for radio in self.second.radios:
            await self.air.set_group(radio, TOGETHER)
        return states

    async def survey(self) -> dict:
        """A survey finds the other access point, while clients stay."""
        started = time.monotonic()
        since = await self.first.send({"cmd": "rrm-update", "rrm-scan-delay": 0,
                                       "vexor-rrm-scanning": 0, "rrm-scan-channels": SURVEYED})
        event = await self.first.heard("rrm-response", since, SURVEY_WAIT)
        self.seconds["survey"] = time.monotonic() - started
        found = {entry["bssid"]: entry for entry in self.first.known.neighbours()}
        for radio in (BAND_24, BAND_5):
            bssid = await self.second.bssid(radio)
            if bssid not in found:
                raise LabError(f"the survey found {sorted(found)} and not {bssid}")
            entry, here = found[bssid], (await self.second.kernel())[f"wlan{radio}-va0"]
            self._row(f"survey of {SURVEYED}", f"{bssid} sends on channel "
                      f"{channel_of(here['frequency'])} with {here['power']} dBm, {FAR} dB away",
                      f"channel {entry['channel']} at {entry['rssi']} dBm", self.seconds["survey"])
        return event["data"]

    async def channels(self) -> dict[int, tuple[dict, list[dict]]]:
        """Channels of both bands change by announcement; the clients follow. By radio: its access
        point as the kernel has it, and the clients' events that tell of a lost connection."""
        seen = {}
        for radio, (channel, width) in CHANNELS.items():
            seen[radio] = await self._change_channel(radio, channel, width)
        return seen

    async def _change_channel(self, radio, channel, width):
        started, events = time.monotonic(), len(self.air.machine.events)
        await self.configure(self.first, radios=[
            {"id": radio, "channel": channel, "bandwidth": width}])
        here = await self.first.until(
            f"no channel {channel}, {width} MHz", self.first.kernel,
            lambda all_: (all_[f"wlan{radio}-va0"]["frequency"],
                          all_[f"wlan{radio}-va0"]["width"]) == (frequency(channel), width))
        seconds = time.monotonic() - started
        self.seconds.setdefault("channel", seconds)
        for client in self.clients_of(radio):
            await client.wait(freq=str(frequency(channel)))
        event = await self.reported(self.first)
        self._row(f"{self.first.name} wlan{radio} to channel {channel}, {width} MHz",
                  f"{here[f'wlan{radio}-va0']['frequency']} MHz, with its clients",
                  self._reported(event, radio), seconds)
        lost = [event for event in self.air.machine.events[events:]
                if DISCONNECTED in event.get("text", "")]
        return here[f"wlan{radio}-va0"], lost

    async def power(self) -> dict[int, int]:
        """The transmit power of both radios changes."""
        seen = {}
        for radio, dbm in POWERS.items():
            started = time.monotonic()
            await self.configure(self.first, radios=[{"id": radio, "power": dbm}])
            here = await self.first.until(
                f"not {dbm} dBm", self.first.kernel,
                lambda all_, name=f"wlan{radio}-va0", dbm=dbm: all_[name]["power"] == dbm)
            seconds = time.monotonic() - started
            self.seconds.setdefault("power", seconds)
            event = await self.reported(self.first)
            seen[radio] = here[f"wlan{radio}-va0"]["power"]
            self._row(f"{self.first.name} wlan{radio} to {dbm} dBm", f"{seen[radio]} dBm",
                      self._reported(event, radio), seconds)
        return seen

    async def neighbours(self) -> dict[int, tuple[str, tuple[frames.Neighbor, ...]]]:
        """The 802.11k list reaches hostapd; a client that asks is told it. By radio: the list of
        hostapd, and the elements of the frame."""
        self.listed, seen = await self.neighbour_list(), {}
        started = time.monotonic()
        await self.configure(self.first)
        for radio in (BAND_24, BAND_5):
            bssid = await self.second.bssid(radio)
            text = await self.first.until(
                f"{bssid} is not in hostapd's list",
                lambda radio=radio: self.first.hostapd(radio, "SHOW_NEIGHBOR"),
                lambda text, bssid=bssid: bssid in text)
            self.seconds.setdefault("neighbours", time.monotonic() - started)
            client = self.clients_of(radio)[0]
            since = len(await self.air.frames())
            await client.ask("NEIGHBOR_REP_REQUEST")
            response = await self.frame(since, "no neighbor report response", lambda frame:
                                        frame.receiver == client.address and frame.is_action(
                                            frames.RADIO_MEASUREMENT,
                                            frames.NEIGHBOR_REPORT_RESPONSE))
            seen[radio] = text, frames.neighbor_response(response)[1]
            told = " ".join(f"{entry.bssid} (class {entry.operating_class}, channel "
                            f"{entry.channel})" for entry in seen[radio][1])
            self._row(f"802.11k list for {self.first.name} wlan{radio}",
                      f"{client.name} is told {told}", "-", self.seconds["neighbours"])
        return seen

    async def steering(self) -> Moved:
        """The service sends a client elsewhere: 802.11v asks it, 802.11r takes it there."""
        client = self.clients_of(BAND_24)[0]
        target = await self.second.bssid(BAND_24)
        for radio in self.first.radios:
            await self.air.set_loss(radio, FAR)
        for radio in self.second.radios:
            await self.air.set_loss(radio, NEAR)
        moved = await self._steer(client, target)
        self._row(f"{client.name} to leave {self.first.name} wlan0",
                  f"request, response {frames.transition_response(moved.response).status}, fast "
                  f"transition to {target}",
                  f"{self.first.name}: rrm-sta-roam, {self.second.name}: rrm-client-assoc",
                  self.seconds["transition request"])
        return moved

    async def _steer(self, client, target):
        """Asked until it goes. One that comes back (its fast transition met an access point that
        was too slow for its patience, and began anew) looks away from the target for a while."""
        for _ in range(TIMES_ASKED - 1):
            try:
                return await self._ask_to_leave(client, target)
            except GuestError as error:
                self._tell(str(error).partition("\n")[0] + "; it is asked again")
            await asyncio.sleep(LOOKS_AWAY)
            await self.seated(client)
        return await self._ask_to_leave(client, target)

    async def _ask_to_leave(self, client, target):
        await self._weaken(client)
        since, arrivals = len(await self.air.frames()), len(self.second.journal.events)
        started = time.time() + await self.air.machine.clock_ahead()
        departures = await self.first.send({
            "cmd": "rrm-sta-overload", "ap-mac": self.first.known.mac,
            "802dot11k": await self.neighbour_list(),
            "radios": [{"id": BAND_24, "roam-count": 1}]})
        request = await self.frame(since, "no BSS transition request", lambda frame:
                                   frame.is_action(frames.WNM, frames.BSS_TRANSITION_REQUEST))
        self.seconds["transition request"] = request.time - started
        response = await self.frame(since, "no BSS transition response", lambda frame:
                                    frame.is_action(frames.WNM, frames.BSS_TRANSITION_RESPONSE))
        status = await client.wait(MOVE_WAIT, bssid=target)
        left = await self.first.heard("rrm-sta-roam", departures, data={"sta-mac": client.address})
        arrived = await self.second.heard("rrm-client-assoc", arrivals,
                                          data={"sta-mac": client.address})
        await self.frame(since, "no reassociation", lambda frame: frame.receiver == target and
                         frame.subtype == frames.REASSOCIATION_REQUEST)
        taken = [frame for frame in (await self.air.frames())[since:]
                 if client.address in (frame.receiver, frame.transmitter)
                 and target in (frame.receiver, frame.transmitter)]
        return Moved(request, response, taken, status, left["data"], arrived["data"])

    async def _weaken(self, client):
        """The client is heard as the weakest of its radio."""
        await self.air.set_loss(client.radio, LOST)
        for other in self.clients_of(BAND_24):
            if other is not client:
                await self.air.set_loss(other.radio, NEAR)
        await client.ask("NEIGHBOR_REP_REQUEST")  # a frame, by which it is heard
        await self.first.until(
            f"{client.name} is not the weakest", lambda: self.first.stations(BAND_24),
            lambda stations: client.address == min(
                stations, key=lambda address: stations[address]["signal"]))

    async def hostapd_restart(self) -> dict[str, dict]:
        """hostapd dies and comes back: the settings of the service are in force, clients return."""
        since = len(self.first.journal.events)
        await self.first.kill("hostapd", signal.SIGKILL)
        await self.first.heard("rrm-disassoc-all-clients", since)
        started = time.monotonic()
        await self.first.start_daemon("hostapd")
        await self.first.heard("rrm-config-changed", since)
        kernel = await self.first.until("not on its channels", self.first.kernel,
                                        lambda all_: self.is_on(all_, CHANNELS))
        seconds = time.monotonic() - started
        for client in self.air.clients:
            await self.seated(client)
        self._row("hostapd killed and started", "channels as commanded, clients are back",
                  "rrm-disassoc-all-clients, rrm-config-changed", seconds)
        return kernel

    async def reset(self) -> dict[str, dict]:
        """hostapd stays away: lumd takes back what the service has set; the stored holds."""
        since = len(self.first.journal.events)
        await self.first.kill("hostapd")
        await self.first.heard("rrm-disassoc-all-clients", since)
        await asyncio.sleep(GRACE)
        await self.first.until("lumd has not reset", lambda: self.first.read(LUMD_LOG),
                               lambda text: "Disconnected from hostapd" in text)
        await self.first.start_daemon("hostapd")
        stored = {radio: (channel.number, channel.bandwidth)
                  for radio, channel in enumerate(self.first.channels)}
        powers = {radio: channel.power for radio, channel in enumerate(self.first.channels)}
        kernel = await self.first.until(
            "not as stored", self.first.kernel, lambda all_: self.is_on(all_, stored) and powers ==
            {radio: all_[f"wlan{radio}-va0"]["power"] for radio in stored})
        await self.first.heard("rrm-config-changed", since)
        told = await self.reported(self.first)
        for radio in stored:
            here = kernel[f"wlan{radio}-va0"]
            self._row(f"{self.first.name} wlan{radio} as stored again",
                      f"channel {channel_of(here['frequency'])}, {here['width']} MHz",
                      self._reported(told, radio))
        return kernel

    async def memory(self) -> dict[tuple[str, str], dict | None]:
        """What the daemons have taken; by access point and name."""
        seen = {}
        for point in self.air.points:
            for name in DAEMONS:
                facts = seen[point.name, name] = await point.facts(name)
                if facts is not None:
                    self._row(f"{point.name} {name}", f"{facts['private']} KiB of its own, "
                              f"{facts['threads']} threads, {facts['descriptors']} descriptors", "-")
        return seen

    STEPS = ("boot", "subscription", "association", "guests", "survey", "channels", "power",
             "neighbours", "coexistence", "black_list", "key_holders", "steering", "hostapd_restart",
             "radar_check", "reset", "radar", "memory")
