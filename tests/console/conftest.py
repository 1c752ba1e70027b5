"""Fixtures of the console's tests: a headless browser, labs on pages, and consoles of views that a
test plays itself."""
import asyncio
import contextlib
import pathlib
import signal
import sys
import threading

import pytest

TREE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "lab"))

from consoletest.browser import Browser  # noqa: E402
from labconsole.desk import NOTHING_YET  # noqa: E402
from labconsole.labview import LabView  # noqa: E402
from labconsole.server import Server  # noqa: E402
from labconsole.source import Board  # noqa: E402
from labshow.handle import running_lab  # noqa: E402
from labshow.portal_console import PortalConsole  # noqa: E402
from labshow.rrm_console import RrmConsole  # noqa: E402
from labshow.show import Show  # noqa: E402
from labshow.wids_console import WidsConsole  # noqa: E402

CONSOLES = {"rrm": RrmConsole, "wids": WidsConsole, "portal": PortalConsole}
SPEED = 10  # times faster than real time, where a test does not say otherwise


def pytest_configure(config):
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT):
        if signal.getsignal(number) == signal.SIG_IGN:
            signal.signal(number, signal.SIG_DFL)


def pytest_addoption(parser):
    parser.addoption("--images", metavar="FOLDER", help="write screenshots of the views there")


@pytest.fixture(scope="session")
def chromium():
    """One browser for all tests of this process; each test takes a page of it."""
    browser = Browser()
    yield browser
    browser.quit()


@pytest.fixture
def page(chromium):
    """An empty page at the width of a desk."""
    chromium.fresh()
    yield chromium
    chromium.complain_of_errors()


class LiveConsole:
    """A console whose server runs on the loop `run` gives coroutines to."""

    def __init__(self, run, port=0, token="token"):
        self.run, self.board = run, Board()
        self.server = Server(self.board, token, port)

    @property
    def url(self):
        return self.server.url

    def start(self):
        self.run(self.server.start())

    def stop(self):
        self.run(self.server.stop())

    def present(self, views, title):
        async def put():
            self.board.present(views, title)
        self.run(put())

    def clear(self):
        self.present([], NOTHING_YET)


@contextlib.contextmanager
def lab_on_a_page(scenario="office", commands=None, **options):
    """(LabHandle, LiveConsole) of a lab that is subscribed, or connected where there is no
    subscription. `commands`: the class of its console, by default that of the mode."""
    with running_lab(scenario, **{"speed": SPEED, **options}) as handle:
        if handle.lab.mode == "rrm":
            handle.wait_subscribed()
        handle.wait("connected")
        handle.settle()
        commands = commands or CONSOLES[handle.lab.mode]
        console = LiveConsole(handle.run)
        console.start()
        try:
            async def view():
                return LabView(handle.lab, commands(handle.lab, Show(machine=True)))
            console.view = handle.run(view())
            console.present([console.view], handle.lab.scenario["name"])
            yield handle, console
        finally:
            console.stop()


@pytest.fixture(scope="module")
def office():
    """The office for all tests of a module that change nothing others look at."""
    with lab_on_a_page() as both:
        yield both


@pytest.fixture
def own_office():
    with lab_on_a_page() as both:
        yield both


@pytest.fixture
def played():
    """A console on a loop of its own, with nothing presented."""
    loop = asyncio.new_event_loop()
    thread = threading.Thread(target=loop.run_forever, daemon=True)
    thread.start()

    def run(coroutine, timeout=60.0):
        return asyncio.run_coroutine_threadsafe(coroutine, loop).result(timeout)

    console = LiveConsole(run)
    console.loop = loop
    console.start()
    yield console
    console.stop()
    loop.call_soon_threadsafe(loop.stop)
    thread.join(10)
    loop.close()
