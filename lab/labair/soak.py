"""Random commands for a long time, while hostapd and apd are killed and started again.

Access points get what a service may send them, in any order and while the last is still being
carried out. The soak holds when every daemon lives that was not killed, every setting is what was
commanded last, the clients have a connection and no daemon has grown. LabError tells what is not so.
"""
import asyncio
import collections
import dataclasses
import random
import signal
import statistics
import time
from collections.abc import Callable

from labshow.process import LabError

from .accesspoint import BUS, DAEMONS, AirAccessPoint
from .air import Air
from .station import frequency
from .steps import BAND_5, BAND_24
from .tour import Tour

# (channel, MHz) that every client can follow without a radar check.
CHANNELS = {BAND_24: ((1, 20), (6, 20), (11, 20)),
            BAND_5: ((36, 20), (40, 20), (44, 20), (48, 20), (36, 40), (44, 40), (36, 80), (44, 80))}
OTHER_OF = {36: 40, 44: 48}  # of 40 MHz and more
POWERS = range(5, 18)     # dBm
MOST_NEIGHBOURS = 12
SURVEYED = ("1 36", "6 44", "1 6 36 44")  # of both bands: one that is not named is surveyed whole
SURVEY_WAIT = 120.0       # seconds, as all that follow
SETTLED_WAIT = 90.0
PAUSE = 3.0               # at most, between two commands
AWAY = 5.0                # at most, of a daemon that was killed
LOOK_EVERY = 10.0
# How often which command is given, out of their sum. A daemon dies about every minute.
WEIGHTS = {"change": 40, "neighbours": 10, "ask": 10, "survey": 5, "steer": 10, "kill_hostapd": 3,
           "kill_apd": 3}
HOSTAPD_PID = "/run/hostapd.pid"  # apd's word to lumd, and the file that lumd takes away
STARTED = "/tmp/.orvanta_notify_hostapd_started"
APD_MODULES = ("vaultd", "hubd", "scand")  # under which apd is on the bus
# What is allowed beyond the run's second quarter: an allocator's pages, a connection that is open at
# the moment.
GROWTH = {"private": 256, "threads": 0, "descriptors": 2}


@dataclasses.dataclass(frozen=True)
class Look:
    """A daemon at one moment: memory in KiB."""

    seconds: float
    pid: int
    private: int
    pss: int
    threads: int
    descriptors: int


def is_as_wanted(here: dict, wanted: dict) -> bool:
    """Whether the kernel's interface does that. hostapd takes primary and secondary channel the
    other way round where it hears others so, as IEEE 802.11 has it for a 40 MHz BSS."""
    mhz = frequency(wanted["channel"])
    others = {mhz} if wanted["bandwidth"] == 20 else {mhz, frequency(OTHER_OF[wanted["channel"]])}
    return here["frequency"] in others and \
        (here["width"], here["power"]) == (wanted["bandwidth"], wanted["power"])


