"""A client: wpa_supplicant with a radio of its own."""
import asyncio
import time

from .machine import GuestError, Machine

CONTROL = "/run/wpa_supplicant/wlan0"
CHANNELS = {2: (1, 6, 11), 5: (36, 40, 44, 48)}  # where it looks: each costs time
LOOK_PAUSE = 0.1  # seconds


def frequency(channel: int) -> int:
    """MHz of a channel at 2.4 or 5 GHz."""
    return 2407 + 5 * channel if channel < 14 else 5000 + 5 * channel


class Station:
    """`name`: of its place; `radio`: which of the machine's; `band`: 2 or 5."""

    def __init__(self, machine: Machine, name: str, radio: int, band: int, ssid: str,
                 passphrase: str, key_management: str):
        self.machine, self.name, self.radio, self.band = machine, name, radio, band
        self._network = {"ssid": f'"{ssid}"', "psk": f'"{passphrase}"', "key_mgmt": key_management,
                         "scan_freq": " ".join(str(frequency(channel))
                                               for channel in CHANNELS[band])}
        self.address = f"02:00:00:00:{radio:02x}:00"
        self.pid = None

    async def start(self) -> None:
        """Its place and wpa_supplicant, which begins to look for the network."""
        pid = await self.machine.call("place", name=self.name)
        await self.machine.run("", "iw", "phy", f"phy{self.radio}", "set", "netns", pid)
        await self.machine.run(self.name, "ip", "link", "set", f"wlan{self.radio}", "name", "wlan0")
        network = "".join(f"    {name}={value}\n" for name, value in self._network.items())
        await self.machine.call("write", place=self.name, path="/run/wpa.conf",
                                text="ctrl_interface=/run/wpa_supplicant\n"
                                     f"network={{\n{network}}}\n")
        self.pid = await self.machine.call(
            "start", place=self.name, log=f"/tmp/{self.name}.log",
            command=["wpa_supplicant", "-D", "nl80211", "-i", "wlan0", "-c", "/run/wpa.conf", "-t"])

    async def ask(self, command: str) -> str:
        """wpa_supplicant's answer on its control socket."""
        return await self.machine.call("control", place=self.name, path=CONTROL, command=command)

    async def join(self, ssid: str) -> None:
        """Leaves the network that it is in for another one with the same passphrase."""
        for command in ("DISCONNECT", f'SET_NETWORK 0 ssid "{ssid}"', "RECONNECT"):
            await self.ask(command)

    async def look(self, mhz: int) -> None:
        """Listens there for a beacon interval, if it does not just listen elsewhere, and then takes
        what is best."""
        await self.ask(f"SCAN freq={mhz} passive=1")

    async def status(self) -> dict[str, str]:
        """wpa_supplicant's STATUS: wpa_state, bssid, freq, key_mgmt and more."""
        lines = (await self.ask("STATUS")).splitlines()
        return dict(line.split("=", 1) for line in lines if "=" in line)

    async def listen(self) -> None:
        """wpa_supplicant's events become the machine's, with the client's name."""
        await self.machine.call("attach", place=self.name, path=CONTROL, name=self.name)

    async def wait(self, timeout: float = 60.0, **wanted: str) -> dict[str, str]:
        """Its status once it is associated and what is named is so; GuestError tells what was."""
        wanted = {"wpa_state": "COMPLETED", **wanted}
        deadline, status = time.monotonic() + timeout, {}
        while time.monotonic() < deadline:
            try:
                status = await self.status()
            except GuestError:
                pass  # it is just starting
            if all(status.get(name) == value for name, value in wanted.items()):
                return status
            await asyncio.sleep(LOOK_PAUSE)
        raise GuestError(f"{self.name} is not {wanted} within {timeout:g} s but {status}")
