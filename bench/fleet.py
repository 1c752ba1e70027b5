"""Many agents on one machine against one service: what they cost, and how they come back to it.

Every agent has a broker and folders of its own in place of /run and /tmp, a hostapd that seems to
run, and no radio: it connects, subscribes and pings as on an access point. Its monotonic clock has
its second begin at another moment than its neighbour's (time_namespaces(7)), as theirs do.
"""
import argparse
import asyncio
import contextlib
import ctypes
import json
import math
import os
import pathlib
import random
import shutil
import signal
import subprocess
import tempfile
import time
from statistics import mean, median

from labtalk.websocket import Link, LinkClosed
from report import BIN, line, smaps, totals

SEED_LIBRARY = pathlib.Path(os.environ["LUMD_LIB_DIR"]) / "libfleet_seed.so"
SUBSCRIBED = {"version": "2.4", "service": "rrm", "cmd": "subscribe-response",
              "status": "success", "code": 200}
# As packaging/lumd.conf has them, seconds.
INITIAL, LONGEST = 4, 60
PAUSE = 1  # of lumd's worker between a link and the delay before the next
LARGE_FLEET = 100_000
SEEDS = {"equal": lambda _: 1, "unequal": lambda number: number + 1}
SPREAD = "30 to 60"
# unshare(2)
CLONE_NEWTIME, CLONE_NEWNS, CLONE_NEWUSER = 0x80, 0x20000, 0x10000000
LIBC = ctypes.CDLL(None, use_errno=True)
# Waits until it may begin; the end of its input tells. $1 becomes /run, $2 /tmp.
RUN_AGENT = ('mount --make-rprivate / && mount --bind "$1" /run && mount --bind "$2" /tmp || exit; '
             '"$3/msgbusd" -s /run/msgbus.sock -c /run/msgbusd.conf & '
             'read -r _; exec "$3/lumd" -f /run/lumd.conf </dev/null')


def shipped(_number):
    return INITIAL


INITIAL_DELAYS = {"4": shipped, "30": lambda _: 30, "120": lambda _: 120,
                  SPREAD: lambda number: 30 + number % 31}


# ---- service

class Service:
    """Subscribes whoever asks. Times are those of time.monotonic()."""

    def __init__(self):
        self.arrivals = []     # of each handshake
        self.subscribed = []   # of each subscribe request
        self.links = set()
        self.port = 0
        self._server = None

    async def start(self):
        self._server = await asyncio.start_server(self._serve, "127.0.0.1", self.port, backlog=4096)
        self.port = self._server.sockets[0].getsockname()[1]

    async def stop(self):
        """As a process that dies: the port and every connection are gone."""
        self._server.close()
        for link in list(self.links):
            link.abort()
        while self.links:
            await asyncio.sleep(0.01)

    def forget(self):
        self.arrivals.clear()
        self.subscribed.clear()

    async def _serve(self, reader, writer):
        link = Link(reader, writer, ["websock-rrm"])
        self.links.add(link)
        try:
            if await link.shake_hands(self._admit):
                async for text in link:
                    await self._answer(link, json.loads(text))
        except LinkClosed:
            pass
        finally:
            link.finish()
            self.links.discard(link)

    def _admit(self, _path):
        self.arrivals.append(time.monotonic())

    async def _answer(self, link, message):
        if message["cmd"] == "subscribe-request":
            self.subscribed.append(time.monotonic())
            await link.send(json.dumps(SUBSCRIBED))


# ---- agents

def enter_namespaces(phase):
    """Called in a new process, which may mount afterwards. `phase`: seconds below 1."""
    maps = {"uid_map": f"0 {os.getuid()} 1", "setgroups": "deny", "gid_map": f"0 {os.getgid()} 1",
            "timens_offsets": f"monotonic 0 {int(phase * 1e9)}"}
    if LIBC.unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWTIME) != 0:
        raise OSError(ctypes.get_errno(), "unshare")
    for name, value in maps.items():
        pathlib.Path(f"/proc/self/{name}").write_text(value)