class Soak:
    """`tell` is called with one line for each command. The same seed gives the same commands."""

    def __init__(self, air: Air, seed: int, tell: Callable[[str], None] = lambda text: None):
        self.air, self._tell, self._random = air, tell, random.Random(seed)
        self._tour = Tour(air)
        self._started = self._looked = 0.0
        self.wanted = {point.name: {
            radio: {"channel": channel.number, "bandwidth": channel.bandwidth,
                    "power": channel.power} for radio, channel in enumerate(point.channels)}
            for point in air.points}
        self.looks: dict[tuple[str, str], list[Look]] = collections.defaultdict(list)
        self.done: collections.Counter[str] = collections.Counter()

    async def run(self, seconds: float) -> None:
        """From the boot of the machine to the last look."""
        await self._tour.boot()
        await self._tour.subscription()
        await self.air.start_clients()
        for client in self.air.clients:
            await client.wait()
        self._started = time.monotonic()
        while time.monotonic() - self._started < seconds:
            point = self._random.choice(self.air.points)
            (name,) = self._random.choices(tuple(WEIGHTS), tuple(WEIGHTS.values()))
            await getattr(self, f"_{name}")(point)
            self.done[name] += 1
            await self._look()
            await asyncio.sleep(self._random.uniform(0, PAUSE))
        await self._end()

    # What is commanded

    async def _change(self, point):
        radio = self._random.choice(tuple(CHANNELS))
        channel, width = self._random.choice(CHANNELS[radio])
        here = self.wanted[point.name][radio]
        here.update(self._random.choice((
            {"channel": channel, "bandwidth": width},
            {"power": self._random.choice(POWERS)},
            {"channel": channel, "bandwidth": width, "power": self._random.choice(POWERS)})))
        self._say(point, f"wlan{radio} to {here}")
        await self._tour.configure(point, radios=[{"id": radio, **here}])
        if self._random.random() < 0.7:
            await self._settled(point)

    async def _neighbours(self, point):
        count = self._random.randint(0, MOST_NEIGHBOURS)
        self._say(point, f"{count} neighbours")
        self._tour.listed = [
            {"neighbour-mac": f"02:00:00:0b:{number:02x}:00", "channel": 6, "priority": 1,
             "vaps": [{"ssid": self.air.plan.network.ssid, "mac": f"02:00:00:0b:{number:02x}:10"}]}
            for number in range(count)]
        await self._tour.configure(point)

    async def _ask(self, point):
        self._say(point, "asked for its radios")
        await self._tour.reported(point)

    async def _survey(self, point):
        channels = self._random.choice(SURVEYED)
        self._say(point, f"survey of {channels}")
        since = await point.send({"cmd": "rrm-update", "rrm-scan-delay": 0,
                                  "vexor-rrm-scanning": 0, "rrm-scan-channels": channels})
        await point.heard("rrm-response", since, SURVEY_WAIT)

    async def _steer(self, point):
        radio = self._random.choice(tuple(CHANNELS))
        self._say(point, f"a client of wlan{radio} to leave")
        await point.send({"cmd": "rrm-sta-overload", "ap-mac": point.known.mac,
                          "802dot11k": await self._tour.neighbour_list(),
                          "radios": [{"id": radio, "roam-count": 1}]})

    async def _kill_hostapd(self, point):
        await self._kill(point, "hostapd")
        await point.until("lumd has not been told of the new hostapd",
                          lambda: self._unseen(point), lambda unseen: not unseen, SETTLED_WAIT)
        await self._all_again(point)

    @staticmethod
    async def _unseen(point):
        """Whether lumd is still to see the hostapd that runs. One that is back while lumd does
        something else it has not seen go, and then tells the service of no lost clients."""
        pid = (await point.read(HOSTAPD_PID)).strip()
        return pid != str(point.pids["hostapd"]) or await point.has(STARTED)

    async def _kill_apd(self, point):
        await self._kill(point, "apd")
        await point.until("apd is not on the bus", lambda: self._bus(point),
                          lambda text: all(name in text for name in APD_MODULES), SETTLED_WAIT)
        await self._all_again(point)

    async def _kill(self, point, name):
        number = self._random.choice((signal.SIGKILL, signal.SIGTERM))
        away = self._random.uniform(0, AWAY)
        self._say(point, f"{name} ends by {number.name}, away for {away:.1f} s")
        await point.kill(name, number)
        await asyncio.sleep(away)
        await point.start_daemon(name)

    async def _all_again(self, point):
        """A service tells an access point whose daemons came back what it wants."""
        await self._tour.configure(point, radios=[
            {"id": radio, **here} for radio, here in self.wanted[point.name].items()])
        await self._settled(point)

    @staticmethod
    async def _bus(point):
        return await point.machine.run(point.name, "/srv/msgbusctl", "-s", BUS, "list", status=None)

    def _say(self, point, text):
        seconds = time.monotonic() - self._started
        self._tell(f"{seconds:7.1f} {point.name}: {text}")

    # What is seen

    async def _settled(self, point: AirAccessPoint) -> None:
        """Until the kernel has what was commanded last."""
        wanted = self.wanted[point.name]
        await point.until(
            f"not {wanted}", point.kernel, lambda all_: all(
                is_as_wanted(all_[f"wlan{radio}-va0"], here) for radio, here in wanted.items()),
            SETTLED_WAIT)

    async def _look(self):
        """Every while: each daemon lives, and what it takes."""
        if time.monotonic() - self._looked < LOOK_EVERY:
            return
        self._looked = time.monotonic()
        for point in self.air.points:
            for name in DAEMONS:
                facts = await point.facts(name)
                if facts is None:
                    raise LabError(f"{point.name}: {name} has gone\n{await point.last_words()}")
                self.looks[point.name, name].append(
                    Look(self._looked - self._started, point.pids[name], **facts))

    async def _end(self):
        for point in self.air.points:
            await self._settled(point)
            await self._tour.reported(point)
        for client in self.air.clients:
            await self._tour.seated(client)
        grown = list(self.grown())
        if grown:
            raise LabError("; ".join(grown))
        for point in self.air.points:
            if point.checker.found:
                raise LabError(f"{point.name}: {point.checker.found}")

    def grown(self):
        """What a daemon has more of in the run's last quarter than in its second one."""
        for (point, name), looks in self.looks.items():
            early, late = looks[len(looks) // 4:len(looks) // 2], looks[-(len(looks) // 4):]
            for what, allowed in GROWTH.items():
                if not early or not late:
                    continue
                before, after = (statistics.median(getattr(look, what) for look in part)
                                 for part in (early, late))
                if after > before + allowed:
                    yield f"{point}: {name} had {before:g} {what} and has {after:g}"
