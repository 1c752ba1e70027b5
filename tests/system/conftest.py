"""Fixtures of the system tests: a broker, a service and an agent, all private to the test."""
import pathlib
import shutil
import signal
import sys
import tempfile

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "lab"))

from labap.accesspoint import AccessPoint  # noqa: E402
from lumdtest.agent import Agent  # noqa: E402
from lumdtest.lab import Labs  # noqa: E402
from lumdtest.labparts import FakeClock, minimal  # noqa: E402
from lumdtest.msgbus import Broker  # noqa: E402
from lumdtest.programs import Programs  # noqa: E402
from lumdtest.service import Service  # noqa: E402


def pytest_configure(config):
    # nohup and background jobs of a shell ignore these, and every program started from there with
    # them.
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT):
        if signal.getsignal(number) == signal.SIG_IGN:
            signal.signal(number, signal.SIG_DFL)
    config.addinivalue_line(
        "markers", "threads: exercises several threads of the agent; also run under "
                   "ThreadSanitizer")
    config.addinivalue_line(
        "markers", "soak: takes minutes; runs with --soak only (scripts/soak)")
    config.addinivalue_line(
        "markers", "faults: every call fails once; runs with --faults only (scripts/faults)")


def pytest_addoption(parser):
    parser.addoption("--soak", action="store_true", help="also run what takes minutes")
    parser.addoption("--faults", action="store_true", help="also let every call fail")


def pytest_collection_modifyitems(config, items):
    left_out = {mark for mark in ("soak", "faults") if not config.getoption(f"--{mark}")}
    long = [item for item in items if left_out & {mark.name for mark in item.iter_markers()}]
    config.hook.pytest_deselected(items=long)
    items[:] = [item for item in items if item not in long]


@pytest.fixture(scope="session")
def programs():
    return Programs()


@pytest.fixture
def folder():
    """A short path: a socket's may have 107 characters."""
    path = pathlib.Path(tempfile.mkdtemp(prefix="lumd-", dir="/tmp"))
    yield path
    shutil.rmtree(path)


@pytest.fixture
def ap(tmp_path):
    """A virtual access point that has not joined a bus and whose time stands still."""
    return AccessPoint(minimal(), tmp_path / "root", tmp_path / "no-bus", clock=FakeClock())


@pytest.fixture
def start_lab():
    """Starts labs: an agent between a virtual access point and a service."""
    labs = Labs()
    yield labs.start
    labs.stop()


@pytest.fixture
def broker(programs, folder):
    broker = Broker(programs.binary("msgbusd"), folder / "bus")
    broker.start()
    yield broker
    broker.stop()


@pytest.fixture
def service():
    service = Service()
    service.start()
    yield service
    service.stop()


@pytest.fixture
def make_agent(programs, folder):
    """Starts agents; each must end with status 0, which it does only without any finding of the
    sanitizer it was built with, leaks included."""
    agents = []

    def make(port, **options):
        place = folder / f"agent{len(agents)}"
        place.mkdir()
        agents.append(Agent(programs, place, folder / "bus", port, **options))
        return agents[-1].start()

    yield make
    for agent in agents:
        agent.stop()


@pytest.fixture
def portal(broker):
    """The module on the bus that the agent relays to."""
    with broker.client(module=3) as client:
        yield client


@pytest.fixture
def linked(broker, portal, service, make_agent):
    """An agent in portal mode with its link up and its place on the bus taken: (agent, link)."""
    agent = make_agent(service.port, log_level=1)
    link = service.accept()
    probe(portal, link)
    return agent, link


def probe(portal, link):
    """Returns once messages pass from the bus to the service."""
    from lumdtest.msgbus import LUMD, frame
    from lumdtest.waiting import wait_until

    def passes():
        portal.send_raw(frame(LUMD, b"probe"))
        return link.poll(0.2) == "probe"

    wait_until(passes, "the agent relays from the bus")
    while link.poll(0.3) is not None:  # probes that were late
        pass