class Agent:
    def __init__(self, folder, number, service, gate, seed, initial):
        self._folder = folder / str(number)
        run, tmp = self._folder / "run", self._folder / "tmp"
        run.mkdir(parents=True)
        tmp.mkdir()
        (run / "hostapd.pid").write_text("1\n")
        for name in ("_hostapd_started", ""):
            (tmp / f".orvanta_notify{name}").touch()
        (run / "factory.json").write_text(json.dumps({
            "board": "fleet", "hw": "1", "serial": f"F{number:06}",
            "mac": "02:00:00:{:02x}:{:02x}:00".format(*divmod(number, 256))}))
        (run / "radios.json").write_text('{"radios": []}')
        (run / "msgbusd.conf").write_text("allow=root as any to any\n")
        (run / "lumd.conf").write_text(
            f"orvanta_service_url=ws://127.0.0.1:{service.port}/agent\nlog_level=3\n"
            f"initial_connection_delay={initial}\nmax_connection_delay={max(LONGEST, initial)}\n")
        environment = {"PATH": os.environ["PATH"], "LUMD_PLATFORM_DIR": "/run"}
        if seed is not None:
            environment |= {"LD_PRELOAD": str(SEED_LIBRARY), "FLEET_SEED": str(seed)}
        self._process = subprocess.Popen(
            ["sh", "-c", RUN_AGENT, "sh", run, tmp, BIN], stdin=gate, env=environment,
            preexec_fn=lambda: enter_namespaces(random.Random(number).random()))
        self.lumd, self._broker = self._process.pid, None

    @property
    def broker(self):
        if self._broker is None:
            children = pathlib.Path(f"/proc/{self.lumd}/task/{self.lumd}/children")
            self._broker = int(children.read_text())
        return self._broker

    def stop(self):
        """lumd first: the number of its child is its child's as long as it lives."""
        with contextlib.suppress(OSError, ValueError):
            os.kill(self.broker, 15)
        self._process.terminate()

    def wait(self):
        self._process.wait()


@contextlib.asynccontextmanager
async def fleet(count, seed_of, initial_of):
    """The service and its agents, begun at once and all subscribed; and when they were begun."""
    service = Service()
    await service.start()
    folder = pathlib.Path(tempfile.mkdtemp(prefix="fleet", dir="/var/tmp"))
    gate, opener = os.pipe()
    agents = []
    try:
        for number in range(count):
            agents.append(Agent(folder, number, service, gate, seed_of(number),
                                initial_of(number)))
            await asyncio.sleep(0)
        await until(lambda: all((folder / str(n) / "run/msgbus.sock").exists()
                                for n in range(count)))
        began = time.monotonic()
        os.close(opener)
        opener = None
        await until(lambda: len(service.subscribed) >= count)
        yield service, agents, began
    finally:
        if opener is not None:
            os.close(opener)
        os.close(gate)
        for agent in agents:
            agent.stop()
        for agent in agents:
            agent.wait()
        await service.stop()
        shutil.rmtree(folder)


async def until(condition, limit=300.0):
    end = time.monotonic() + limit
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError("the fleet did not come")
        await asyncio.sleep(0.05)


# ---- what they cost

def sums(pids):
    return [sum(column) for column in zip(*map(totals, pids))]


async def cost(pids, seconds):
    """Milliseconds of CPU time a minute and wake-ups a second, of one of them."""
    before = sums(pids)
    await asyncio.sleep(seconds)
    cpu, wakes = [(after - first) / len(pids) for after, first in zip(sums(pids), before)]
    return cpu * 60 / seconds, wakes / seconds


