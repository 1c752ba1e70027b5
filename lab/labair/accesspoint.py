"""An access point: two radios, the message bus, hostapd, apd and lumd, in a place of its own."""
import asyncio
import dataclasses
import json
import signal
import time
from collections.abc import Callable
from typing import Any

from labservice.server import Service
from labtalk.contract import Checker
from labtalk.journal import Journal

from .machine import GuestError, Machine
from .station import LOOK_PAUSE

FOLDER = "/run/air"              # what its daemons read
HOSTAPD = "/run/hostapd"         # control sockets: one for each BSS
GLOBAL = f"{HOSTAPD}/global"
BUS = "/run/msgbus.sock"
HOST = "10.0.2.2"                # this machine, as the guest reaches it
LOG_LEVEL = 7  # all but the link's own
DAEMONS = ("msgbusd", "hostapd", "apd", "lumd")  # in the order in which they start
STOP_WAIT = 30.0
LAST_OF_LOG = 1 << 16  # bytes
LUMD_LOG = "/tmp/lumd.log"
LIBRARY_NOISE = "libwebsocket-debug"  # in each line that it has for the library
# Of process $0: proc_pid_wchan(5), proc_pid_syscall(5).
WAITS = """cd /proc/$0/task && for task in *; do
    echo "$(cat $task/comm) $(cat $task/wchan) $(cat $task/syscall)"
done
ls -la --time-style=full-iso /tmp/.orvanta* /run/*.pid"""
BANDS = ("2.4GHz", "5GHz")
# Lines of hostapd.conf(5) by band. With 802.11ax the simulated radios have no 40 MHz at 2.4 GHz.
# hostapd 2.10 goes from one radar channel to another one, where it begins to listen, if it may.
HOSTAPD_LINES = ({"ieee80211ax": "0"}, {"chanlist": "36 40 44 48 52"})
MAC_LIST = "air-list"  # the access point's name for it


@dataclasses.dataclass(frozen=True)
class Network:
    """What the access points have in common."""

    ssid: str = "office"
    passphrase: str = "correct horse"
    country: str = "DE"
    mobility_domain: int = 0xA1B2


@dataclasses.dataclass(frozen=True)
class Channel:
    """As an operator stores it; the power in dBm."""

    number: int
    bandwidth: int = 20
    power: int = 15


