"""What one page is sent, at the pace at which it takes it.

Events are sent in order and acknowledged; no more than WINDOW of them are on their way. A page that
falls further behind than LIMIT is told how many of each kind it will not be sent, and goes on with
the newest: it never holds up the lab, nor costs it memory, and none is lost silently. State is not
queued at all: what is sent is that of the moment.
"""
import asyncio
import collections
import json

from .brief import brief, kind

WINDOW = 4000      # events on their way to a page
BATCH = 500        # events of one message
LIMIT = 20000      # events that a page may be behind
BACKLOG = 2000     # events of the past that a page begins with
EVENT_PAUSE = 0.05  # seconds between two messages of events
STATE_PAUSE = 0.25  # seconds between two states
SUMMARY_PAUSE = 1.0  # seconds between two looks at all access points of a fleet


class Feed:
    """Of one page and one view. `send(object)` waits while the page takes nothing. `since`: the last
    event that the page has, None when it has none of this view."""

    def __init__(self, board, view, send, since=None):
        self._board, self._view, self._send = board, view, send
        newest = view.journal.count
        self._sent = max(newest - BACKLOG, 0) if since is None else min(max(since, 0), newest)
        self._acknowledged = self._sent
        self._state, self._state_is_taken = None, True
        self._summaries = {}
        self._arrival = asyncio.Event()
        view.journal.listen(self._notice)

    def close(self):
        self._view.journal.leave(self._notice)

    @property
    def first(self):
        """The number before the first event that the page will be sent."""
        return self._sent

    def acknowledge(self, number, has_state):
        """The page has all events up to that number, and the state last sent."""
        self._acknowledged = max(self._acknowledged, min(int(number), self._sent))
        self._state_is_taken = self._state_is_taken or bool(has_state)
        self._arrival.set()

    def _notice(self, _event):
        self._arrival.set()

    async def run(self):
        """Until it is cancelled."""
        await asyncio.gather(self._send_events(), self._send_states(), self._send_summaries())

    async def _send_events(self):
        journal = self._view.journal
        while True:
            self._arrival.clear()
            if journal.count - self._sent > LIMIT:
                await self._skip(journal.count - BATCH)
            room = min(WINDOW - (self._sent - self._acknowledged), BATCH)
            batch = journal.between(self._sent, self._sent + room) if room > 0 else []
            if not batch:
                await self._arrival.wait()
                continue
            self._sent = batch[-1]["n"]
            await self._send({"type": "events", "events": [brief(event) for event in batch]})
            if len(batch) < BATCH:
                await asyncio.sleep(EVENT_PAUSE)

    async def _skip(self, number):
        """Goes on behind event `number`, telling what is left out."""
        left_out = self._view.journal.between(self._sent, number)
        first, self._sent = self._sent + 1, number
        await self._send({"type": "skipped", "first": first, "last": number,
                          "kinds": collections.Counter(map(kind, left_out))})

    async def _send_states(self):
        while True:
            if self._state_is_taken:
                text = json.dumps(self._view.state(), ensure_ascii=False)
                if text != self._state:
                    self._state, self._state_is_taken = text, False
                    await self._send({"type": "state", "state": json.loads(text)})
            await asyncio.sleep(STATE_PAUSE)

    async def _send_summaries(self):
        """Those that have changed, of a board with more than one view."""
        while len(self._board.views) > 1:
            changed = {}
            for number, view in enumerate(self._board.views):
                summary = view.summary()
                if self._summaries.get(number) != summary:
                    changed[number] = self._summaries[number] = summary
            if changed:
                await self._send({"type": "summaries", "summaries": changed})
            await asyncio.sleep(SUMMARY_PAUSE)
