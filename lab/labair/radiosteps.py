"""Steps about radios: a second network beside the first, overlapping access points, radar."""
import dataclasses

from . import frames
from .accesspoint import HOSTAPD
from .machine import GuestError
from .station import frequency
from .steps import BAND_5, BAND_24, Steps, channel_of

GUESTS, VISITORS = "guests", "visitors"  # SSIDs of the second network, one after the other
GUEST_DOMAIN = 0xC3D4
RADAR_CHANNEL = 52
CHECK_WAIT = 180.0  # seconds; a check takes 60
SETTLES = 10.0      # seconds from the last change of a channel to lumd's report of it
WIDE = 40           # MHz
# Beside channel 6 a 40 MHz channel reaches from 2402 to 2452 MHz, or to 2472 MHz with the other
# access point on channel 11 in it: IEEE 802.11-2020, 11.15.3.2.
SIDES = ("upper", "lower")


@dataclasses.dataclass(frozen=True)
class SecondNetwork:
    """`put_off`: per change the frame that ended the guest's connection; `back`: its status after;
    `told`: the VAPs that lumd tells of; `lost`: who else lost a connection."""

    address: str
    put_off: dict[str, frames.Frame]
    back: dict[str, dict[str, str]]
    told: dict[str, list[dict]]
    lost: list[str]


@dataclasses.dataclass(frozen=True)
class Width:
    """What the kernel has of 40 MHz that were commanded, the service is told of, and hostapd was
    asked for."""

    kernel: dict
    told: dict
    asked: str


@dataclasses.dataclass(frozen=True)
class Radar:
    """The kernel and the service's knowledge after the check and after the radar; `report`: the one
    that the kernel's change of channel leads to. `events`: hostapd's."""

    checked: dict
    told_checked: dict
    left: dict
    told_left: dict
    report: dict
    events: list[str]


