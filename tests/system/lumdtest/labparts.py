"""Parts of the lab without the rest of it, in a time of their own."""
import json

from labap import clock
from labap import scenario as scenarios


class FakeClock(clock.LabClock):
    """Time that passes when the test says so."""

    def __init__(self):
        super().__init__()
        self.time = 1000.0

    def now(self):
        return self.time

    async def sleep(self, seconds):
        self.time += seconds


def minimal(**more):
    given = json.loads((scenarios.FOLDER / "minimal.json").read_text(encoding="utf-8"))
    return scenarios.complete({**given, **more})
