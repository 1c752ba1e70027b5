#!/usr/bin/python3
"""Shows lumd at work: builds it, starts it in a virtual access point beside a service, and takes
commands. Started by ./run; see docs/lab.md."""
import argparse
import asyncio
import math
import os
import pathlib
import signal
import subprocess
import sys

from labap import fleet
from labap.msgbus import BusError
from labap.scenario import ScenarioError
from labservice.endpoint import Endpoint, EndpointError
from labservice.server import ServiceError
from labshow.console import Refused
from labshow.harness import Lab
from labshow.portal_console import PortalConsole
from labshow.process import TREE, Build, LabError, find_build
from labshow.prompt import Prompt
from labshow.rrm_console import RrmConsole
from labshow.show import Show
from labshow.trial import Trial
from labshow.wids_console import WidsConsole
from labtalk import contract, journal
from labtalk.quiet import NOISE

PRESET = "release"
SHOWN_BUILD_OUTPUT = 6000  # bytes
CONSOLES = {"rrm": RrmConsole, "wids": WidsConsole, "portal": PortalConsole}


def build():
    """Configures and builds the release preset; its output is shown only when it fails."""
    for command in (["cmake", "--preset", PRESET], ["cmake", "--build", "--preset", PRESET]):
        status, output = run_whole(command)
        if status != 0:
            print(output[-SHOWN_BUILD_OUTPUT:])
            raise LabError(f"{' '.join(command)} failed with status {status}")


def run_whole(command):
    """(status, output) of a command in the tree; whatever ends us ends all of it."""
    with subprocess.Popen(command, cwd=TREE, stdin=subprocess.DEVNULL, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          start_new_session=True) as child:
        try:
            output, _ = child.communicate()
        except BaseException:
            os.killpg(child.pid, signal.SIGTERM)
            raise
    return child.returncode, output


def end_at_signal(number, _frame):
    """Turns a signal into the orderly end of whatever is under way."""
    sys.exit(128 + number)


async def session(options, show, prompt):
    """The whole show; the exit status."""
    mode_scenario = {"wids": "wids-sentry", "portal": "minimal"}.get(options.mode, "office")
    scenario = options.scenario or mode_scenario
    binaries = find_build(PRESET)
    if options.bin:
        binaries = Build(pathlib.Path(options.bin), pathlib.Path(options.bin).parent / "lib")
    if options.service:
        return await Trial(options, options.mode, scenario, binaries, show, prompt).run()
    lab = Lab(scenario, options.mode, binaries, options.speed)
    hidden = frozenset() if options.verbose else NOISE
    lab.journal.listen(journal.printer(options.json, hide=hidden))
    show.heading(f"{lab.mode} mode, scenario {lab.scenario['name']}: "
                 f"{lab.scenario['description']}")
    if not contract.IS_COMPLETE:
        show.heading("python3-jsonschema is not installed: of messages only their names and the "
                     "order of their members are looked at")
    try:
        await lab.start()
        console = CONSOLES[lab.mode](lab, show)
        await console.opening()
        if options.once:
            await console.conversation()
            if lab.checker.found:
                raise LabError(f"not as the schemas want it: {lab.checker.found[0]}")
        else:
            await prompt.interact(lab, console)
    except ServiceError as error:
        raise LabError(lab.explain(str(error))) from error
    finally:
        lab.journal.listeners.clear()  # the end of the lab itself is of no interest
        status = await asyncio.shield(lab.stop())
    if status != 0:
        raise LabError(f"lumd ended with status {status}")
    show.heading("done" if options.once else "bye")
    return 0


def speed(text):
    """Of the option --speed; argparse tells its own words when it is no number."""
    value = float(text)
    if not 0 < value < math.inf:
        raise argparse.ArgumentTypeError(f"{text} is not above 0")
    return value


def endpoint(text):
    """Of the option --service."""
    try:
        return Endpoint.parse(text)
    except EndpointError as error:
        raise argparse.ArgumentTypeError(str(error)) from None


def count(text):
    """Of the option --fleet."""
    number = int(text)
    if not 1 <= number <= fleet.MOST:
        raise argparse.ArgumentTypeError(f"{text} is not 1 to {fleet.MOST}")
    return number


def arguments():
    parser = argparse.ArgumentParser(prog="run", description=__doc__.split(". ")[0])
    parser.add_argument("--once", action="store_true",
                        help="one full conversation; status 0 when all of it was as it should be")
    parser.add_argument("--mode", choices=tuple(CONSOLES), help="service mode (default: rrm)")
    parser.add_argument("--scenario", help="name or file (default: office)")
    parser.add_argument("--speed", type=speed, default=1.0, help="times faster than real time")
    parser.add_argument("--bin", help="folder of other programs, which are then not built")
    parser.add_argument("--json", action="store_true", help="one JSON object an event")
    parser.add_argument("--verbose", action="store_true", help="show configuration reads as well")
    trial = parser.add_argument_group("somebody else's service")
    trial.add_argument("--service", type=endpoint, metavar="URL",
                       help="ws://HOST:PORT/PATH: it stands in the emulator's place and is judged")
    trial.add_argument("--fleet", type=count, metavar="N", help="so many access points")
    trial.add_argument("--for", type=speed, dest="seconds", metavar="S",
                       help="end after so many seconds")
    trial.add_argument("--report", metavar="FILE", help="write there what was held and what not")
    options = parser.parse_args()
    for name in ("fleet", "for", "report"):
        if not options.service and getattr(options, {"for": "seconds"}.get(name, name)):
            parser.error(f"--{name} goes with --service")
    options.fleet = options.fleet or 1
    return options


async def supervised(options, show):
    """The session, ended early by SIGTERM or SIGHUP, and by a SIGINT that ends no command."""
    prompt = Prompt(show)
    task = asyncio.ensure_future(session(options, show, prompt))
    loop, caught = asyncio.get_running_loop(), []

    def stop(number):
        if number == signal.SIGINT and prompt.interrupt():
            return
        caught.append(number)
        task.cancel()

    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        loop.add_signal_handler(number, stop, number)
    try:
        return await task
    except asyncio.CancelledError:
        return 128 + caught[0] if caught else 1


def main():
    options = arguments()
    show = Show(options.json)
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, end_at_signal)
    try:
        if not options.bin:
            show.heading("building")
            build()
        return asyncio.run(supervised(options, show))
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), 1)  # nobody reads; nothing to flush at exit
        return 1
    except (LabError, ScenarioError, BusError, ServiceError, Refused, OSError) as error:
        print(f"run: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 128 + signal.SIGINT


if __name__ == "__main__":
    sys.exit(main())