async def show_cost(count, seconds):
    async with fleet(count, lambda _: None, shipped) as (_, agents, _):
        await asyncio.sleep(5)
        print(f"\n{count} idle agents, a process: KiB of its share of all memory (PSS) and private, ms of "
              f"CPU time a minute\nand wake-ups a second over {seconds} s")
        for name in ("lumd", "broker"):
            pids = [getattr(agent, name) for agent in agents]
            held = [smaps(pid) for pid in pids]
            private = [each["Private_Clean"] + each["Private_Dirty"] for each in held]
            cpu, wakes = await cost(pids, seconds)
            line({"broker": "msgbusd"}.get(name, name), f"{mean(each['Pss'] for each in held):.0f}",
                 f"{mean(private):.0f}", f"{cpu:.1f}", f"{wakes:.1f}")


# ---- how they come back

def back_after(seed, phase, outage, initial):
    """When an agent whose link broke at 0 is back, if the service is there from `outage` on.

    Draws as lumd does, the one of its start before. A delay ends with a second of the agent's own
    clock.
    """
    LIBC.srandom(seed)
    LIBC.rand()
    base, longest, now = initial, max(LONGEST, initial), 0.0
    while True:
        begun = now + PAUSE
        now = math.floor(begun + phase) + base // 2 + LIBC.rand() % base - phase
        if now >= outage:
            return now - outage
        base = min(2 * base, longest)


def model(outage, seed_of, initial_of):
    phases = random.Random(1)
    return [back_after(seed_of(number), phases.random(), outage, initial_of(number))
            for number in range(LARGE_FLEET)]


def busiest(times, width):
    """Most of `times` (seconds, sorted) within `width`."""
    most = first = 0
    for last, moment in enumerate(times):
        while moment - times[first] >= width:
            first += 1
        most = max(most, last + 1 - first)
    return most


def show_storm(name, times):
    times = sorted(times)
    count = len(times)
    line(f"{name:40}", *(f"{moment:.1f}" for moment in
                 (times[0], median(times), times[int(0.9 * count)], times[-1])),
         *(f"{100 * busiest(times, width) / count:.1f}" for width in (1, 0.1)))


async def storm(service, count, outage):
    await service.stop()
    await asyncio.sleep(outage)
    service.forget()
    back = time.monotonic()
    await service.start()
    await until(lambda: len(service.subscribed) >= count)
    return [moment - back for moment in service.arrivals]


async def show_storms(count, name, seed_of, initial_of, outages):
    async with fleet(count, seed_of, initial_of) as (service, _, began):
        show_storm(f"{name}, begun in one second", [each - began for each in service.arrivals])
        for outage in outages:
            show_storm(f"{name}, {outage} s away", await storm(service, count, outage))


def show_models(outages):
    print(f"\nThe same computed for {LARGE_FLEET:,} agents")
    for initial, initial_of in INITIAL_DELAYS.items():
        for seeds, seed_of in SEEDS.items():
            for outage in outages:
                show_storm(f"{seeds}, initial {initial}, {outage} s away",
                           model(outage, seed_of, initial_of))


async def show_all(options):
    asyncio.get_running_loop().add_signal_handler(signal.SIGTERM, asyncio.current_task().cancel)
    outages = [1, 20] if options.quick else [1, 60]
    await show_cost(options.agents, 10 if options.quick else 60)
    print("\nSeconds until the first, half, 90 %, the last of them are back, and per cent of them within "
          "one second,\nwithin 100 ms")
    for seeds, seed_of in SEEDS.items():
        await show_storms(options.agents, f"{seeds} seeds", seed_of, shipped, outages)
    for seeds, seed_of in SEEDS.items():
        await show_storms(options.agents, f"{seeds}, initial {SPREAD}", seed_of,
                          INITIAL_DELAYS[SPREAD], [1])
    show_models([1, 60, 600])


def main():
    parser = argparse.ArgumentParser(prog="bench/fleet")
    parser.add_argument("--agents", type=int, default=200)
    parser.add_argument("--quick", action="store_true", help="shorter samples and outages")
    asyncio.run(show_all(parser.parse_args()))


if __name__ == "__main__":
    main()
