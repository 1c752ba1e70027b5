"""A whole lab for code without an event loop: for tests and benchmarks.

`running_lab` runs a Lab on a thread of its own and gives a `LabHandle` whose calls block, with a
bounded wait and a message that shows the end of the conversation when something did not come.
"""
import asyncio
import contextlib
import threading

from .harness import WAIT, Lab


class LabHandle:
    """A running Lab for code without an event loop: every call runs on the lab's own thread."""

    def __init__(self, lab, loop):
        self.lab, self._loop = lab, loop

    def run(self, coroutine, timeout=120.0):
        """The result of a coroutine of the lab."""
        return asyncio.run_coroutine_threadsafe(coroutine, self._loop).result(timeout)

    def do(self, function):
        """The result of a function that touches the lab's objects."""
        async def call():
            return function()
        return self.run(call())

    def ap(self, command, **arguments):
        """A command of the access point's control socket."""
        return self._command(self.lab.ap.commands(), command, arguments)

    def service(self, command, **arguments):
        """A command of the service's control socket."""
        return self._command(self.lab.service.commands(), command, arguments)

    def _command(self, commands, command, arguments):
        async def call():
            result = commands[command](**arguments)
            return await result if asyncio.iscoroutine(result) else result
        return self.run(call())

    def send(self, message, **options):
        """Sends a message to lumd from the service."""
        self.run(self.lab.service.send(message, **options))

    def mark(self):
        return self.do(self.lab.mark)

    def wait(self, what, since=0, timeout=WAIT, predicate=None, **match):
        return self.run(self.lab.wait(what, since, timeout, predicate, **match))

    def wait_subscribed(self, timeout=30.0):
        return self.run(self.lab.wait_subscribed(timeout))

    def events(self, since=0, **match):
        return self.do(lambda: self.lab.journal.since(since, **match))

    def settle(self, quiet=0.6, limit=10.0):
        self.run(self.lab.settle(quiet, limit))

    def log_lines(self):
        return self.lab.log_lines()

    def set_speed(self, speed):
        """Of lumd's clock and of the lab's; for a lab that was not started at speed 1."""
        self.do(lambda: self.lab.clock.set_speed(speed))

    def stop_lumd(self):
        """lumd's exit status after SIGTERM."""
        return self.run(self.lab.stop_lumd())

    def start_lumd(self):
        self.run(self.lab.start_lumd())


@contextlib.contextmanager
def running_lab(scenario="minimal", start_lumd=True, **options):
    """A LabHandle for the duration of a with statement; everything is gone afterwards."""
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
