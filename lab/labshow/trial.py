"""./run --service: access points in front of somebody else's service, and a verdict on it."""
import asyncio
import json
import sys

from labap import fleet, scenario as scenarios
from labtalk import contract, journal
from labtalk.quiet import NOISE

from .foreign_console import ForeignConsole
from .harness import Lab
from .process import LabError
from .verdict import Verdict
from .visit import arrive, visit

VIOLATED_STATUS = 3
STARTING = 4  # access points that are started at the same time
TOLD_OF_A_FLEET = frozenset({"connected", "disconnected", "subscribe-response", "unreachable",
                             "refused", "VIOLATION", "ADVICE"})
FLEET_WIDTH = 110  # of an event where no terminal limits it
KEPT_EVENTS = 1000  # of a member that may run for weeks
MEMBERS_LOG = "log_level=7"


class Trial:
    """`options`: those of ./run. `page`: what shows it in a browser, None for nothing. Its end,
    whatever it is, leaves a verdict."""

    def __init__(self, options, mode, scenario, build, show, prompt, page=None):
        self.options, self.show, self.prompt, self.page = options, show, prompt, page
        whole = scenarios.load(scenario)
        self._is_member = options.member is not None
        numbers = [options.member] if self._is_member else range(options.fleet)
        self.labs = [Lab(fleet.member(whole, number), mode or whole["mode"], build, options.speed,
                         [MEMBERS_LOG] if self._is_member else (),
                         endpoint=options.service, lumd=options.lumd,
                         record=options.record) for number in numbers]
        if self._is_member:
            self.labs[0].journal.keep(KEPT_EVENTS)
        self.verdict = Verdict(self.labs, {
            "service": str(options.service), "mode": self.labs[0].mode, "scenario": whole["name"],
            "speed": options.speed})
        self._silent = False

    async def run(self):
        """The exit status: 0 held, 3 violated. LabError when it cannot be told."""
        self._announce()
        if self.options.report:
            self.verdict.write(self.options.report)  # a place that cannot be written shows now
        cancelled = False
        try:
            await self._start()
            await self._work()
        except asyncio.CancelledError:
            cancelled = True
            asyncio.current_task().uncancel()
        except LabError as error:
            self.verdict.trouble = str(error)
        await asyncio.shield(self._end())
        return self._status(cancelled)

    def _announce(self):
        count = f"{len(self.labs)} access points" if len(self.labs) > 1 else "an access point"
        self.show.heading(f"{count} in front of {self.options.service}")
        if not contract.IS_COMPLETE:
            self.show.heading("python3-jsonschema is not installed: the rule \"members\" is not "
                              "looked at")

    async def _start(self):
        gate = asyncio.Semaphore(STARTING)

        async def start(number, lab):
            async with gate:
                lab.journal.listen(self._printer(number))
                await lab.start()

        await all_of(start(number, lab) for number, lab in enumerate(self.labs))
        self.consoles = [ForeignConsole(lab, self.show) for lab in self.labs]
        if self.page is not None:
            self.page.present_labs(self.labs, self.consoles, str(self.options.service))

    def _printer(self, number):
        options = self.options
        hidden = frozenset() if options.verbose else NOISE

        def tell(event):
            if self._silent:
                return
            if len(self.labs) == 1 and not self._is_member:
                if event["what"] not in hidden:
                    self.show.event(event)
            elif options.json:
                print(json.dumps({"ap": number, **event}, ensure_ascii=False), flush=True)
            elif options.verbose or event["what"] in TOLD_OF_A_FLEET:
                width = (self.show.width or FLEET_WIDTH) - len(f"{number:3} ")
                self.show.text(f"{number:3} {journal.line(event, width=width)}")

        return tell

    async def _work(self):
        if self.options.once:
            await all_of(visit(lab) for lab in self.labs)
            return
        if not self._is_member:  # which waits for a service like an access point
            await all_of(arrive(lab) for lab in self.labs)
        deaths = [asyncio.ensure_future(lab.lumd.wait(timeout=None)) for lab in self.labs]
        try:
            if self.options.seconds or len(self.labs) > 1 or self._is_member:
                await asyncio.wait(deaths, timeout=self.options.seconds,
                                   return_when=asyncio.FIRST_COMPLETED)
                self._none_may_be_dead(deaths)
            else:
                await self._take_commands(self.labs[0], self.consoles[0])
        finally:
            for death in deaths:
                death.cancel()

    async def _take_commands(self, lab, console):
        lab.journal.listen(console.notice)
        async with self.prompt:
            await self.prompt.interact(lab, console)

    def _none_may_be_dead(self, deaths):
        for lab, death in zip(self.labs, deaths):
            if death.done():
                raise LabError(lab.explain("lumd has ended"))

    async def _end(self):
        self._silent = True  # the end of the labs is of no interest
        if self.page is not None:
            self.page.clear()
        for lab in self.labs:
            if lab.service is not None:
                lab.service.rules.link_lost()
        statuses = await asyncio.gather(*(lab.stop() for lab in self.labs))
        dead = [status for status in statuses if status not in (0, None)]
        if dead and self.verdict.trouble is None:
            self.verdict.trouble = f"lumd ended with status {dead[0]}"
        complaints = [complaint for lab in self.labs for complaint in lab.checker.found]
        if complaints and self.verdict.trouble is None:
            self.verdict.trouble = f"lumd said what the schemas do not have: {complaints[0]}"
        if self.options.report:
            self.verdict.write(self.options.report)

    def _status(self, cancelled):
        self.verdict.show(self.show)
        if self.verdict.trouble is not None and self.verdict.held:
            raise LabError(self.verdict.trouble)
        if self.verdict.trouble is not None:
            print(f"run: {self.verdict.trouble}", file=sys.stderr)
            return VIOLATED_STATUS
        if cancelled and (self.options.once or self.options.seconds):
            raise asyncio.CancelledError  # it was not carried out to its end
        self.show.heading("all that was seen was held" if self.verdict.held else
                          "the service does not do all that it must")
        return 0 if self.verdict.held else VIOLATED_STATUS


async def all_of(coroutines):
    """All of them side by side; the first that fails ends the others."""
    tasks = [asyncio.ensure_future(coroutine) for coroutine in coroutines]
    try:
        await asyncio.gather(*tasks)
    finally:
        for task in tasks:
            task.cancel()
        await asyncio.gather(*tasks, return_exceptions=True)
