"""Commands from standard input."""
import asyncio
import os
import shlex
import sys
import threading

from .process import LabError

READ_SIZE = 65536
AS_IT_STANDS = "send"  # its JSON text has quotes and blanks of its own


def read_lines(loop, queue):
    """Standard input, line by line, from a thread that nobody has to wait for."""
    pending = b""
    while True:
        try:
            piece = os.read(0, READ_SIZE)
        except OSError:
            piece = b""
        pending += piece
        *lines, pending = pending.split(b"\n")
        if not piece and pending:
            lines.append(pending)
        try:
            for line in lines:
                loop.call_soon_threadsafe(queue.put_nowait, line.decode(errors="replace"))
            if not piece:
                loop.call_soon_threadsafe(queue.put_nowait, None)
                return
        except RuntimeError:
            return  # the loop is gone


def split(line):
    """The words of a command line; ValueError tells of a quote that is not closed."""
    first = line.split(None, 1)
    return [word.strip() for word in first] if first[:1] == [AS_IT_STANDS] else shlex.split(line)


class Prompt:
    """Takes command lines until quit, the end of the input, or the end of lumd."""

    def __init__(self, show):
        self.show = show
        self._running = None  # the command under way, unless it has been told to end

    def interrupt(self):
        """Whether there is a command under way that has not been told to end; it is told now."""
        command, self._running = self._running, None
        return command is not None and command.cancel()

    async def interact(self, lab, console):
        queue = asyncio.Queue()
        threading.Thread(target=read_lines, args=(asyncio.get_running_loop(), queue),
                         daemon=True).start()
        self.show.text("\nhelp lists the commands, quit ends")
        ended = asyncio.ensure_future(lab.lumd.wait(timeout=None))
        while True:
            if self.show.colour and sys.stdin.isatty():
                print("lab> ", end="", flush=True)
            typed = asyncio.ensure_future(queue.get())
            await asyncio.wait([typed, ended], return_when=asyncio.FIRST_COMPLETED)
            if ended.done():
                raise LabError(lab.explain("lumd has ended"))
            if not await self.carry_out(typed.result(), console):
                return

    async def carry_out(self, line, console):
        """Whether another line may follow this one; None is the end of all lines."""
        if line is None:
            return False
        try:
            words = split(line)
        except ValueError as error:
            self.show.text(f"{error}")
            return True
        if words and words[0] in ("quit", "exit"):
            return False
        if words:
            if not sys.stdin.isatty():
                self.show.heading(line.strip())
            await self._execute(console, words[0], words[1:])
        return True

    async def _execute(self, console, name, words):
        self._running = asyncio.ensure_future(console.execute(name, words))
        try:
            await self._running
        except asyncio.CancelledError:
            if asyncio.current_task().cancelling():
                raise  # not the command alone
            self.show.text(f"{name}: not waited for any longer; lumd does what it was told")
        finally:
            self._running = None
