"""What an operator is told of a link that cannot be made, or ends: over real sockets, at the level
that the package ships."""
import re

import pytest

from lumdtest.service import (ScriptedServer, Service, closing, full_port, refusing, unused_port,
                              upgrading)
from lumdtest.waiting import wait_until

FAST = 30  # minutes of the agent's time pass in seconds
# Seconds of the agent's time that the library gives a handshake are five.
QUICK = 4
# An hour passes in seconds; a machine that stalls for a fifth of one lets a link die.
HOURLY = 300
SHIPPED_LEVEL = 3
LINE = re.compile(r" LUMD\[\d+\] (?:warning: websock-roaming->No link to \S+: "
                  r"|info: websock-roaming->Link to \S+ is )(.*)")
BROKEN = "the connection broke off in the handshake"
REFUSED = "the connection is refused"


def told(agent):
    """The causes in their order, and "up again"; there is no other line."""
    lines = agent.log().splitlines()
    found = [LINE.search(line) for line in lines]
    assert all(found), lines
    return [match[1] for match in found]


def wait_told(agent, *causes):
    wait_until(lambda: len(told(agent)) >= len(causes), f"{causes}, and not {told(agent)}")
    assert told(agent)[:len(causes)] == list(causes)


@pytest.fixture
def agent_at(broker, make_agent):
    def make(port, speed=FAST, **options):
        return make_agent(port, speed=speed, log_level=SHIPPED_LEVEL, **options)
    return make


@pytest.fixture
def scripted():
    """The port of a service with these answers."""
    servers = []

    def start(*answers):
        servers.append(ScriptedServer(answers))
        return servers[-1].port
    yield start
    for server in servers:
        server.stop()


def test_each_answer_that_is_no_handshake_is_told_once(agent_at, scripted):
    port = scripted(refusing(404), refusing(404), refusing(503), b"", b"SSH-2.0\r\n\r\n",
                    upgrading(subprotocol="chat"), upgrading(key="AAAA"), refusing(404))
    wait_told(agent_at(port, speed=QUICK), "the service answers with HTTP status 404",
              "the service answers with HTTP status 503", BROKEN,
              "the service does not take the subprotocol websock-roaming",
              "no websocket handshake: HS: Accept hash wrong",
              "the service answers with HTTP status 404")


def test_the_end_of_a_link_is_told_with_code_and_reason(agent_at, scripted):
    port = scripted(upgrading(then=closing(1001, b"going\x1baway")),
                    upgrading(then=closing(1008)), upgrading(then=closing()), upgrading())
    wait_told(agent_at(port, speed=QUICK), "closed by the service, code 1001 'going?away'",
              "closed by the service, code 1008", "closed by the service without a code",
              "the connection broke off")


@pytest.mark.parametrize("host, cause", [
    ("127.0.0.1", REFUSED), ("no-such-host.invalid", "the name does not resolve"),
    ("255.255.255.255", "no route to the host")])
def test_a_link_that_cannot_begin_is_told(agent_at, host, cause):
    wait_told(agent_at(unused_port(), host=host), cause)


def test_a_service_that_does_not_answer_is_told(agent_at, scripted):
    wait_told(agent_at(scripted(None)), "time-out in the handshake")


def test_a_host_that_does_not_answer_is_told(agent_at):
    with full_port() as port:
        wait_told(agent_at(port), "time-out: the host does not answer")


def test_missing_pongs_are_told(agent_at, service):
    service.answer_pings(False)
    agent = agent_at(service.port)
    wait_told(agent, "no pong came for 3 pings")


def test_a_link_that_is_up_again_is_told(agent_at):
    port = unused_port()
    agent = agent_at(port)
    wait_told(agent, REFUSED)
    service = Service(port).start()
    wait_told(agent, REFUSED, "up again")
    agent.stop()
    service.stop()


def test_a_trouble_that_stays_is_told_once_an_hour(make_agent):
    agent = make_agent(unused_port(), speed=1200, log_level=SHIPPED_LEVEL,
                       settings=["initial_connection_delay=60", "max_connection_delay=60"])
    agent.wait_log(f": {REFUSED}", count=2)
    first, again = LINE.findall(agent.log())  # beside the lines about the bus, which is not there
    assert first == REFUSED
    times = re.fullmatch(rf"{REFUSED} \(again, (\d+) times\)", again)
    assert 20 < int(times[1]) < 130  # a delay is from 30 to 90 seconds


def test_the_end_that_an_operator_wants_is_no_trouble(agent_at, service):
    agent = agent_at(service.port, speed=QUICK)
    service.accept()
    agent.stop()
    assert told(agent) == []


def test_nothing_is_told_in_an_hour_in_which_nothing_happens(start_lab):
    lab = start_lab(config=[f"log_level={SHIPPED_LEVEL}"])
    lines = lab.log_lines()
    lab.set_speed(HOURLY)
    since = lab.mark()
    wait_until(lambda: len(lab.events(since, what="ping")) >= 2 * 60, "two pings a minute")
    assert lab.log_lines() == lines