class RadioSteps(Steps):
    """Steps of a `Tour`."""

    async def guests(self) -> SecondNetwork:
        """A second network comes and changes beside the first one: its client is back, no other
        notices."""
        point, guest = self.first, self.clients_of(BAND_5)[-1]
        watch = self.watch(client for client in self.air.clients if client is not guest)
        since = len(point.journal.events)
        await point.commit("wlan1-va1", {
            "common/enabled": "true", "common/bridge": "br0", "vap/ssid": GUESTS,
            "vap/ap-security/mode": "WPA2_PSK",
            "vap/ap-security/passphrase": self.air.plan.network.passphrase})
        address = await self._network(GUESTS)
        told = {GUESTS: await self._told_networks(since, GUESTS)}
        await guest.join(GUESTS)
        back = {GUESTS: await guest.wait(bssid=address)}
        put_off, since = {}, len(point.journal.events)
        for name, change in ((VISITORS, self._rename_guests), ("802.11r", self._guests_transit)):
            frames_before = len(await self.air.frames())
            await change(guest, address)
            put_off[name] = await self._put_off(guest, address, frames_before)
            back[name] = await guest.wait(
                bssid=address, ssid=VISITORS,
                key_mgmt="FT-PSK" if name == "802.11r" else "WPA2-PSK")
        told[VISITORS] = await self._told_networks(since, VISITORS)
        await self._no_guests(guest)
        lost = await self.lost(watch)
        self._row(f"{point.name} wlan1-va1: new, another SSID, 802.11r",
                  f"{guest.name} is put off and back, others lost: {', '.join(lost) or 'nobody'}",
                  " ".join(vap["ssid"] for vap in told[VISITORS]))
        return SecondNetwork(address, put_off, back, told, lost)

    async def _network(self, ssid):
        """The address of the second network once the kernel sends for it."""
        kernel = await self.first.until(
            f"no network {ssid}", self.first.kernel,
            lambda all_: (all_["wlan1-va1"]["ssid"], bool(all_["wlan1-va1"]["frequency"])) ==
            (ssid, True))
        return kernel["wlan1-va1"]["address"]

    async def _told_networks(self, since, ssid):
        """The VAPs of the radio as lumd tells of them once the network is one."""
        def networks(event):
            return self._radio(event["data"], BAND_5).get("vaps", [])
        event = await self.first.heard("rrm-config-changed", since, predicate=lambda event: ssid in
                                       [vap["ssid"] for vap in networks(event)])
        return networks(event)

    async def _rename_guests(self, guest, _):
        await self.first.commit("wlan1-va1", {"vap/ssid": VISITORS})
        await self._network(VISITORS)
        await guest.join(VISITORS)

    async def _guests_transit(self, _, address):
        """The service turns fast transition on, for that network alone."""
        await self.configure(self.first, **{"use-80211r": 1})
        await self.first.send({
            "cmd": "fbt-info", "fbt-reassoc-deadline": 1000, "fbt-over-ds": 0,
            "vaps": [{"vap_id": 1, "radio_id": BAND_5, "mobility-domain": GUEST_DOMAIN,
                      "r0-key-holder-id": GUESTS, "r1-key-holder-id": address, "remotes": []}]})

    async def _put_off(self, client, address, since):
        """The frame by which an access point does it, for one or for all."""
        return await self.frame(
            since, f"{client.name} is not put off", lambda frame:
            frame.subtype == frames.DEAUTHENTICATION and frame.transmitter == address and
            frame.receiver in (client.address, frames.BROADCAST))

    async def _no_guests(self, guest):
        await self.first.commit("wlan1-va1", {"common/enabled": "false"})
        await self.first.until("the second network goes on", self.first.kernel,
                               lambda all_: "wlan1-va1" not in all_)
        await self.withdraw_holders(self.first)
        await guest.join(self.air.plan.network.ssid)
        await self.seated(guest)

    async def coexistence(self) -> dict[str, Width]:
        """40 MHz at 2.4 GHz: hostapd takes them where nobody is, and stays at 20 MHz where it hears
        the other access point. By side of the primary channel."""
        point, channel = self.second, self.second.channels[BAND_24].number
        seen = {}
        for side, width in zip(SIDES, (WIDE, WIDE // 2)):
            since = await self.insist(
                point, f"not {width} MHz of {side} 40", point.kernel, lambda all_, width=width: (
                    all_["wlan0-va0"]["width"], bool(all_["wlan0-va0"]["ssid"])) == (width, True),
                **{"id": BAND_24, "channel": channel, "bandwidth": WIDE, "primary-channel": side})
            kernel = await point.kernel()
            event = await point.heard(
                "rrm-config-changed", since, predicate=lambda event, width=width:
                self._radio(event["data"], BAND_24)["bandwidth"] == width)
            seen[side] = Width(kernel["wlan0-va0"], self._radio(event["data"], BAND_24),
                               await point.read("/run/apd/wlan0-va0.conf"))
            self._row(f"{point.name} wlan0 to channel {channel}, 40 MHz, {side}",
                      f"{width} MHz", self._reported(event["data"], BAND_24))
        return seen

    async def radar_check(self) -> str:
        """The service moves the second access point to a radar channel: hostapd listens first."""
        point = self.second
        def status():
            return point.hostapd(BAND_5, "STATUS")
        self._check_sent = await self.insist(
            point, "no radar check", status, lambda text: "state=DFS" in text,
            **{"id": BAND_5, "channel": RADAR_CHANNEL, "bandwidth": 20})
        told = await status()
        self._radar_events = len(self.air.machine.events)
        await self.air.machine.call("attach", place=point.name, path=f"{HOSTAPD}/wlan1-va0",
                                    name=point.name)
        self._row(f"{point.name} wlan1 to channel {RADAR_CHANNEL}", "hostapd listens for radar", "-")
        return told

    async def radar(self) -> Radar:
        """The check is over and the radio sends; then comes a radar, and hostapd leaves."""
        point = self.second
        ended = await self._hostapd_event("DFS-CAC-COMPLETED success=1")
        checked = await self._where(lambda mhz: mhz == frequency(RADAR_CHANNEL))
        told_checked = await self._told_after(ended, RADAR_CHANNEL)
        since = len(self.air.machine.events)
        await self.air.radar(point.radios[BAND_5])
        moved = await self._hostapd_event("AP-CSA-FINISHED", since)
        left = await self._where(lambda mhz: mhz != frequency(RADAR_CHANNEL))
        channel = channel_of(left["frequency"])
        told_left = await self._told_after(moved, channel)
        # lumd tells of what the kernel says itself this much later, and of nothing else then.
        report = await self._told_after(moved + SETTLES - 1, channel)
        events = [event["text"] for event in self.air.machine.events[self._radar_events:]
                  if event.get("name") == point.name]
        self._row(f"{point.name} wlan1 on channel {RADAR_CHANNEL}", f"{checked['frequency']} MHz",
                  f"channel {told_checked['channel']}")
        self._row("a radar", f"{left['frequency']} MHz", f"channel {report['channel']}")
        return Radar(checked, told_checked, left, told_left, report, events)

    async def _hostapd_event(self, text, since=None):
        """When the second access point's hostapd said so, by this machine's clock."""
        event = await self.air.machine.wait_event(
            self._radar_events if since is None else since, lambda event:
            event.get("name") == self.second.name and text in event.get("text", ""), CHECK_WAIT)
        if event is None:
            raise GuestError(f"{self.second.name}: no {text} within {CHECK_WAIT:g} s\n"
                             f"{await self.second.last_words()}")
        return event["t"] - await self.air.machine.clock_ahead()

    async def _where(self, is_right):
        """The access point once it sends on a right frequency."""
        kernel = await self.second.until(
            "not on the right channel", self.second.kernel, lambda all_: bool(
                all_["wlan1-va0"]["ssid"] and all_["wlan1-va0"]["frequency"] and
                is_right(all_["wlan1-va0"]["frequency"])))
        return kernel["wlan1-va0"]

    async def _told_after(self, moment, channel):
        """The radio of the first report after a moment that has the channel."""
        event = await self.second.heard(
            "rrm-config-changed", self._check_sent, predicate=lambda event: event["t"] > moment and
            self._radio(event["data"], BAND_5)["channel"] == channel)
        return self._radio(event["data"], BAND_5)
