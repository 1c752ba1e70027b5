"""The websocket link: how it is lost, how it comes back, and how it ends."""
import asyncio
import contextlib
import json
import os
import signal
import threading
import time

import pytest

from lumdtest.msgbus import LUMD
from lumdtest.service import MuteServer, Service, unused_port
from lumdtest.waiting import wait_until

SPEED = 30  # minutes of the agent's time pass in seconds
# Seconds a signalled agent has to end. It takes no more than the pause of one second between two
# attempts to connect; the rest is for a busy machine, and for ThreadSanitizer, which looks up its
# suppressions at the signal.
END_LIMIT = 20.0 if "TSAN_OPTIONS" in os.environ else 5.0


@pytest.fixture
def fast_agent(broker, make_agent):
    def make(port, **options):
        return make_agent(port, speed=SPEED, **options)
    return make


def assert_relays(portal, link):
    def passes():
        portal.send(LUMD, "through")
        return link.poll(0.3) == "through"
    wait_until(passes, "the new link carries messages")


# --- how it is lost ---

def test_a_link_closed_by_the_service_comes_back(fast_agent, service, portal):
    agent = fast_agent(service.port)
    for _ in range(3):
        link = service.accept()
        assert (link.path, link.subprotocol) == ("/agent", "websock-roaming")
        link.close()
    assert_relays(portal, service.accept())
    agent.wait_log("process_closed")


def test_a_link_reset_by_the_service_comes_back(fast_agent, service, portal):
    fast_agent(service.port)
    for _ in range(3):
        service.accept().reset()
    assert_relays(portal, service.accept())


def test_a_message_cut_off_by_a_reset_is_not_the_head_of_the_next(fast_agent, service, portal):
    agent = fast_agent(service.port)
    link = service.accept()

    async def endless():
        yield "cut "
        while not link.closed.is_set():
            await asyncio.sleep(0.01)
            yield "off "

    def send():
        with contextlib.suppress(Exception):  # the reset ends it
            link.send(endless())

    sender = threading.Thread(target=send)
    sender.start()
    agent.wait_log("Get incomplete packet")
    link.reset()
    sender.join(30)
    service.accept().send("whole")
    texts = []
    while not texts or "internal-ipc" in texts[-1]:
        texts.append(portal.recv().decode())
    assert texts[-1] == "whole"


def test_a_closed_port_is_tried_until_it_opens(fast_agent, portal):
    port = unused_port()
    agent = fast_agent(port)
    agent.wait_log("process_client_connection_error", count=3)
    service = Service(port).start()
    assert_relays(portal, service.accept())
    agent.stop()
    service.stop()


def test_a_name_that_does_not_resolve_is_tried_again(fast_agent):
    agent = fast_agent(80, host="no-such-host.invalid")
    agent.wait_log("Try to establish connect with server no-such-host.invalid:80/agent", count=3)
    assert agent.alive()


def test_a_server_that_never_answers_the_handshake_is_given_up(fast_agent):
    server = MuteServer()
    agent = fast_agent(server.port)
    server.wait_attempts(3)
    # libwebsockets 4.1 tells of the end as of a lost connection, 4.3 as of one that failed.
    ends = ("process_closed", "process_client_connection_error")
    wait_until(lambda: sum(agent.log().count(end) for end in ends) >= 2, "two handshakes given up")
    agent.stop()
    server.stop()


# --- pings ---

def test_a_server_that_never_answers_pings_is_dropped_by_the_third(fast_agent, service):
    agent = fast_agent(service.port)
    service.answer_pings(False)
    link = service.accept()
    link.answer_pings(False)
    assert link.closed.wait(30), "three pings stay unanswered"
    assert link.pings == 3
    agent.wait_log("There are no 3 pong answer in a row from server")
    second = service.accept()
    assert second.closed.wait(30)


def test_a_pong_in_between_resets_the_count(fast_agent, service):
    fast_agent(service.port)
    service.answer_pings(False)
    link = service.accept()
    link.answer_pings(False)
    for pings in (2, 4):
        wait_until(lambda: link.pings >= pings, f"ping {pings}")
        assert not link.closed.is_set()
        link.send_pong()
    assert link.closed.wait(30), "and without it the link is dropped"
    assert link.pings == 7


def test_answered_pings_keep_the_link(fast_agent, service):
    fast_agent(service.port)
    link = service.accept()
    wait_until(lambda: link.pings >= 5, "five pings")
    assert not link.closed.is_set()


def test_a_process_that_was_stopped_keeps_a_healthy_link(fast_agent, service, portal):
    agent = fast_agent(service.port)
    link = service.accept()
    wait_until(lambda: link.pings >= 1, "a ping")
    agent.process.send_signal(signal.SIGSTOP)
    time.sleep(90 / SPEED)  # longer than the agent waits for a ping that is not sent
    agent.process.send_signal(signal.SIGCONT)
    pings = link.pings
    wait_until(lambda: link.pings >= pings + 2, "pings after the standstill")
    assert_relays(portal, link)
    assert "ping_timeout" not in agent.log()


# --- how it ends ---

def test_unlink_is_final(fast_agent, service, portal):
    agent = fast_agent(service.port)
    link = service.accept()
    assert_relays(portal, link)
    portal.send(LUMD, json.dumps({"service": "internal-ipc", "cmd": "unlink"}))
    assert link.closed.wait(30)
    agent.wait_log("Delay before connection", count=5)
    assert service.nobody_connects(0.5)
    assert agent.alive()


SIGNALS = pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])


def assert_ends(agent, number):
    agent.expect_clean_end(number, END_LIMIT)


@SIGNALS
@pytest.mark.threads
def test_ends_while_it_backs_off(broker, make_agent, number):
    agent = make_agent(unused_port(), settings=["initial_connection_delay=1000",
                                                "max_connection_delay=1000"])
    agent.wait_log("Delay before connection")
    wait_until(lambda: "lumd:ipc" in agent.threads(), "the bus worker's thread")
    assert_ends(agent, number)


@SIGNALS
@pytest.mark.threads
def test_ends_while_it_connects(broker, make_agent, number):
    server = MuteServer()
    agent = make_agent(server.port)
    server.wait_attempts(1)
    assert_ends(agent, number)
    server.stop()


@SIGNALS
@pytest.mark.threads
def test_ends_while_the_link_is_established(linked, number):
    agent, link = linked
    assert {"lumd:ipc", "lumd:websock-ro"} <= set(agent.threads())
    assert_ends(agent, number)
    assert link.closed.wait(10)


@SIGNALS
@pytest.mark.threads
def test_ends_without_a_broker(linked, broker, number):
    agent, _ = linked
    broker.kill()
    assert_ends(agent, number)


@SIGNALS
@pytest.mark.threads
def test_ends_under_load(linked, portal, number):
    agent, link = linked
    for _ in range(2000):
        portal.send(LUMD, "x" * 1024)
    link.recv()
    assert_ends(agent, number)
