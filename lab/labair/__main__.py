"""Starts access points and clients with real 802.11 in a virtual machine, and takes commands.

A line is a place and a command for it: "ap1 iw dev", "c1 wpa_cli status"; "ap1: JSON" is sent to
that access point's lumd by its service. The end of the input ends the machine.
"""
import argparse
import asyncio
import contextlib
import functools
import itertools
import json
import signal
import sys

from labservice.server import ServiceError
from labshow import tables
from labshow.process import LabError
from labtalk import journal

from .accesspoint import Channel
from .air import Air, Plan
from .soak import Soak

TABLE_WIDTH = 100
CHANNELS_24 = (1, 6, 11)
CHANNELS_5 = ((36, 80), (44, 20), (48, 20))
MOST_POINTS, MOST_CLIENTS, MOST_MINUTES = 8, 16, 24 * 60


def plan(points: int, clients: int) -> Plan:
    """So many of each, the access points on channels that take turns."""
    channels = zip(itertools.cycle(CHANNELS_24), itertools.cycle(CHANNELS_5))
    return Plan(tuple((Channel(low), Channel(*high))
                      for low, high in itertools.islice(channels, points)), clients)


def count(most):
    """Of an option."""
    def parse(text):
        number = int(text)
        if not 1 <= number <= most:
            raise argparse.ArgumentTypeError(f"{text} is not 1 to {most}")
        return number
    return parse


def arguments():
    parser = argparse.ArgumentParser(prog="air", description=__doc__.splitlines()[0])
    parser.add_argument("--points", type=count(MOST_POINTS), default=2, help="access points (2)")
    parser.add_argument("--clients", type=count(MOST_CLIENTS), default=4, help="clients (4)")
    parser.add_argument("--json", action="store_true", help="one JSON object an event")
    parser.add_argument("--soak", type=count(MOST_MINUTES), metavar="MINUTES",
                        help="random commands for so long, and daemons that are killed")
    parser.add_argument("--seed", type=int, default=1, help="of the soak (1)")
    return parser.parse_args()


async def carry_out(air, line):
    """One line that was typed."""
    place, _, command = line.partition(" ")
    try:
        if place.endswith(":"):
            point = next(point for point in air.points if point.name == place[:-1])
            await point.service.send(json.loads(command))
        else:
            print(await air.machine.run(place, "sh", "-c", command, status=None), end="")
    except StopIteration:
        print(f"there is no {place[:-1]}", file=sys.stderr)
    except (LabError, ServiceError, ValueError) as error:
        print(error, file=sys.stderr)


async def take_lines(air):
    """Until the end of the input."""
    loop = asyncio.get_running_loop()
    while line := await loop.run_in_executor(None, sys.stdin.readline):
        if line.strip():
            await carry_out(air, line.strip())


async def soak(air, options):
    """The lines of what is commanded, then a table of what each daemon took."""
    course = Soak(air, options.seed, functools.partial(print, flush=True))
    try:
        await course.run(options.soak * 60)
    except asyncio.CancelledError:
        raise LabError("ended before its time") from None
    finally:
        print(tables.table(
            ("daemon", "processes", "private KiB", "pss KiB", "threads", "descriptors"),
            [[f"{point} {name}", len({look.pid for look in looks}),
              *(spread(getattr(look, what) for look in looks)
                for what in ("private", "pss", "threads", "descriptors"))]
             for (point, name), looks in course.looks.items()], TABLE_WIDTH))
        print("done:", *(f"{name} {times}" for name, times in course.done.items()), flush=True)
        await asyncio.shield(air.stop())


def spread(values):
    """The least and the most."""
    values = sorted(values)
    return f"{values[0]} to {values[-1]}"


async def main():
    options = arguments()
    air = Air(plan(options.points, options.clients))
    task = asyncio.current_task()
    for number in (signal.SIGINT, signal.SIGTERM):
        asyncio.get_running_loop().add_signal_handler(number, task.cancel)
    if options.soak:
        return await soak(air, options)
    for point in air.points:
        print_event = journal.printer(options.json)
        point.journal.listen(print_event)
    try:
        await air.start()
        await air.start_daemons()
        await air.start_clients()
        print("places:", *(part.name for part in (*air.points, *air.clients)), flush=True)
        await take_lines(air)
    finally:
        await air.stop()


def run():
    """The program; it fails with one line."""
    try:
        with contextlib.suppress(asyncio.CancelledError):
            asyncio.run(main())
    except LabError as error:
        sys.exit(f"air: {error}")


if __name__ == "__main__":
    run()
