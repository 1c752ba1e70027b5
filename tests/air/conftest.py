"""Fixtures of the tests on air: one virtual machine for all of them."""
import asyncio
import pathlib
import sys
import threading

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "lab"))

from labair.air import Air  # noqa: E402
from labair.tour import Tour  # noqa: E402

STEP_WAIT = 420.0  # seconds


class SeenTour:
    """A tour whose steps are carried out, in their order, when a test first asks for one."""

    def __init__(self):
        self._loop = asyncio.new_event_loop()
        threading.Thread(target=self._loop.run_forever, name="air", daemon=True).start()
        self._seen, self._failed = {}, None
        self.tour = self.run(self._make())

    @staticmethod
    async def _make():
        return Tour(Air(), lambda text: print(text, flush=True))

    def run(self, coroutine):
        """The result of a coroutine of the tour."""
        return asyncio.run_coroutine_threadsafe(coroutine, self._loop).result(STEP_WAIT)

    def __call__(self, wanted):
        """What the step of that name has seen."""
        for name in Tour.STEPS[:Tour.STEPS.index(wanted) + 1]:
            if name in self._seen:
                continue
            if self._failed is not None:
                pytest.fail(f"the tour came no further than {self._failed}")
            self._failed = name
            self._seen[name] = self.run(getattr(self.tour, name)())
            self._failed = None
        return self._seen[wanted]

    def close(self):
        self.run(self.tour.air.stop())
        self._loop.call_soon_threadsafe(self._loop.stop)


@pytest.fixture(scope="session")
def seen():
    """`seen("power")`: what that step of the tour has seen. `seen.tour`: the tour itself."""
    tour = SeenTour()
    yield tour
    tour.close()
