"""One page's side of the websocket: what it opens, asks and commands.

The page sends {"open": number of a view, "board", "since"}, {"ack": event, "state": whether it has
the state}, and requests with an "id", each of which is answered with {"type": "answer", "id", ...}.
"""
import asyncio
import contextlib
import json

from labshow.outcome import FAILED, INTERRUPTED, Outcome

from . import explain
from .brief import brief
from .feed import Feed
from .transcript import Transcript

PAGE_OF_EVENTS = 500  # that are sent when somebody scrolls back
MOST_REQUESTS = 8     # of one page at the same time


class Session:
    """`send(object)` of one page; it waits while the page takes nothing."""

    def __init__(self, board, send):
        self._board, self._raw_send = board, send
        self._sending = asyncio.Lock()
        self._feed = self._feeding = self._view = self._command = None
        self._requests = set()
        self._asks = {"event": self._event, "earlier": self._earlier, "forms": self._forms,
                      "command": self._carry_out, "interrupt": self._interrupt}

    async def run(self):
        """Tells of each board that there is, until it is cancelled."""
        while True:
            changed = asyncio.ensure_future(self._board.changed())
            await self._leave()
            views = [{"name": view.name, "mode": view.mode, "live": view.is_live}
                     for view in self._board.views]
            await self._send({"type": "board", "run": self._board.run,
                              "board": self._board.number, "title": self._board.title,
                              "views": views})
            try:
                await changed
            finally:
                changed.cancel()

    def close(self):
        """The page is gone."""
        for task in (self._feeding, self._command, *self._requests):
            if task is not None:
                task.cancel()
        if self._feed is not None:
            self._feed.close()

    async def _send(self, message):
        async with self._sending:
            await self._raw_send(message)

    async def _leave(self):
        if self._feeding is not None:
            self._feeding.cancel()
            await asyncio.gather(self._feeding, return_exceptions=True)
            self._feed.close()
            self._feed = self._feeding = self._view = None

    async def take(self, text):
        """One message of the page; what is none is left alone."""
        try:
            message = json.loads(text)
        except ValueError:
            return
        if not isinstance(message, dict):
            return
        with contextlib.suppress(ValueError, TypeError, KeyError, IndexError):
            if "ack" in message and self._feed is not None:
                self._feed.acknowledge(message["ack"], message.get("state"))
            elif "open" in message:
                await self._open(message["open"], message.get("board"), message.get("since"))
            elif message.get("ask") in self._asks:
                self._start_request(message)

    async def _open(self, number, board, since):
        if board != self._board.number:
            return  # it will hear of the other one
        view = self._board.views[int(number)]
        await self._leave()
        self._view = view
        self._feed = Feed(self._board, view, self._send, since)
        await self._send({"type": "opened", "view": number, "first": self._feed.first + 1})
        self._feeding = asyncio.ensure_future(self._feed.run())

    def _start_request(self, message):
        if len(self._requests) >= MOST_REQUESTS:
            return
        task = asyncio.ensure_future(self._answer(message))
        self._requests.add(task)
        task.add_done_callback(self._requests.discard)

    async def _answer(self, message):
        try:
            answer = await self._asks[message["ask"]](message) if self._view is not None \
                else {"error": "no access point is open"}
        except (KeyError, TypeError, ValueError, IndexError) as error:
            answer = {"error": f"not understood: {error}"}
        await self._send({"type": "answer", "id": message.get("id"), **answer})

    async def _event(self, message):
        number = int(message["number"])
        found = self._view.journal.between(number - 1, number)
        if not found:
            return {"error": f"event {number} is not kept"}
        return {"event": explain.opened(found[0], self._view.mode)}

    async def _earlier(self, message):
        before = max(int(message["before"]), 1)
        first = max(before - 1 - PAGE_OF_EVENTS, 0)
        return {"events": [brief(event)
                           for event in self._view.journal.between(first, before - 1)]}

    async def _forms(self, _message):
        return {"forms": self._view.forms()}

    async def _interrupt(self, _message):
        return {"interrupted": self._command is not None and self._command.cancel()}

    async def _carry_out(self, message):
        """A command line, one after the other; what was said around it is told by numbers."""
        line = str(message["line"])
        if self._command is not None:
            return {"outcome": Outcome(line, FAILED, "another command is under way").as_json()}
        view, since = self._view, self._view.journal.count
        transcript = Transcript(lambda text, share: self._progress(message, text, share))
        self._command = asyncio.ensure_future(view.execute(line, transcript))
        try:
            outcome = await self._command
        except asyncio.CancelledError:
            if asyncio.current_task().cancelling():
                raise
            outcome = Outcome(line, INTERRUPTED, "not waited for any longer; lumd does what it "
                                                 "was told")
        finally:
            self._command = None
        said = [brief(event) for event in view.journal.between(since, view.journal.count)]
        return {"outcome": outcome.as_json(), "lines": transcript.lines,
                "said": [event for event in said if event[8] != "reads"][:PAGE_OF_EVENTS]}

    def _progress(self, message, text, share):
        task = asyncio.ensure_future(self._send({"type": "progress", "id": message.get("id"),
                                                 "text": text, "share": share}))
        self._requests.add(task)
        task.add_done_callback(self._requests.discard)
