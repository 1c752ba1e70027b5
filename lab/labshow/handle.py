"""A whole lab for code without an event loop: for tests and benchmarks.

`running_lab` runs a Lab on a thread of its own and gives a `LabHandle` whose calls block, with a
bounded wait and a message that shows the end of the conversation when something did not come.
"""
import asyncio
import contextlib
import threading
from typing import Any, Awaitable, Callable, Iterator

from .harness import WAIT, Lab


class LabHandle:
    """A running Lab for code without an event loop: every call runs on the lab's own thread."""

    def __init__(self, lab: Lab, loop: asyncio.AbstractEventLoop):
        self.lab, self._loop = lab, loop

    def run(self, coroutine: Awaitable, timeout: float = 120.0) -> Any:
        """The result of a coroutine of the lab."""
        return asyncio.run_coroutine_threadsafe(coroutine, self._loop).result(timeout)

    def do(self, function: Callable[[], Any]) -> Any:
        """The result of a function that touches the lab's objects."""
        async def call():
            return function()
        return self.run(call())

    def ap(self, command: str, **arguments) -> Any:
        """A command of the access point's control socket."""
        return self._command(self.lab.ap.commands(), command, arguments)

    def service(self, command: str, **arguments) -> Any:
        """A command of the service's control socket."""
        return self._command(self.lab.service.commands(), command, arguments)

    def _command(self, commands, command, arguments):
        async def call():
            result = commands[command](**arguments)
            return await result if asyncio.iscoroutine(result) else result
        return self.run(call())

    def send(self, message: dict | str, **options) -> None:
        """Sends a message to lumd from the service."""
        self.run(self.lab.service.send(message, **options))

    def mark(self) -> int:
        """A place in the conversation to wait from."""
        return self.do(self.lab.mark)

    def wait(self, what: str, since: int = 0, timeout: float = WAIT,
             predicate: Callable[[dict], bool] | None = None, **match) -> dict:
        """The first event of that kind after `since`; LabError when none comes in time."""
        return self.run(self.lab.wait(what, since, timeout, predicate, **match))

    def wait_subscribed(self, timeout: float = 30.0) -> dict:
        """The subscribe request, once its answer has been accepted."""
        return self.run(self.lab.wait_subscribed(timeout))

    def events(self, since: int = 0, **match) -> list[dict]:
        """Those after `since` whose members equal those of `match`."""
        return self.do(lambda: self.lab.journal.since(since, **match))

    def settle(self, quiet: float = 0.6, limit: float = 10.0) -> None:
        """Waits until nothing was said for `quiet` real seconds."""
        self.run(self.lab.settle(quiet, limit))

    def log_lines(self) -> list[str]:
        """What lumd printed, then its log."""
        return self.lab.log_lines()

    def set_speed(self, speed: float) -> None:
        """Of lumd's clock and of the lab's; for a lab that was not started at speed 1."""
        self.do(lambda: self.lab.clock.set_speed(speed))

    def stop_lumd(self) -> int | None:
        """lumd's exit status after SIGTERM."""
        return self.run(self.lab.stop_lumd())

    def start_lumd(self) -> None:
        """Once more, after stop_lumd()."""
        self.run(self.lab.start_lumd())


@contextlib.contextmanager
def running_lab(scenario: str | dict = "minimal", start_lumd: bool = True,
                **options) -> Iterator[LabHandle]:
    """A LabHandle for the duration of a with statement; everything is gone afterwards. `options`:
    those of Lab."""
    lab = None
    loop = asyncio.new_event_loop()
    thread = threading.Thread(target=loop.run_forever, name="lab", daemon=True)
    thread.start()

    async def make():
        return Lab(scenario, **options)

    try:
        lab = asyncio.run_coroutine_threadsafe(make(), loop).result(10)
        handle = LabHandle(lab, loop)
        handle.run(lab.start(start_lumd))
        yield handle
    finally:
        if lab is not None:
            asyncio.run_coroutine_threadsafe(lab.stop(), loop).result(60)
        loop.call_soon_threadsafe(loop.stop)
        thread.join(10)
        loop.close()
