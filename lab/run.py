#!/usr/bin/python3
"""Shows lumd at work: builds it, starts it in a virtual access point beside a service, and takes
commands. Started by ./run; see docs/lab.md."""
import argparse
import asyncio
import math
import os
import pathlib
import signal
import sys

from labap import fleet
from labap.msgbus import BusError
from labap.scenario import ScenarioError
from labservice.endpoint import Endpoint, EndpointError
from labservice.server import ServiceError
from labshow.building import build
from labshow.console import Refused
from labshow.harness import Lab
from labshow.outcome import FAILED, INTERRUPTED, Outcome
from labshow.portal_console import PortalConsole
from labshow.process import Build, LabError, find_build
from labshow.prompt import Prompt
from labshow.recording import RecordingError
from labshow.replay import Replay
from labshow.rrm_console import RrmConsole
from labshow.script import Difference
from labshow.show import Show
from labshow.trial import Trial
from labshow.wids_console import WidsConsole
from labtalk import contract
from labtalk.quiet import NOISE
from labtalk.resources import IS_INSTALLED

PRESET = "release"
CONSOLES = {"rrm": RrmConsole, "wids": WidsConsole, "portal": PortalConsole}
DIFFERENT_STATUS = 3
USUAL_SCENARIOS = {"rrm": "office", "wids": "wids-sentry", "portal": "minimal"}


def end_at_signal(number, _frame):
    """Turns a signal into the orderly end of whatever is under way."""
    sys.exit(128 + number)


def programs(options):
    if not options.bin:
        return find_build(PRESET)
    return Build(pathlib.Path(options.bin), pathlib.Path(options.bin).parent / "lib")


def make_lab(options, show, scenario, mode, record=None):
    """`mode`: None is the scenario's."""
    lab = Lab(scenario, mode, programs(options), options.speed, lumd=options.lumd, record=record)
    hidden = frozenset() if options.verbose else NOISE
    lab.journal.listen(lambda event: event["what"] in hidden or show.event(event))
    return lab


async def in_lab(lab, show, take_part, page=None):
    """What `take_part(lab, console)` returns, the lab being up meanwhile and only then, on `page` as
    well if there is one."""
    show.heading(f"{lab.mode} mode, scenario {lab.scenario['name']}: "
                 f"{lab.scenario['description']}")
    try:
        await lab.start()
        console = CONSOLES[lab.mode](lab, show)
        lab.journal.listen(console.notice)
        if page is not None:
            page.present_lab(lab, console)
        await console.opening()
        result = await take_part(lab, console)
    except ServiceError as error:
        raise LabError(lab.explain(str(error))) from error
    finally:
        if page is not None:
            page.clear()
        lab.journal.listeners.clear()  # the end of the lab itself is of no interest
        status = await asyncio.shield(lab.stop())
    if status != 0:
        raise LabError(f"lumd ended with status {status}")
    return result


async def conversation(lab, console):
    """One full conversation, in which everything must be as it should be."""
    await console.conversation()
    if lab.checker.found:
        raise LabError(f"not as the schemas want it: {lab.checker.found[0]}")


async def replayed(options, show):
    """0 when lumd did all that was recorded, 3 when it did something otherwise."""
    replay = Replay(options.replay, programs(options), options.lumd)
    show.heading(f"{options.replay} to {replay.lab.program}")
    command = f"replay {options.replay}"
    try:
        acts = await replay.run()
    except Difference as difference:
        show.outcome(Outcome(command, FAILED, f"the first difference is at {difference}"))
        return DIFFERENT_STATUS
    show.text(f"all {acts} acts of the recording, and no other")
    show.outcome(Outcome(command, result={"acts": acts}))
    return 0


async def session(options, show, prompt):
    """The whole show; the exit status."""
    if options.console is None:
        return await show_all(options, show, prompt, None)
    try:
        from labconsole.desk import Desk
    except ImportError as error:
        raise LabError(f"--console takes python3-aiohttp ({error})") from error
    async with Desk(options, show) as page:
        if options.console:
            return await page.play(options.console)
        if options.fleet > 1 and not options.service:
            return await fleet_on_page(options, show, page)
        return await show_all(options, show, prompt, page)


async def fleet_on_page(options, show, page):
    from labconsole.fleet import Fleet
    scenario = options.scenario or USUAL_SCENARIOS[options.mode or "rrm"]
    return await Fleet(options, scenario, options.mode, programs(options),
                       lambda lab, told: CONSOLES[lab.mode](lab, told)).run(page, show)


async def show_all(options, show, prompt, page):
    """The same, on a page too unless it is None."""
    scenario = options.scenario or USUAL_SCENARIOS[options.mode or "rrm"]
    if options.air:
        from labair.report import show_tour  # it needs the tree, which an installed lab has not
        return await show_tour(show, programs(options).bin, page, options.seconds)
    if options.service:
        return await Trial(options, options.mode, scenario, programs(options), show, prompt, page).run()
    if options.replay:
        return await replayed(options, show)
    if not contract.IS_COMPLETE:
        show.heading("python3-jsonschema is not installed: of messages only their names and the "
                     "order of their members are looked at")
    lab = make_lab(options, show, scenario, options.mode, options.record)
    if options.once:
        await in_lab(lab, show, conversation, page)
        show.heading("done")
        return 0
    async with prompt:
        while successor := await in_lab(lab, show, prompt.interact, page):
            lab = make_lab(options, show, *successor)
    show.heading("bye")
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


