"""Steps about who may join, and how keys of 802.11r come to another access point."""
import asyncio
import dataclasses

from . import frames
from .accesspoint import MAC_LIST
from .machine import GuestError
from .steps import APART, BAND_5, BAND_24, LOOKS_AWAY, MOVE_WAIT, TIMES_ASKED, TOGETHER, Steps

RRM, WIDS = "orvanta_service_url", "mac-list-service-url"  # modes of lumd
# Of each access point, what the others' key holders share with it: at first, and later.
FIRST_KEYS, LATER_KEYS = ("a1" * 32, "b2" * 32), ("c3" * 32, "d4" * 32)
CONFIG_FILE = "/run/apd/wlan0-va0.conf"


@dataclasses.dataclass(frozen=True)
class Banned:
    """Frames that put a client off and that refuse it, the clients that the kernel has meanwhile,
    its status when it was taken off the list, and who else lost a connection."""

    put_off: frames.Frame
    refusal: frames.Frame
    stations: set[str]
    back: dict[str, str]
    lost: list[str]


@dataclasses.dataclass(frozen=True)
class Roamed:
    """A client's fast transition: its frames, what the access points told each other of keys, who
    lost a connection when the keys came, and the file of hostapd's at the target."""

    client: str
    transition: list[frames.Frame]
    keys: list[frames.KeyFrame]
    lost: list[str]
    hostapd: str


