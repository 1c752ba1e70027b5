"""What the commands of every mode have in common."""
import asyncio
import difflib
import inspect
import json
import re

from labap import scenario as scenarios
from labap.msgbus import BusError
from labap.scenario import ScenarioError
from labservice.server import ServiceError

from . import misbehaviour
from .harness import LIBRARY_NOISE, URL_KEYS
from .outcome import FAILED, REFUSED, UNKNOWN, Outcome
from .process import LabError

QUIET = 0.7           # seconds without an event that end a command's output
PATIENT_FROM = 1.0    # real seconds after which a wait is shown
TICK = 0.25           # real seconds between two looks at what is waited for
MARGIN = 20           # real seconds that anything may take longer
LONGEST_BACK_OFF = 12  # seconds: 1.5 times max_connection_delay of the lab's lumd
LOG_LINES = 20
MAC = re.compile(r"([0-9a-f]{2}:){5}[0-9a-f]{2}")


class Refused(Exception):
    """A command line that cannot be carried out."""


class Console:
    """The commands of a lab in one mode. Each is a method that sends, shows what follows, and
    checks it; its documentation begins with how it is typed. What it returns is the result that
    --json tells."""

    def __init__(self, lab, show):
        self.lab, self.show = lab, show
        self.has_given_up = False  # lumd's link: it makes none until it is restarted
        # Of the lab that is to follow this one: scenario, mode or None, and where it is recorded.
        self.successor = None
        self.leaving = asyncio.Event()  # there is one

    def commands(self):
        """The methods by the names under which they are typed."""
        raise NotImplementedError

    def common_commands(self):
        return {"drop-link": self.drop_link, "restart": self.restart, "show": self.show_event,
                "log": self.log, "fault": self.fault, "scenario": self.scenario,
                "record": self.record, "help": self.help}

    def choices(self, words):
        """What the next word of a line may be, `words` being those before it."""
        if not words:
            return [*self.commands(), "quit"]
        if words[0] == "fault":
            return misbehaviour.choices(words[1:], self.lab.ap)
        if words[0] == "scenario" and len(words) == 2:
            return [*URL_KEYS]
        if len(words) > 1:
            return []
        return {"help": [*self.commands()], "log": ["-f"], "scenario": scenarios.names()}.get(
            words[0], [])

    async def opening(self):
        """Until the agent is where the first command finds it."""
        await self.lab.wait("connected")
        await self.settle()

    def script(self):
        """The command lines of one full conversation."""
        raise NotImplementedError

    async def conversation(self):
        """Every line of the script; the first that is not done is raised."""
        for line in self.script():
            self.show.heading(line)
            name, *words = line.split()
            outcome = await self.execute(line, name, words)
            self.show.outcome(outcome)
            if not outcome.is_done:
                raise LabError(f"{line}: not as it should be")

    async def execute(self, line, name, words):
        """What became of one command as it was typed."""
        command = self.commands().get(name)
        if command is None:
            near = difflib.get_close_matches(name, [*self.commands(), "quit"], 1)
            hint = f"did you mean {near[0]}?" if near else "help lists the commands"
            return Outcome(line, UNKNOWN, f"unknown command; {hint}")
        if not takes(command, words):
            return Outcome(line, REFUSED, f"it is typed {command.__doc__}")
        try:
            return Outcome(line, result=await command(*words))
        except (Refused, ServiceError, ScenarioError, BusError, ValueError) as error:
            return Outcome(line, REFUSED, str(error))
        except LabError as error:
            return Outcome(line, FAILED, str(error))

    def notice(self, event):
        """A listener of the journal: tells how to go on once lumd has ended its link for good."""
        if event["what"] == "connected" and event["to"] == "service":
            self.has_given_up = False
        elif is_farewell(event) and not self.has_given_up:
            self.has_given_up = True
            self.show.text("lumd makes no link any more until it is restarted (restart)")

    def succeed(self, successor):
        """Has this lab end and that one follow."""
        self.successor = successor
        self.leaving.set()

    @property
    def link(self):
        """The state of lumd's link in words."""
        return "connected" if self.lab.service.links else \
            "given up (restart)" if self.has_given_up else "no link"

    def needs_link(self):
        if not self.lab.service.links:
            raise Refused(f"there is no link{' (restart)' if self.has_given_up else ''}")

    def link_state(self):
        return {"lumd": f"running as {self.lab.lumd.pid}" if self.lab.lumd.running else "ended",
                "link": self.link, "connections so far": self.lab.service.connections}

    def status_line(self):
        """The state of everything in a few words, beginning with the most important."""
        parts = [self.lab.mode, self.link, self.lab.scenario["name"]]
        if count := len(misbehaviour.present(self.lab.ap)):
            parts.append(f"{count} fault{'s' if count > 1 else ''}")
        if self.lab.speed != 1:
            parts.append(f"{self.lab.speed:g} times faster")
        return parts

    # Steps: each raises LabError when what must follow does not come

    async def settle(self):
        await self.lab.settle(QUIET)

    async def follow(self, label, what, since, seconds, **match):
        """The event, which comes within that many seconds of lumd's; progress is shown when it
        takes its time."""
        seconds /= self.lab.speed
        waiting = asyncio.create_task(self.lab.wait(what, since, seconds + MARGIN, **match))
        passed = 0.0
        try:
            while not waiting.done():
                if passed >= PATIENT_FROM:
                    whole = f" of {seconds:.0f}" if seconds >= 1 else ""
                    self.show.progress(f"{label}: {passed:.0f}{whole} s",
                                       passed / max(seconds, TICK))
                await asyncio.wait([waiting], timeout=TICK)
                passed += TICK
        finally:
            waiting.cancel()
            self.show.end_progress()
        return waiting.result()

    async def back_again(self, since):
        """Until a lumd that was started, or lost its link, is where it was."""
        await self.follow("connecting", "connected", since, LONGEST_BACK_OFF)
        await self.settle()

    # Commands

    async def drop_link(self):
        """drop-link: close the connection; lumd comes back by itself"""
        self.needs_link()
        since = self.lab.mark()
        await self.lab.service.drop()
        await self.back_again(since)

    async def restart(self):
        """restart: end lumd and start it again"""
        since = self.lab.mark()
        status = await self.lab.stop_lumd()
        self.lab.ap.files.announce()
        await self.lab.start_lumd()
        await self.back_again(since)
        if status != 0:
            raise LabError(f"lumd ended with status {status}")

    async def show_event(self, number):
        """show N: the event of that number as a whole"""
        events = self.lab.journal.events
        if not 1 <= integer(number) <= len(events):
            raise Refused(f"there are events 1 to {len(events)}")
        event = events[integer(number) - 1]
        self.show.text(f"{event['from']} → {event['to']}  {event['what']}")
        self.show.text(json.dumps(event["data"], indent=2, ensure_ascii=False))
        return event

    async def log(self, option=f"{LOG_LINES}"):
        """log [N|-f]: the last lines of lumd's log; -f: and what it writes until Ctrl-C"""
        count = LOG_LINES if option == "-f" else within(integer(option), 1, 10**6, "log", "lines")
        lines = self.log_lines()
        shown = lines[-count:]
        for line in shown:
            self.show.fitted(line)
        while option == "-f":
            await asyncio.sleep(TICK)
            before, lines = len(lines), self.log_lines()
            for line in lines[before:]:
                self.show.fitted(line)
        return shown

    def log_lines(self):
        return [line for line in self.lab.log_lines() if LIBRARY_NOISE not in line]

    async def fault(self, *words):
        """fault [CALL MEMBER=VALUE ... | daemon NAME WHAT | clear]: let the access point fail"""
        try:
            await misbehaviour.apply(self.lab.ap, words)
        except ValueError as error:
            raise Refused(f"{error}") from error
        found = misbehaviour.present(self.lab.ap)
        self.show.text("\n".join(map(misbehaviour.line, found)) or "everything works")
        return found

    async def scenario(self, name=None, mode=None):
        """scenario [FILE|NAME [MODE]]: another lab; alone: the scenarios there are"""
        if name is None:
            self.show.text("\n".join(scenarios.names()))
            return scenarios.names()
        if mode not in (None, *URL_KEYS):
            raise Refused(f"a mode is {', '.join(URL_KEYS)}")
        scenarios.load(name)
        self.successor = (name, mode)
        return None

    async def record(self, path):
        """record FILE: this lab once more from its beginning, all that passes written there"""
        try:
            with open(path, "ab"):
                pass
        except OSError as error:
            raise Refused(f"{path}: {error.strerror}") from error
        self.successor = (self.lab.scenario, self.lab.mode, path)

    async def help(self, name=None):
        """help [COMMAND]: how commands are typed"""
        commands = self.commands()
        if name is not None and name not in commands:
            raise Refused(f"there is no command {name}")
        told = [command.__doc__ for known, command in commands.items() if name in (None, known)]
        if name is None:
            told.append("quit: end everything")
        for text in told:
            self.show.prose("  " + text)
        return told


def is_farewell(event):
    """Whether lumd gives its link up with it, until it is restarted."""
    data = event["data"] if isinstance(event["data"], dict) else {}
    return event["from"] == "lumd" and event["what"] == "unsubscribe-request" or \
        event["from"] == "portal" and data.get("service") == "internal-ipc" and \
        data.get("cmd") == "unlink"


def takes(command, words):
    """Whether a command can be called with that many words."""
    try:
        inspect.signature(command).bind(*words)
    except TypeError:
        return False
    return True


def integer(text):
    try:
        return int(text)
    except ValueError:
        raise Refused(f"{text!r} is not a number") from None


def within(number, lowest, highest, what, unit):
    """The number; Refused when it lies outside."""
    if not lowest <= number <= highest:
        raise Refused(f"{what} is {lowest} to {highest} {unit}, not {number}")
    return number


def address(text):
    if not MAC.fullmatch(text.lower()):
        raise Refused(f"{text!r} is no MAC address (such as 02:00:00:00:00:01)")
    return text.lower()
