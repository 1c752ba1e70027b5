"""The console as ./run starts it: a board, its server, and what is put on it."""
import asyncio
import os
import pathlib

from labshow.process import LabError

from .guard import kept_token, new_token
from .labview import LabView
from .server import Server
from .source import Board
from .tape import TapeView

NOTHING_YET = "no lab is running"


def token_path() -> pathlib.Path:
    state = os.environ.get("XDG_STATE_HOME") or pathlib.Path.home() / ".local" / "state"
    return pathlib.Path(state) / "lumd-lab" / "console-token"


class Desk:
    """An asynchronous context: within it the page can be opened. `options`: those of ./run."""

    def __init__(self, options, show):
        self._show = show
        self.board = Board()
        token = kept_token(token_path()) if options.port else new_token()
        self.server = Server(self.board, token, options.port or 0)

    async def __aenter__(self):
        try:
            await self.server.start()
        except OSError as error:
            raise LabError(f"port {self.server.port}: {error.strerror}") from error
        self.board.clear(NOTHING_YET)
        self._show.heading(f"the console is at {self.server.url}")
        return self

    async def __aexit__(self, *_):
        await self.server.stop()

    def present(self, views, title):
        self.board.present(views, title)

    def present_lab(self, lab, console):
        """One lab with the commands of its prompt."""
        self.present([LabView(lab, console)], lab.scenario["name"])

    def present_labs(self, labs, consoles, title):
        """Several, by their serial numbers."""
        self.present([LabView(lab, console, lab.scenario["factory"]["serial"])
                      for lab, console in zip(labs, consoles)], title)

    async def play(self, path):
        """A recording until the program is ended."""
        self.board.present([TapeView(path)], pathlib.Path(path).name)
        self._show.text("Ctrl-C ends it")
        await asyncio.get_running_loop().create_future()

    def clear(self, text=NOTHING_YET):
        self.board.clear(text)
