"""What the commands of every mode have in common."""
import inspect
import re

from labap.msgbus import BusError
from labap.scenario import ScenarioError
from labservice.server import ServiceError

from .process import LabError

QUIET = 0.7  # seconds without an event that end a command's output
MAC = re.compile(r"([0-9a-f]{2}:){5}[0-9a-f]{2}")


class Refused(Exception):
    """A command line that cannot be carried out."""


class Console:
    """The commands of a lab in one mode. Each is a method that sends, shows what follows, and
    checks it; its documentation begins with how it is typed."""

    def __init__(self, lab, show):
        self.lab, self.show = lab, show

    def commands(self):
        """The methods by the names under which they are typed."""
        raise NotImplementedError

    async def opening(self):
        """Until the agent is where the first command finds it."""
        await self.lab.wait("connected")
        await self.settle()

    def script(self):
        """The command lines of one full conversation."""
        raise NotImplementedError

    async def conversation(self):
        """Every line of the script, each checked: whatever goes wrong is raised."""
        for line in self.script():
            self.show.heading(line)
            name, *words = line.split()
            await self.commands()[name](*words)

    async def execute(self, name, words):
        """One command as it was typed; what is wrong with it, or went wrong, is shown."""
        command = self.commands().get(name)
        if command is None:
            self.help(name)
        elif not takes(command, words):
            self.show.text(command.__doc__)
        else:
            await self._carry_out(name, command, words)

    async def _carry_out(self, name, command, words):
        try:
            await command(*words)
        except (Refused, ServiceError, ScenarioError, BusError, ValueError) as error:
            self.show.text(f"{name}: {error}")
        except LabError as error:
            self.show.text(f"{name} failed: {error}")

    def help(self, name="help"):
        if name != "help":
            self.show.text(f"unknown command {name!r}")
        for command in self.commands().values():
            self.show.text("  " + command.__doc__)
        self.show.text("  quit: end everything")

    async def settle(self):
        await self.lab.settle(QUIET)


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