class AirAccessPoint:
    """`number`: from 1; `radios`: which two of the machine's, 2.4 and 5 GHz; `channels`: what is
    stored for them. `service`: the one that its lumd talks to; `journal`: their conversation."""

    def __init__(self, machine: Machine, number: int, radios: tuple[int, int],
                 channels: tuple[Channel, Channel], network: Network):
        self.machine, self.name, self.radios = machine, f"ap{number}", radios
        self.channels, self.network = channels, network
        self.mac = f"02:00:00:0a:{number:02x}:00"
        self.address = f"10.0.2.{20 + number}"
        self.journal = Journal()
        self.checker = Checker(self.journal)
        self.service = Service(journal=self.journal, checker=self.checker)
        self.pids: dict[str, int] = {}

    # Its parts

    async def start(self) -> None:
        """Its place, radios and files, and the service; no daemon yet."""
        await self.service.start()
        pid = await self.machine.call("place", name=self.name)
        uplink = f"up-{self.name}"
        await self.machine.run("", "sh", "-ec", "".join(
            f"iw phy phy{radio} set netns {pid}; " for radio in self.radios) +
            f"ip link add {uplink} type veth peer name uplink netns {pid}; "
            f"ip link set {uplink} master br0 up")
        await self.machine.run(self.name, "sh", "-ec", "".join(
            f"ip link set wlan{radio} name air{number}; ip link set air{number} name wlan{number}; "
            for number, radio in enumerate(self.radios)) +
            "ip link add br0 type bridge; ip link set uplink master br0 up; ip link set br0 up; "
            f"ip address add {self.address}/24 dev br0")
        for name, text in self.files().items():
            await self.machine.call("write", place=self.name, path=f"{FOLDER}/{name}", text=text)

    def files(self) -> dict[str, str]:
        """{name: content}: what the daemons read."""
        policy = "allow=root as any to any\n"
        radios = [{"ifname": f"wlan{number}", "driver": "nl80211", "bands": [band],
                   "antenna-gain": {"type": "none"}} for number, band in enumerate(BANDS)]
        factory = {"board": "air", "hw": "1.0", "serial": self.name, "mac": self.mac}
        return {"msgbusd.conf": policy, "lumd.conf": self.lumd_settings("orvanta_service_url"),
                "radios.json": json.dumps({"radios": radios}),
                "factory.json": json.dumps(factory), "apd.json": json.dumps(self.settings())}

    def lumd_settings(self, mode: str) -> str:
        """lumd.conf of a mode, which its service's key makes."""
        return "\n".join((
            f"{mode}=ws://{HOST}:{self.service.port}{self.service.path}",
            "initial_connection_delay=1", "max_connection_delay=4", "ap_location=air",
            f"mac-list-id={MAC_LIST}", f"log_level={LOG_LEVEL}", f"log_file={LUMD_LOG}")) + "\n"

    def settings(self) -> dict:
        """What is stored in apd.json."""
        tree: dict[str, Any] = {}
        for number, (channel, band) in enumerate(zip(self.channels, BANDS)):
            tree[f"wlan{number}"] = {"wlan": {"radio": {
                "band": band, "country": self.network.country, "channel": channel.number,
                "bandwidth": channel.bandwidth, "tx-power": channel.power, "tx-power-min": 1,
                "tx-power-max": 20, "eirp-min": 1, "eirp-max": 30,
                "hostapd": HOSTAPD_LINES[number]}}}
            tree[f"wlan{number}-va0"] = {
                "common": {"enabled": True, "bridge": "br0"},
                "vap": {"ssid": self.network.ssid,
                        "ap-security": {"mode": "WPA2_PSK",
                                        "passphrase": self.network.passphrase},
                        "w80211kv-config": {"enabled": True},
                        "ft-config": self.fast_transition()}}
        return {"interface": tree,
                "orvanta": {"dca": True, "tpc": True, "load-balance-80211v": True}}

    def fast_transition(self) -> dict:
        """Keys are made from the passphrase until the service brings key holders."""
        return {"enabled": True, "ft-over-ds": False, "ft-psk-generate-local": True,
                "mobility-domain": self.network.mobility_domain}

    def command(self, daemon: str) -> list[str]:
        """With which a daemon is started."""
        return {"msgbusd": ["/srv/msgbusd", "-c", f"{FOLDER}/msgbusd.conf"],
                "hostapd": ["hostapd", "-g", GLOBAL],
                "apd": ["/srv/apd", "-c", f"{FOLDER}/apd.json", "-s", f"{FOLDER}/state",
                        "-l", "/tmp/apd.log"],
                "lumd": ["/srv/lumd", "-f", f"{FOLDER}/lumd.conf"]}[daemon]

    # Its daemons

    async def start_daemon(self, name: str) -> None:
        """The process, and nothing of what it then does."""
        self.pids[name] = await self.machine.call(
            "start", place=self.name, command=self.command(name), log=self.log_of(name),
            environment={"MSGBUS_SOCKET": BUS, "LUMD_PLATFORM_DIR": FOLDER})

    def log_of(self, name: str) -> str:
        """A file of the machine's with what a daemon printed."""
        return f"/tmp/{self.name}-{name}.log"

    async def start_daemons(self) -> None:
        for name in DAEMONS:
            await self.start_daemon(name)
            if name == "msgbusd":
                await self.wait_path(BUS)

    async def kill(self, name: str, number: int = signal.SIGTERM) -> int:
        """Ends a daemon; its status. GuestError when it does not end."""
        pid, since = self.pids.pop(name), len(self.machine.events)
        await self.machine.call("signal", pid=pid, number=int(number))
        event = await self.machine.wait_event(
            since, lambda event: event["event"] == "end" and event["pid"] == pid, STOP_WAIT)
        if event is None:
            raise GuestError(f"{self.name}: {name} does not end")
        return event["status"]

    async def facts(self, name: str) -> dict | None:
        """Memory, threads and descriptors of a daemon; None when it does not run."""
        pid = self.pids.get(name)
        return None if pid is None else await self.machine.call("facts", pid=pid)

    async def wait_path(self, path: str, timeout: float = 30.0) -> None:
        """Until there is such a file in its place."""
        await self.until(f"no {path}", lambda: self.has(path), bool, timeout)

    async def has(self, path: str) -> bool:
        """Whether there is such a file in its place."""
        output = await self.machine.run(self.name, "ls", "-d", path, status=None)
        return output.strip() == path

    async def restart_lumd(self, mode: str) -> None:
        """In another mode, as its unit does it."""
        await self.kill("lumd")
        await self.machine.call("write", place=self.name, path=f"{FOLDER}/lumd.conf",
                                text=self.lumd_settings(mode))
        await self.machine.run(self.name, "/mnt/packaging/hooks/hostapd-notify")
        await self.start_daemon("lumd")

    async def commit(self, interface: str, settings: dict[str, str]) -> None:
        """An operator changes settings of an interface, by their paths there."""
        words = [word for path, value in settings.items()
                 for word in (f"/interface/{interface}/{path}", value)]
        for command in (("set", *words), ("commit",)):
            await self.machine.run(self.name, "env", f"MSGBUS_SOCKET={BUS}", "/srv/apctl", *command)

    # What is seen

    async def kernel(self) -> dict[str, dict]:
        """{interface: what the kernel tells}."""
        return await self.machine.call("interfaces", place=self.name)

    async def stations(self, radio: int) -> dict[str, dict]:
        """Who the kernel has at the access point of a radio."""
        return await self.machine.call("stations", place=self.name, ifname=f"wlan{radio}-va0")

    async def access_point(self, radio: int) -> dict:
        """That of a radio as the kernel has it, once it sends."""
        name = f"wlan{radio}-va0"
        all_ = await self.until(f"{name} does not send", self.kernel,
                                lambda all_: all_[name].get("frequency") is not None)
        return all_[name]

    async def bssid(self, radio: int) -> str:
        """As the kernel tells it."""
        return (await self.access_point(radio))["address"]

    async def hostapd(self, radio: int, command: str) -> str:
        """hostapd's answer on the control socket of a radio's access point."""
        return await self.machine.call("control", place=self.name,
                                       path=f"{HOSTAPD}/wlan{radio}-va0", command=command)

    async def until(self, problem: str, ask: Callable, predicate: Callable[[Any], bool],
                    timeout: float = 60.0) -> Any:
        """What `ask()` gives once it is as it should be; GuestError tells what it was. An interface
        that is just not there is none that is as it should be."""
        deadline, answer = time.monotonic() + timeout, None
        while time.monotonic() < deadline:
            try:
                answer = await ask()
                if predicate(answer):
                    return answer
            except (GuestError, KeyError) as error:
                answer = error
            await asyncio.sleep(LOOK_PAUSE)
        raise GuestError(f"{self.name}: {problem} within {timeout:g} s: {answer}\n"
                         f"{await self.last_words()}")

    async def read(self, path: str, offset: int = 0) -> str:
        """A file of its place from `offset` on, below 0 from the end; empty when there is none."""
        return (await self.machine.read(self.name, path, offset) or b"").decode(errors="replace")

    async def last_words(self) -> str:
        """The end of what its daemons and its service said."""
        parts = []
        for name in DAEMONS:
            text = await self.machine.read("", self.log_of(name), -1500) or b""
            parts.append(f"--- {name}\n" + text.decode(errors="replace"))
        parts.append("--- apd.log\n" + await self.read("/tmp/apd.log", -3000))
        log = (line for line in (await self.read(LUMD_LOG, -LAST_OF_LOG)).splitlines()
               if LIBRARY_NOISE not in line)
        parts.append("--- lumd.log\n" + "\n".join(list(log)[-30:]))
        waits = await self.machine.run(self.name, "sh", "-c", WAITS, str(self.pids.get("lumd")),
                                       status=None)
        parts.append("--- what lumd's threads wait in, and what hostapd has told it\n" + waits)
        kernel = await self.machine.run("", "dmesg", status=None)
        parts.append("--- kernel\n" + "\n".join(kernel.splitlines()[-15:]))
        return "\n".join(parts)

    # What the service says and hears

    async def send(self, message: dict) -> int:
        """Sends lumd a message; the place in the journal before it."""
        since = len(self.journal.events)
        await self.service.send(message)
        return since

    async def heard(self, what: str, since: int = 0, timeout: float = 60.0,
                    predicate: Callable[[dict], bool] | None = None, **match) -> dict:
        """The first message of lumd's of that kind; GuestError when none comes."""
        event = await self.journal.wait(
            since, timeout, predicate, what=what, from_="lumd", **match)
        if event is None:
            told = [f"  {e['from']} {e['what']}" for e in self.journal.events[-12:]]
            raise GuestError(f"{self.name}: no {what} {match or ''} within {timeout:g} s\n" +
                             "\n".join(told) + "\n" + await self.last_words())
        return event

    @property
    def known(self):
        """What the service has learned of this access point."""
        return self.service.ap()

    async def stop(self) -> None:
        """The service; the rest ends with the machine."""
        await self.service.stop()
