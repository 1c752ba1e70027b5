"""Command lines from standard input as it comes: from a pipe, or a terminal without an editor."""
import asyncio
import os
import sys
import threading

READ_SIZE = 65536


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


class Lines:
    """Lines in the order in which they were typed."""

    def __init__(self, show):
        self.show, self._queue = show, None
        self.stays = sys.stdin.isatty()  # whether a line is still to be seen when it is carried out

    async def __aenter__(self):
        return self

    async def __aexit__(self, *_):
        pass

    async def next(self):
        """The next line; None at the end of the input."""
        if self._queue is None:
            self._queue = asyncio.Queue()
            threading.Thread(target=read_lines, daemon=True,
                             args=(asyncio.get_running_loop(), self._queue)).start()
        if self.show.terminal and sys.stdin.isatty():
            print("lab> ", end="", flush=True)
        return await self._queue.get()
