"""The agent on the message bus: a broker that dies, a rival, and malformed frames."""
import socket

import pytest

from lumdtest.msgbus import ATTACH, DATA, LUMD, MAX_PAYLOAD, PORTAL, Broker, BusClosed, frame
from lumdtest.waiting import PATIENCE, wait_until


@pytest.mark.threads
def test_a_broker_killed_under_load_is_rejoined(linked, broker, portal):
    agent, link = linked
    for round_number in range(3):
        for i in range(500):
            portal.send(LUMD, f"load {i}")
        broker.kill()
        link.send("while there is no bus")
        broker.start()
        portal.close()
        portal = broker.client(PORTAL)
        text = f"round {round_number}"

        def passes():
            portal.send_raw(frame(LUMD, text.encode()))
            message = link.poll(0.2)
            while message is not None and message != text:
                message = link.poll(0.2)
            return message == text

        wait_until(passes, "the bus worker is back")
        link.send("to the portal")
        texts = []
        while "to the portal" not in texts:
            texts.append(portal.recv().decode())
    portal.close()
    assert agent.alive()


def test_a_broker_tells_who_started_it_that_it_listens(programs, folder, monkeypatch):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(str(folder / "notify"))
        manager.settimeout(PATIENCE)
        monkeypatch.setenv("NOTIFY_SOCKET", str(folder / "notify"))
        broker = Broker(programs.binary("msgbusd"), folder / "bus").start()
        try:
            assert manager.recv(100) == b"READY=1"
        finally:
            broker.stop()


def test_what_the_service_sends_without_a_broker_is_delivered_later(service, broker, make_agent):
    broker.stop()
    make_agent(service.port)
    link = service.accept()
    link.send("patience")
    link.send("is rewarded")
    broker.start()
    with broker.client(PORTAL) as portal:
        texts = []
        while "is rewarded" not in texts:
            texts.append(portal.recv().decode())
        if "patience" in texts:
            assert texts.index("patience") < texts.index("is rewarded")


def test_a_second_agent_with_the_same_module_id_is_refused(linked, service, make_agent, portal):
    agent, link = linked
    second = make_agent(service.port)
    rival = service.accept()
    second.wait_log("module 2 cannot join the bus")
    portal.send(LUMD, "for the first")
    assert link.recv() == "for the first"
    assert rival.poll(0.3) is None
    agent.expect_clean_end()
    wait_until(lambda: _reaches(portal, rival), "the second takes the place that is free now")
    assert second.alive()


def _reaches(portal, link):
    portal.send_raw(frame(LUMD, b"hello"))
    return link.poll(0.3) == "hello"


MALFORMED = {
    "magic": frame(LUMD, b"text", magic=0x5B),
    "version": frame(LUMD, b"text", version=2),
    "length": frame(LUMD, b"", size=MAX_PAYLOAD + 1),
    "huge length": frame(LUMD, b"", size=0xFFFFFFFF),
    "random": bytes(range(64)),
}


@pytest.mark.parametrize("kind", MALFORMED)
def test_a_malformed_frame_costs_its_sender_the_connection_only(linked, broker, portal, kind):
    agent, link = linked
    with broker.client(20) as vandal:
        vandal.send_raw(MALFORMED[kind])
        with pytest.raises((BusClosed, ConnectionError)):
            vandal.recv()
    portal.send(LUMD, "still here")
    assert link.recv() == "still here"
    assert agent.alive()


FIRST_WORDS = {
    "nothing": b"",
    "half a header": b"\xb5",
    "data": frame(0, kind=DATA, src=20),
    "an id that is taken": frame(0, kind=ATTACH, src=LUMD),
    "a payload": frame(0, b"x", kind=ATTACH, src=20),
}


@pytest.mark.parametrize("first", FIRST_WORDS.values(), ids=FIRST_WORDS.keys())
def test_a_connection_that_does_not_attach_as_it_should_disturbs_nobody(linked, broker, portal,
                                                                        first):
    _, link = linked
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as stranger:
        stranger.connect(str(broker.path))
        stranger.sendall(first)
        stranger.shutdown(socket.SHUT_WR)
        portal.send(LUMD, "still here")
        assert link.recv() == "still here"


class FakeBroker:
    """A broker that attaches everybody and then sends what the test wants."""

    def __init__(self, path):
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._listener.bind(str(path))
        self._listener.listen()
        self._listener.settimeout(30)

    def accept(self):
        """The next agent that is still there: one waits for its answer a second only."""
        while True:
            connection, _ = self._listener.accept()
            connection.settimeout(30)
            head = connection.recv(17, socket.MSG_WAITALL)
            try:
                connection.sendall(frame(head[2], kind=ATTACH))
                return connection
            except (ConnectionError, IndexError):
                connection.close()

    def close(self):
        self._listener.close()


@pytest.fixture
def fake_broker(folder):
    broker = FakeBroker(folder / "bus")
    yield broker
    broker.close()


@pytest.mark.parametrize("kind", MALFORMED)
def test_a_broker_that_sends_rubbish_is_left_and_joined_again(fake_broker, service, make_agent,
                                                              kind):
    agent = make_agent(service.port)
    link = service.accept()
    for _ in range(2):
        connection = fake_broker.accept()
        connection.sendall(MALFORMED[kind])
        wait_until(lambda: _ended(connection), "the agent leaves")
    connection = fake_broker.accept()

    def passes():  # what comes before the agent has settled is discarded
        connection.sendall(frame(LUMD, b"a good one"))
        return link.poll(0.2) == "a good one"

    wait_until(passes, "the agent takes frames again")
    assert agent.alive()
    connection.close()


def _ended(connection):
    try:
        return connection.recv(65536) == b""
    except ConnectionError:
        return True


PAYLOADS = {"a zero": b"\0", "half an object": b"{", "no UTF-8": b"\xff\xfe",
            "a number for a name": b"{\"command\":7}", "an array": b"[]", "null": b"null",
            "blanks": b" " * 100000}


@pytest.mark.parametrize("payload", PAYLOADS.values(), ids=PAYLOADS.keys())
def test_no_payload_of_the_bus_ends_the_agent(linked, portal, payload):
    agent, link = linked
    portal.send(LUMD, payload)
    portal.send(LUMD, "last")
    # A text frame with bytes that are no UTF-8 makes the service end the link (RFC 6455, 8.1).
    wait_until(lambda: link.closed.is_set() or link.poll(0.2) == "last", "the agent goes on")
    assert agent.alive()
