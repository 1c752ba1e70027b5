"""The access point of docs/linux-access-point.md, by the page's own lines, and a client of it.

The radios are the kernel's simulated ones: the first is the access point's, the second the client's.
"""
import asyncio
import contextlib
import fcntl
import pathlib
import re
import socket
import struct
import subprocess

from checking import TREE, demand, run
from confined import IFF_UP, interface_flags
from installed_lab import PORT, WAIT
from labair.nl80211 import Nl80211
from labair.station import frequency
from labservice.server import Service
from labtalk.contract import Checker
from labtalk.journal import Journal
from labtalk.waiting import until

PAGE = TREE / "docs/linux-access-point.md"
PACKAGES = TREE / "packages"
HOSTS = pathlib.Path("/etc/hosts")
VAP = "wlan0-va0"
SIOCSIFNAME = 0x8923
CONTROL = "/run/client"  # wpa_supplicant's


def code_of(page, heading):
    """The first block of code behind a line of the page."""
    text = page.read_text(encoding="utf-8")
    block = re.search("((?:    [^\n]*\n)+)", text[text.index(heading):])[1]
    return re.sub("^    ", "", block, flags=re.MULTILINE)


def recipe():
    return code_of(PAGE, "## From a bare Debian machine")


def word(pattern):
    """What the recipe's lines have at the only group of a pattern."""
    return re.search(pattern, recipe())[1]


def status_of_page():
    """What `apctl status` prints, with any number for hostapd's process."""
    status = re.escape(code_of(PAGE, "`apctl status`"))
    return re.sub(r"(?<=hostapd:\\ )\d+", "[0-9]+", status)


def rename(interface, name):
    """An interface that is down (netdevice(7))."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        fcntl.ioctl(control, SIOCSIFNAME, struct.pack("16s16s8x", interface.encode(), name.encode()))


class Client:
    """wpa_supplicant with the second radio."""

    name = "client0"

    def __init__(self):
        self._process = None
        self.address = None

    async def start(self):
        rename("wlan1", self.name)
        self.address = kernel()[self.name]["address"]
        ssid, passphrase = word(r"/vap/ssid (\S+)"), word("passphrase '([^']+)'")
        channel = int(word(r"/channel (\d+)"))
        configuration = pathlib.Path("/run/client.conf")
        configuration.write_text(
            f'ctrl_interface={CONTROL}\nnetwork={{\n    ssid="{ssid}"\n    psk="{passphrase}"\n'
            f"    key_mgmt=WPA-PSK FT-PSK\n    scan_freq={frequency(channel)}\n}}\n",
            encoding="utf-8")
        self._process = await asyncio.create_subprocess_exec(
            "wpa_supplicant", "-D", "nl80211", "-i", self.name, "-c", configuration,
            stdout=subprocess.DEVNULL)

    async def status(self):
        """wpa_supplicant's own: wpa_state, bssid, ssid and more."""
        child = await asyncio.create_subprocess_exec(
            "wpa_cli", "-p", CONTROL, "-i", self.name, "status", stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL)
        lines = (await child.communicate())[0].decode().splitlines()
        return dict(line.split("=", 1) for line in lines if "=" in line)

    async def joined(self):
        """As it says itself, and as the kernel says of the access point."""
        return (await self.status()).get("wpa_state") == "COMPLETED" and self.address in stations()

    async def wait_joined(self):
        demand(await until(self.joined, WAIT), f"the client has not joined: {await self.status()}")

    async def stop(self):
        if self._process is not None:
            self._process.terminate()
            await self._process.wait()


def kernel():
    """{interface: what the kernel tells}."""
    with contextlib.closing(Nl80211()) as radios:
        return radios.interfaces()


def stations():
    """{address: ...} of those that the kernel has at the access point."""
    with contextlib.closing(Nl80211()) as radios:
        return radios.stations(VAP)


class OpenAccessPoint:
    """apd's access point, its client and the service that it reports to. One asyncio loop."""

    def __init__(self):
        self.journal = Journal()
        self.service = Service(port=PORT, journal=self.journal, checker=Checker(self.journal))
        self.service.subscribe_answers = [{
            "status": "success", "code": 200,
            "config": {"use-tpc": 1, "use-dca": 1, "use-80211v": 1, "use-80211r": 0}}]
        self.client = Client()

    async def start(self):
        """The service, under the name that the page has for it."""
        host, port = re.search(r"=ws://([^:/]+):([0-9]+)/", recipe()).groups()
        demand(int(port) == PORT, f"the page's service is at port {port}")
        HOSTS.write_text(f"127.0.0.1 localhost {host}\n", encoding="utf-8")
        await self.service.start()

    async def follow_recipe(self):
        """The page's lines, by the shell of a root who answers apt with yes. The card has a name as
        udev gives it."""
        interface_flags(lambda flags: flags & ~IFF_UP)
        rename("wlan0", "wlp3s0")
        await run("bash", "-exc", f"cd {PACKAGES}\n{recipe()}")

    async def is_up(self):
        """As the kernel says."""
        return kernel().get(VAP, {}).get("ssid") == word(r"/vap/ssid (\S+)")

    async def wait_up(self):
        demand(await until(self.is_up, WAIT), f"the kernel has no access point: {kernel()}")

    async def heard(self, what, since=0, **match):
        """lumd's first message of that kind."""
        event = await self.journal.wait(since, WAIT, what=what, from_="lumd", **match)
        demand(event is not None, f"lumd does not tell {what} {match}")
        return event["data"]

    async def demand_subscribed(self):
        """lumd has subscribed with the page's radio on the page's channel."""
        radios = (await self.heard("subscribe-request"))["radios"]
        channel = int(word(r"/channel (\d+)"))
        demand(channel in [radio.get("channel") for radio in radios], f"lumd tells {radios}")


class JournalOf:
    """What a unit logs from now on."""

    def __init__(self, unit):
        self._unit = unit
        self._since = subprocess.run(
            ["journalctl", "-n", "0", "--show-cursor", "-q"], capture_output=True, text=True,
            check=True).stdout.partition("cursor: ")[2].strip()

    async def lines(self):
        output = await run("journalctl", "-q", "-u", self._unit, "-o", "cat",
                           f"--after-cursor={self._since}")
        return output.splitlines()

    async def once(self, text):
        """There is a line with that text, and no second one."""
        async def logged():
            return any(text in line for line in await self.lines())
        demand(await until(logged, WAIT), f"nothing says {text!r}: {await self.lines()}")
        demand(sum(text in line for line in await self.lines()) == 1,
               f"more than once: {await self.lines()}")
