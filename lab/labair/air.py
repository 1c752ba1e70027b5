"""The second lab: one virtual machine, access points, clients, and the air between them."""
import asyncio
import dataclasses
import os
import pathlib

from labshow.process import TREE

from .accesspoint import AirAccessPoint, Channel, Network
from .frames import Frame, KeyFrame, key_frames, management_frames
from .machine import Machine
from .station import Station

CAPTURE, WIRED_CAPTURE = "/tmp/air.pcap", "/tmp/wire.pcap"
# Beacons and probes are most of the frames, and say nothing that the kernel does not.
WANTED = "type mgt and not subtype beacon and not subtype probe-req and not subtype probe-resp"
WIRED_WANTED = "ether proto 0x88b7"
RADIOS_A_POINT = 2
DEBUG = "/sys/kernel/debug/ieee80211"
MODULUS = 1 << 64  # the kernel takes negative numbers only so
NEAR, FAR = 55, 85  # dB that are lost on the way


@dataclasses.dataclass(frozen=True)
class Plan:
    """How many of each, and where the access points begin. Clients take turns with the bands."""

    points: tuple[tuple[Channel, Channel], ...] = (
        (Channel(1), Channel(36, 80)), (Channel(6), Channel(44)))
    clients: int = 4
    network: Network = Network()


class Air:
    """All of it. `points` and `clients` by their order. Runs on one asyncio loop."""

    def __init__(self, plan: Plan = Plan(), programs: os.PathLike | None = None):
        self.plan = plan
        programs = programs or os.environ.get("LUMD_BIN_DIR", TREE / "build/release/bin")
        radios = RADIOS_A_POINT * len(plan.points) + plan.clients
        self.machine = Machine(radios, pathlib.Path(programs))
        self.points = [
            AirAccessPoint(self.machine, number + 1,
                           (RADIOS_A_POINT * number, RADIOS_A_POINT * number + 1), channels,
                           plan.network)
            for number, channels in enumerate(plan.points)]
        first = RADIOS_A_POINT * len(plan.points)
        self.clients = [
            Station(self.machine, f"c{number + 1}", first + number,
                    (2, 5)[number * 2 // plan.clients],
                    plan.network.ssid, plan.network.passphrase, "FT-PSK WPA-PSK")
            for number in range(plan.clients)]
        self._capture, self._reading = b"", asyncio.Lock()

    async def start(self) -> None:
        """The machine and the places in it; neither daemons nor clients run yet."""
        await self.machine.start()
        await self.machine.run("", "iw", "reg", "set", self.plan.network.country)
        for interface, file, wanted in (("hwsim0", CAPTURE, WANTED),
                                        ("br0", WIRED_CAPTURE, WIRED_WANTED)):
            await self.machine.call("start", place="", log="/tmp/tcpdump.log", command=[
                "tcpdump", "-i", interface, "--immediate-mode", "-Z", "root", "-U", "-w", file,
                wanted])
        await asyncio.gather(*(point.start() for point in self.points))
        for number, point in enumerate(self.points):
            for radio in point.radios:
                await self.set_loss(radio, NEAR if number == 0 else FAR)

    async def start_daemons(self) -> None:
        """Those of every access point."""
        await asyncio.gather(*(point.start_daemons() for point in self.points))

    async def start_clients(self) -> None:
        """wpa_supplicant of every client, which then looks for the network."""
        await asyncio.gather(*(client.start() for client in self.clients))

    async def stop(self) -> None:
        """Everything; harmless when called again."""
        for point in self.points:
            await point.stop()
        await self.machine.stop()

    # The medium

    async def set_loss(self, radio: int, loss: int) -> None:
        """Everybody hears a radio of the machine's so many dB below the power it sends with."""
        await self.machine.call("write", place="", path=f"{DEBUG}/phy{radio}/hwsim/rx_rssi",
                                text=str(-loss % MODULUS))

    async def set_group(self, radio: int, groups: int) -> None:
        """Two radios hear each other when they have a bit of this mask in common."""
        await self.machine.call("write", place="", path=f"{DEBUG}/phy{radio}/hwsim/group",
                                text=str(groups))

    async def frames(self) -> list[Frame]:
        """All management frames until now but beacons and probes, in order."""
        async with self._reading:
            self._capture += await self.machine.read("", CAPTURE, len(self._capture)) or b""
        return list(management_frames(self._capture))

    async def key_frames(self) -> list[KeyFrame]:
        """What the access points have said to each other about keys of 802.11r, in order."""
        return list(key_frames(await self.machine.read("", WIRED_CAPTURE) or b""))

    async def radar(self, radio: int) -> None:
        """One comes up on the channel of a radio of the machine's."""
        await self.machine.call("write", place="", text="1",
                                path=f"{DEBUG}/phy{radio}/hwsim/dfs_simulate_radar")