class SecuritySteps(Steps):
    """Steps of a `Tour`."""

    async def black_list(self) -> Banned:
        """A MAC list of the intrusion detection's service: who is on it is put off and refused,
        until it is on it no longer."""
        point, client = self.first, self.clients_of(BAND_24)[-1]
        await self._gather()
        watch = self.watch(other for other in self.air.clients if other is not client)
        await self._change_mode(WIDS, "connected", data={"subprotocol": "websock-wids"})
        since, address = len(await self.air.frames()), await point.bssid(BAND_24)
        await self._push_list([client.address])
        put_off = await self.frame(
            since, f"{client.name} is not put off", lambda frame: frame.subtype ==
            frames.DEAUTHENTICATION and (frame.receiver, frame.transmitter) ==
            (client.address, address))
        refusal = await self._refused(client, address, since)
        stations = set(await point.stations(BAND_24))
        lost = await self.lost(watch)
        await self._push_list([])
        await point.until(f"{client.name} does not join", lambda: self._look_again(client),
                          lambda status: status.get("wpa_state") == "COMPLETED")
        back = await self.seated(client)
        await self._change_mode(RRM, "subscribe-request")
        await self._hear_second(TOGETHER)
        self._row(f"{client.name} on the black list of {point.name}",
                  f"put off, refused, and back; others lost: {', '.join(lost) or 'nobody'}",
                  "mac-list-received")
        return Banned(put_off, refusal, stations, back, lost)

    async def _gather(self):
        """The clients hear the first access point alone, and are there."""
        await self._hear_second(APART)
        for client in self.air.clients:
            radio = BAND_5 if client.band == 5 else BAND_24
            await client.wait(120, bssid=await self.first.bssid(radio))
            await self.seated(client)

    async def _hear_second(self, groups):
        for radio in self.second.radios:
            await self.air.set_group(radio, groups)

    async def _change_mode(self, mode, what, **match):
        since = len(self.first.journal.events)
        await self.first.restart_lumd(mode)
        await self.first.heard(what, since, 120, **match)

    async def _push_list(self, black):
        since = await self.first.send({"Name": MAC_LIST, "black-list": black})
        await self.first.heard("mac-list-received", since, data={"Name": MAC_LIST})

    async def _refused(self, client, address, since):
        """The first refusal of a client that looks for its access point again and again."""
        async def refusals():
            await self._look_again(client)
            return [frame for frame in (await self.air.frames())[since:] if frame.refuses and
                    (frame.receiver, frame.transmitter) == (client.address, address)]
        return (await self.first.until(f"{client.name} is not refused", refusals, bool, 120))[0]

    async def _look_again(self, client):
        status = await client.status()
        if status.get("wpa_state") in ("DISCONNECTED", "INACTIVE"):
            here = await self.first.access_point(BAND_24)
            await client.look(here["frequency"])
        return status

    async def key_holders(self) -> list[Roamed]:
        """The service brings key holders of 802.11r, and then others: clients stay, and take their
        keys along to the other access point."""
        await self._hear_second(APART)
        await self._bring_holders((None, None), "ft_psk_generate_local=0")
        await self._gather()
        roamed = []
        for client, keys in zip(self.clients_of(BAND_24), (FIRST_KEYS, LATER_KEYS)):
            watch = self.watch(self.air.clients)
            await self._bring_holders(keys, *keys)
            lost = await self.lost(watch)
            await self._hear_second(TOGETHER)
            roamed.append(await self._roam(client, lost))
            self._row("other key holders of 802.11r",
                      f"lost: {', '.join(lost) or 'nobody'}; {client.name} goes to "
                      f"{self.second.name}, which asks {self.first.name} for its key", "-")
        await self._withdraw()
        return roamed

    async def _bring_holders(self, keys, *lines):
        """Until what is in the lines is in hostapd's files of both access points."""
        points = self.air.points
        addresses = [await point.bssid(BAND_24) for point in points]
        for own, other in ((0, 1), (1, 0)):
            remotes = [{"remote-r1-kh-id": addresses[other],
                        "remote-r0-kh-id": points[other].name,
                        "remote-r1-kh-key": keys[other]}] if keys[other] else []
            await self.configure(points[own], **{"use-80211r": 1})
            await points[own].send({
                "cmd": "fbt-info", "fbt-reassoc-deadline": 1000, "fbt-over-ds": 0,
                "vaps": [{"vap_id": 0, "radio_id": BAND_24,
                          "mobility-domain": self.air.plan.network.mobility_domain,
                          "r0-key-holder-id": points[own].name,
                          "r1-key-holder-id": addresses[own],
                          "fbt-rrb-key": keys[own] or "", "remotes": remotes}]})
        for point in points:
            await self._configured(point, lines)

    @staticmethod
    async def _configured(point, lines):
        return await point.until(f"hostapd was not told {lines}", lambda: point.read(CONFIG_FILE),
                                 lambda text: all(line in text for line in lines))

    async def _roam(self, client, lost):
        """A client goes where it is told to; again when it met an access point that was too slow
        for its patience."""
        target, since = await self.second.access_point(BAND_24), len(await self.air.frames())
        keys = len(await self.air.key_frames())
        for attempt in range(TIMES_ASKED):
            begin = len(self.air.machine.events)
            await client.look(target["frequency"])
            await self.air.machine.wait_event(begin, lambda event: event.get("name") == client.name
                                              and "SCAN-RESULTS" in event.get("text", ""))
            await client.ask(f"ROAM {target['address']}")
            try:
                await client.wait(MOVE_WAIT, bssid=target["address"])
                break
            except GuestError as error:
                if attempt == TIMES_ASKED - 1:
                    raise
                self._tell(str(error).partition("\n")[0] + "; it is told again")
            await asyncio.sleep(LOOKS_AWAY)
            await self.seated(client)
        await self.seated(client)
        return Roamed(
            client.address,
            [frame for frame in (await self.air.frames())[since:]
             if client.address in (frame.receiver, frame.transmitter)
             and target["address"] in (frame.receiver, frame.transmitter)],
            (await self.air.key_frames())[keys:], lost, await self.second.read(CONFIG_FILE))

    async def _withdraw(self):
        """All as stored, and the clients at the first access point."""
        await self._hear_second(APART)
        for point in self.air.points:
            await self.withdraw_holders(point)
        for point in self.air.points:
            await self._configured(point, ["ft_psk_generate_local=1"])
        await self._gather()
        await self._hear_second(TOGETHER)
