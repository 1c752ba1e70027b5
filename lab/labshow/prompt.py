"""Takes commands until there are no more."""
import asyncio
import shlex

from . import editor
from .lines import Lines
from .outcome import INTERRUPTED, REFUSED, Outcome
from .process import LabError

AS_IT_STANDS = "send"  # its JSON text has quotes and blanks of its own
INTERRUPT = "not waited for any longer; lumd does what it was told"


def split(line):
    """The words of a command line; ValueError tells of a quote that is not closed."""
    first = line.split(None, 1)
    return [word.strip() for word in first] if first[:1] == [AS_IT_STANDS] else shlex.split(line)


class Prompt:
    """Takes command lines until quit, the end of the input, or the end of lumd. An asynchronous
    context: within it the terminal is the prompt's. `stays`: the end of the input ends nothing,
    because others give commands too."""

    def __init__(self, show, stays=False):
        self.show, self._stays = show, stays
        self.failed = 0       # commands that are not done
        self.console = None   # of the lab that there is now
        self._running = None  # the command under way, unless it has been told to end
        self._line = ""       # as it was typed
        self._lines = None

    async def __aenter__(self):
        if editor.available(self.show):
            self._lines = editor.Editor(self.show, self._choices, self._state,
                                        lambda: self._running is not None)
        else:
            self._lines = Lines(self.show)
        await self._lines.__aenter__()
        return self

    async def __aexit__(self, *error):
        await self._lines.__aexit__(*error)

    def _choices(self, words):
        return self.console.choices(words) if self.console else []

    def _state(self):
        """What is under way, or how everything is; for the line at the bottom."""
        if self._running is not None:
            return f" {self.show.busy or self._line} Ctrl-C ends it"
        return " " + " │ ".join(self.console.status_line() if self.console else ["starting"])

    def interrupt(self):
        """Whether there is a command under way that has not been told to end; it is told now."""
        command, self._running = self._running, None
        return command is not None and command.cancel()

    async def interact(self, lab, console):
        """Commands for this lab; the name of the scenario that is wanted next, None for none."""
        self.console = console
        self.show.text("\nhelp lists the commands, quit ends")
        try:
            while console.successor is None:
                if not await self.carry_out(await self._next_line(lab, console), console):
                    break
            return console.successor
        finally:
            self.console = None

    async def _next_line(self, lab, console):
        """An empty one when somebody else has this lab end."""
        typed = asyncio.ensure_future(self._lines.next())
        ended = asyncio.ensure_future(lab.lumd.wait(timeout=None))
        leaving = asyncio.ensure_future(console.leaving.wait())
        try:
            await asyncio.wait([typed, ended, leaving], return_when=asyncio.FIRST_COMPLETED)
            if ended.done():
                raise LabError(lab.explain("lumd has ended"))
            if typed.done() and typed.result() is None and self._stays:
                await asyncio.wait([ended, leaving], return_when=asyncio.FIRST_COMPLETED)
                return ""
            return typed.result() if typed.done() else ""
        finally:
            for waiting in (typed, ended, leaving):
                waiting.cancel()

    async def carry_out(self, line, console):
        """Whether another line may follow this one; None is the end of all lines."""
        if line is None or line.split()[:1] in (["quit"], ["exit"]):
            return False
        if line.strip():
            outcome = await self._outcome(line.strip(), console)
            self.failed += not outcome.is_done
            self.show.outcome(outcome)
        return True

    async def _outcome(self, line, console):
        try:
            name, *words = split(line)
        except ValueError as error:
            return Outcome(line, REFUSED, f"{error}")
        if self._lines is None or not self._lines.stays:
            self.show.heading(line)
        return await self._execute(console, line, name, words)

    async def _execute(self, console, line, name, words):
        self._line = line
        self._running = asyncio.ensure_future(console.execute(line, name, words))
        try:
            return await self._running
        except asyncio.CancelledError:
            if asyncio.current_task().cancelling():
                raise  # not the command alone
            return Outcome(line, INTERRUPTED, INTERRUPT)
        finally:
            self._running = None
