"""Many access points, each with a service of its own, on one page."""
import asyncio

from labap import fleet, scenario as scenarios
from labshow.harness import Lab
from labshow.trial import STARTING, all_of

from .transcript import Transcript


class Fleet:
    """`options`: those of ./run. `make_console(lab, show)`: the commands of a lab."""

    def __init__(self, options, scenario, mode, build, make_console):
        whole = scenarios.load(scenario)
        self.labs = [Lab(fleet.member(whole, number), mode or whole["mode"], build, options.speed,
                         lumd=options.lumd) for number in range(options.fleet)]
        self._seconds, self._make_console, self._up = options.seconds, make_console, 0

    async def run(self, page, show):
        """Until it is cancelled or its time is over; 0."""
        try:
            await self._start(page, show)
            title = f"{len(self.labs)} access points"
            page.present_labs(self.labs, [self._make_console(lab, Transcript())
                                          for lab in self.labs], title)
            show.heading(f"{title}; Ctrl-C ends them")
            await asyncio.wait([asyncio.get_running_loop().create_future()], timeout=self._seconds)
        finally:
            page.clear()
            for lab in self.labs:
                lab.journal.listeners.clear()
            await asyncio.shield(asyncio.gather(*(lab.stop() for lab in self.labs)))
        return 0

    async def _start(self, page, show):
        gate = asyncio.Semaphore(STARTING)

        async def start(lab):
            async with gate:
                await lab.start()
            self._up += 1
            text = f"{self._up} of {len(self.labs)} access points have started"
            show.progress(text, self._up / len(self.labs))
            if self._up % STARTING == 0:
                page.clear(text)

        await all_of(start(lab) for lab in self.labs)
        show.end_progress()
