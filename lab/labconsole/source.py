"""What a console shows: views of access points on a board.

An access point comes to the page through a `View`, whatever stands behind it: a lab, a recording, or
radios of another kind. Everything here belongs to one asyncio loop.
"""
import abc
import asyncio
import itertools
import secrets

from labtalk.journal import Journal


class View(abc.ABC):
    """One access point as the page sees it.

    `journal`: its conversation; events are only ever added. `name`: how people call it. `mode`: rrm,
    wids or portal. `is_live`: its times are of the wall clock and it goes on; otherwise they are
    seconds from its beginning and all of it is there.
    """

    is_live = True

    def __init__(self, name: str, mode: str, journal: Journal):
        self.name, self.mode, self.journal = name, mode, journal

    @abc.abstractmethod
    def state(self) -> dict:
        """Everything but the conversation, as docs/console.md has it; JSON, made anew each time."""

    @abc.abstractmethod
    def summary(self) -> dict:
        """The same in a line, for a page with many: link, subscribed, radios, clients, complaints,
        faults."""

    def forms(self) -> list[dict]:
        """What can be commanded (labconsole.forms); nothing by default."""
        return []

    async def execute(self, line: str, transcript) -> dict:
        """What became of a command, as labshow.outcome tells it. `transcript` is told meanwhile what
        a person at a terminal would see (see Transcript)."""
        raise NotImplementedError(f"{self.name} takes no commands")

    def close(self) -> None:
        """The page turns away; what was listened to is not any more."""


class Board:
    """The views that there are now. They are exchanged as a whole when a lab restarts."""

    _numbers = itertools.count(1)

    def __init__(self):
        self.views, self.title = [], ""
        self.run = secrets.token_hex(8)  # one of this process
        self.number = 0  # another one each time the views are exchanged
        self._changed = asyncio.Event()

    def present(self, views: list[View], title: str) -> None:
        """Shows these in place of those before."""
        for view in self.views:
            view.close()
        self.views, self.title, self.number = list(views), title, next(self._numbers)
        changed, self._changed = self._changed, asyncio.Event()
        changed.set()

    def clear(self, title: str) -> None:
        """Nothing is there until something is presented."""
        self.present([], title)

    async def changed(self) -> None:
        """Until the views are exchanged the next time."""
        await self._changed.wait()