def port(text):
    """Of the option --port."""
    number = int(text)
    if not 1 <= number <= 65535:
        raise argparse.ArgumentTypeError(f"{text} is not 1 to 65535")
    return number


def count(text):
    """Of the option --fleet."""
    number = int(text)
    if not 1 <= number <= fleet.MOST:
        raise argparse.ArgumentTypeError(f"{text} is not 1 to {fleet.MOST}")
    return number


def number(text):
    """Of the option --member."""
    value = int(text)
    if not 0 <= value < fleet.NUMBERS:
        raise argparse.ArgumentTypeError(f"{text} is not 0 to {fleet.NUMBERS - 1}")
    return value


def arguments():
    parser = argparse.ArgumentParser(prog="run", description=__doc__.split(". ", maxsplit=1)[0])
    parser.add_argument("--once", action="store_true",
                        help="one full conversation; status 0 when all of it was as it should be")
    parser.add_argument("--mode", choices=tuple(CONSOLES), help="service mode (default: rrm)")
    parser.add_argument("--scenario", help="name or file (default: office)")
    parser.add_argument("--speed", type=speed, default=1.0, help="times faster than real time")
    parser.add_argument("--bin", help="folder of other programs, which are then not built")
    parser.add_argument("--json", action="store_true",
                        help="one JSON object an event, and one a command: what became of it")
    parser.add_argument("--verbose", action="store_true", help="show configuration reads as well")
    parser.set_defaults(air=False)
    if not IS_INSTALLED:
        parser.add_argument("--air", action="store_true",
                            help="a tour with real 802.11 frames, in a virtual machine")
    page = parser.add_argument_group("in a browser")
    page.add_argument("--console", nargs="?", const="", metavar="FILE",
                      help="show it on a local page as well; FILE: a recording, and nothing else")
    page.add_argument("--port", type=port, help="of the page, which a later lab then has again")
    tape = parser.add_argument_group("recordings")
    tape.add_argument("--record", metavar="FILE", help="write there all that passes at the borders")
    tape.add_argument("--replay", metavar="FILE",
                      help="play a recording to lumd and tell what it does otherwise")
    tape.add_argument("--lumd", metavar="PROGRAM", help="this lumd instead of the build's")
    trial = parser.add_argument_group("somebody else's service")
    trial.add_argument("--service", type=endpoint, metavar="URL",
                       help="ws://HOST:PORT/PATH: it stands in the emulator's place and is judged")
    trial.add_argument("--fleet", type=count, metavar="N", help="so many access points")
    trial.add_argument("--member", type=number, metavar="N",
                       help="access point N of a fleet whose others run elsewhere, until it is "
                       "ended; from 0")
    trial.add_argument("--for", type=speed, dest="seconds", metavar="S",
                       help="end after so many seconds")
    trial.add_argument("--report", metavar="FILE", help="write there what was held and what not")
    options = parser.parse_args()
    if options.port and options.console is None:
        parser.error("--port goes with --console")
    if options.console is not None and (
            options.replay or options.console and (options.service or options.air)):
        parser.error("--console shows one thing: labs or a recording")
    if options.air and (options.fleet or options.service):
        parser.error("--air brings its own access points and services")
    for name in ("fleet", "member", "for", "report"):
        given = getattr(options, {"for": "seconds"}.get(name, name))
        on_page = options.console is not None and name in ("fleet", "for")
        if not options.service and not on_page and given is not None:
            parser.error(f"--{name} goes with --service")
    if options.member is not None and (options.fleet or options.once):
        parser.error("--member goes neither with --fleet nor with --once")
    options.fleet = options.fleet or 1
    if options.record and (options.fleet > 1 or options.replay):
        parser.error("--record goes with one access point, and not with --replay")
    if options.replay and options.service:
        parser.error("--replay brings its own service")
    return options


def whole(status, prompt):
    """(exit status, what became of the session): it is not done when a command that was not typed
    by a person is not."""
    if status != 0:
        return status, Outcome(None, FAILED, f"status {status}")
    if prompt.failed and not sys.stdin.isatty():
        return 1, Outcome(None, FAILED, f"commands that are not done: {prompt.failed}")
    return 0, Outcome(None)


async def supervised(options, show):
    """(exit status, what became of the session), which SIGTERM and SIGHUP end early, and a SIGINT
    that ends no command."""
    prompt = Prompt(show, stays=options.console is not None)
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
        return whole(await task, prompt)
    except asyncio.CancelledError:
        name = signal.Signals(caught[0]).name if caught else "cancelled"
        return 128 + caught[0] if caught else 1, Outcome(None, INTERRUPTED, name)


def main():
    options = arguments()
    show = Show(options.json)
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, end_at_signal)
    try:
        if not options.bin and not IS_INSTALLED:
            show.heading("building")
            build(PRESET, show)
        status, outcome = asyncio.run(supervised(options, show))
        show.outcome(outcome)
        return status
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), 1)  # nobody reads; nothing to flush at exit
        return 1
    except (LabError, RecordingError, ScenarioError, BusError, ServiceError, Refused,
            OSError) as error:
        print(f"run: {error}", file=sys.stderr)
        if options.json:
            show.outcome(Outcome(None, FAILED, f"{error}"))
        return 1
    except KeyboardInterrupt:
        return 128 + signal.SIGINT


if __name__ == "__main__":
    sys.exit(main())
