"""The portal mode relays between the websocket link and the message bus."""
import json
import threading

import pytest

from lumdtest.msgbus import LUMD
from lumdtest.service import unused_port
from lumdtest.waiting import wait_until

MEBIBYTE = 1 << 20


def internal(cmd):
    return json.dumps({"service": "internal-ipc", "cmd": cmd})


def drain_notifications(portal):
    """Link-state messages reach the portal as well; what else is there, until it falls silent."""
    texts = []
    while (text := portal.poll(0.3)) is not None:
        texts.append(text.decode())
    return texts


def state(cmd):
    return json.dumps({"version": "2.4", "service": "internal-ipc", "cmd": cmd},
                      separators=(",", ":"))


def numbered(count, size):
    return [f"{i:08d}".ljust(size, ".") for i in range(count)]


class Window:
    """Keeps what is on its way below what the broker stores for one receiver."""

    def __init__(self, limit):
        self._room = threading.Semaphore(limit)

    def take(self):
        assert self._room.acquire(timeout=60), "messages are lost on their way"

    def give(self):
        self._room.release()


def relay_both_ways(portal, link, messages):
    to_service, to_portal = Window(4000), Window(4000)
    got_at_portal, errors = [], []

    def guarded(function):
        def run():
            try:
                function()
            except BaseException as error:  # pylint: disable=broad-except
                errors.append(error)
        thread = threading.Thread(target=run)
        thread.start()
        return thread

    def portal_sends():
        for message in messages:
            to_service.take()
            portal.send(LUMD, message)

    def service_sends():
        for start in range(0, len(messages), 100):
            block = messages[start:start + 100]
            for _ in block:
                to_portal.take()
            link.send_all(block)

    def portal_receives():
        while len(got_at_portal) < len(messages):
            text = portal.recv(60).decode()
            if "internal-ipc" not in text:
                got_at_portal.append(text)
                to_portal.give()

    threads = [guarded(f) for f in (portal_sends, service_sends, portal_receives)]
    got_at_service = []
    for _ in messages:
        got_at_service.append(link.recv(60))
        to_service.give()
    for thread in threads:
        thread.join(60)
    assert not errors, errors
    return got_at_service, got_at_portal


@pytest.mark.threads
def test_twenty_thousand_messages_each_way_at_once_keep_their_order(linked, portal):
    _, link = linked
    messages = numbered(20000, 1024)
    undeliverable = portal.undeliverable
    at_service, at_portal = relay_both_ways(portal, link, messages)
    assert at_service == messages
    assert at_portal == messages
    assert portal.undeliverable == undeliverable


def test_five_mebibytes_pass_each_way(linked, portal):
    _, link = linked
    drain_notifications(portal)
    text = "".join(numbered(5 * MEBIBYTE // 64, 64))
    portal.send(LUMD, text)
    assert link.recv() == text
    link.send(text)
    assert portal.recv().decode() == text


def test_a_message_in_many_fragments_arrives_as_one(linked, portal):
    _, link = linked
    drain_notifications(portal)
    pieces = [f"piece {i} " for i in range(1000)]
    link.send(pieces)
    assert portal.recv().decode() == "".join(pieces)
    assert drain_notifications(portal) == []


def test_an_empty_message_of_the_service_is_not_put_on_the_bus(linked, portal):
    agent, link = linked
    drain_notifications(portal)
    link.send("")
    link.send("after it")
    assert portal.recv() == b"after it"
    assert agent.alive()


def test_an_empty_message_of_the_bus_is_not_sent(linked, portal):
    _, link = linked
    portal.send(LUMD, b"")
    portal.send(LUMD, b"\0zero first")
    portal.send(LUMD, b"after it")
    assert link.recv() == "after it"


def test_no_message_is_looked_at(linked, portal):
    _, link = linked
    drain_notifications(portal)
    for text in ("no json", "{", '{"service":"other","cmd":"unlink"}', '"text"', "\u00e4\u20ac"):
        portal.send(LUMD, text)
        assert link.recv() == text
        link.send(text)
        assert portal.recv().decode() == text


def test_the_portal_learns_the_state_of_the_link(broker, portal, service, make_agent):
    make_agent(service.port)
    link = service.accept()
    portal.send(LUMD, internal("status"))
    texts = []
    while state("connected") not in texts:
        texts.append(portal.recv().decode())
    assert set(texts) <= {state("disconnected"), state("connected")}
    assert link.poll(0.3) is None, "an internal message is not for the service"


def answers_status_while_down(portal):
    """Whether the agent is on the bus and answers that its link is down."""
    drain_notifications(portal)
    portal.send(LUMD, internal("status"))
    return (portal.poll(0.5) or b"").decode() == state("disconnected")


def test_a_status_request_is_answered_while_the_link_is_down(broker, portal, make_agent):
    agent = make_agent(unused_port(), settings=["initial_connection_delay=1000",
                                                "max_connection_delay=1000"])
    agent.wait_log("Delay before connection")
    wait_until(lambda: answers_status_while_down(portal), "an answer")


def test_a_message_sent_while_the_link_is_down_is_dropped(broker, portal, service, make_agent):
    agent = make_agent(service.port, settings=["initial_connection_delay=8",
                                               "max_connection_delay=8"])
    wait_until(lambda: answers_status_while_down(portal), "the agent is on the bus")
    handled = agent.log().count("websock-roaming->From queue")
    portal.send(LUMD, "too early")
    agent.wait_log("websock-roaming->From queue", handled + 1)
    link = service.accept()
    portal.send(LUMD, "in time")
    assert link.recv() == "in time"
