"""Plays an access point for lumd: kernel, radios, daemons, files. See docs/lab.md.

Start the message bus first, then this, then lumd with LD_PRELOAD=liblabkernel.so and the same
LAB_ROOT, MSGBUS_SOCKET and LUMD_PLATFORM_DIR.
"""
import argparse
import asyncio
import os
import signal
import sys

from labtalk import journal
from labtalk.quiet import NOISE

from . import msgbus, scenario
from .accesspoint import AccessPoint
from .clock import LabClock


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--scenario", default="office", help="name or file (default: office)")
    parser.add_argument("--root", default=os.environ.get("LAB_ROOT"),
                        help="folder of this lab (default: $LAB_ROOT)")
    parser.add_argument("--bus", default=os.environ.get("MSGBUS_SOCKET", "/var/run/msgbus.sock"))
    parser.add_argument("--platform", default=os.environ.get("LUMD_PLATFORM_DIR"),
                        help="folder for the platform files (default: $LUMD_PLATFORM_DIR)")
    parser.add_argument("--speed", type=float,
                        default=float(os.environ.get("LAB_CLOCK_SPEED", "1")),
                        help="how much faster than real time (default: $LAB_CLOCK_SPEED)")
    parser.add_argument("--order", choices=("native", "little", "big"), default="native",
                        help="byte order of the machine that lumd is built for")
    parser.add_argument("--json", action="store_true", help="one JSON object an event")
    parser.add_argument("--verbose", action="store_true", help="show reads as well")
    return parser.parse_args()


async def main():
    options = arguments()
    if not options.root:
        sys.exit("ap: no folder given (--root or LAB_ROOT)")
    order = {"native": msgbus.HOST_ORDER, "little": "<", "big": ">"}[options.order]
    try:
        chosen = scenario.load(options.scenario)
        ap = AccessPoint(chosen, options.root, options.bus, options.platform,
                         LabClock(options.speed), order)
        ap.journal.listen(journal.printer(options.json, hide=() if options.verbose else NOISE))
        await ap.start()
    except (scenario.ScenarioError, msgbus.BusError, OSError) as error:
        sys.exit(f"ap: {error}")
    done = asyncio.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        asyncio.get_running_loop().add_signal_handler(number, done.set)
    await done.wait()
    await ap.stop()


def run():
    asyncio.run(main())


if __name__ == "__main__":
    run()
