"""What the lab holds somebody else's service against, rule by rule, and the relay that it listens
from."""
import asyncio
import json

import pytest

from labap import fleet
from labap import scenario as scenarios
from labservice.conformance import Conformance, together
from labservice.endpoint import Endpoint, EndpointError
from labservice.linkrules import LinkRules, accepting
from labservice.messagerules import MessageRules
from labservice.model import ApModel
from labservice.relay import AGENT, SERVICE, Listener, Relay, addressed_to
from labtalk import contract, frames
from labtalk.frames import Frame, FrameReader, Head
from labtalk.websocket import hang_up

KEY = "dGhlIHNhbXBsZSBub25jZQ=="
ACCEPT = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo="  # of that key, RFC 6455, 1.3
REQUEST = Head.parse(f"GET / HTTP/1.1\r\nSec-WebSocket-Key: {KEY}\r\n"
                     "Sec-WebSocket-Protocol: websock-rrm".encode())
GOOD = {"Upgrade": "websocket", "Connection": "Upgrade", "Sec-WebSocket-Accept": ACCEPT,
        "Sec-WebSocket-Protocol": "websock-rrm"}
MAC = "00:11:22:33:44:50"


class Clock:
    def __init__(self):
        self.time = 1000.0

    def now(self):
        return self.time


@pytest.fixture(name="clock")
def standing_clock():
    return Clock()


@pytest.fixture(name="conformance")
def empty_conformance():
    return Conformance()


@pytest.fixture(name="link")
def asked_link(conformance, clock):
    link = LinkRules(conformance, clock.now)
    link.request(REQUEST)
    return link


def answer(first="HTTP/1.1 101 Switching Protocols", **changes):
    headers = {**GOOD, **{name.replace("_", "-"): value for name, value in changes.items()}}
    lines = [first, *(f"{name}: {value}" for name, value in headers.items() if value is not None)]
    return Head.parse("\r\n".join(lines).encode())


def violated(conformance):
    return {name for name, rule in conformance.rules.items() if rule.violated}


def advised(conformance):
    return {name for name, rule in conformance.rules.items() if rule.advised}


# Frames

def test_a_frame_is_read_from_single_bytes_whatever_its_size():
    masked = bytes([0x81, 0x83, 1, 2, 3, 4, ord("a") ^ 1, ord("b") ^ 2, ord("c") ^ 3])
    medium = bytes([0x82, 126]) + (300).to_bytes(2, "big") + b"m" * 300
    large = bytes([0x01, 127]) + (70000).to_bytes(8, "big") + b"l" * 70000
    reader, found = FrameReader(), []
    for byte in masked + medium:
        found += reader.feed(bytes([byte]))
    found += reader.feed(large)
    assert found == [Frame(frames.TEXT, b"abc", masked=True), Frame(frames.BINARY, b"m" * 300),
                     Frame(frames.TEXT, b"l" * 70000, final=False)]


@pytest.mark.parametrize("frame, fault", [
    (Frame(frames.TEXT, b"", masked=True), "a masked frame"),
    (Frame(frames.TEXT, b"", reserved=4), "reserved bits"),
    (Frame(0xB, b""), "opcode 0xb"),
    (Frame(frames.PING, b"", final=False), "in pieces"),
    (Frame(frames.PONG, bytes(126)), "too long"),
    (Frame(frames.CLOSE, (1005).to_bytes(2, "big")), "close code 1005"),
    (Frame(frames.CLOSE, b"\x03"), "half a code"),
])
def test_a_frame_that_no_server_may_send_is_told(frame, fault):
    found, = frame.faults(by_server=True)
    assert fault in found
    assert Frame(frames.CLOSE, (1000).to_bytes(2, "big")).faults(by_server=True) == []


# The link

def test_the_answer_that_the_standard_wants_is_held(link, conformance):
    assert accepting(KEY) == ACCEPT
    link.response(answer())
    assert link.established
    assert not violated(conformance) and not advised(conformance)
    assert conformance.rules["handshake"].outcome == "held"


@pytest.mark.parametrize("response", [
    None, answer("HTTP/1.1 404 Not Found"), answer("HTTP/1.0 101 Fine"), answer(Upgrade=None),
    answer(Connection="close"), answer(Sec_WebSocket_Accept="x"),
    answer(Sec_WebSocket_Extensions="permessage-deflate")])
def test_another_answer_violates_the_handshake(link, conformance, response):
    link.response(response)
    assert violated(conformance) == {"handshake"}
    assert not link.established


def test_an_answer_after_five_seconds_violates_the_handshake(link, conformance, clock):
    clock.time += 5.5
    link.response(answer())
    assert violated(conformance) == {"handshake"}


@pytest.mark.parametrize("by_service, seconds, outcome", [
    (True, 0, {"handshake"}), (False, 5, {"handshake"}), (False, 1, set())])
def test_an_end_without_an_answer_is_the_services_when_it_closes_or_is_silent(
        link, conformance, clock, by_service, seconds, outcome):
    clock.time += seconds
    link.ended(by_service, reset=False)
    assert violated(conformance) == outcome


def test_another_subprotocol_is_a_violation_and_none_is_worth_advice(conformance, clock):
    for chosen in ("websock-wids", None):
        link = LinkRules(conformance, clock.now)
        link.request(REQUEST)
        link.response(answer(Sec_WebSocket_Protocol=chosen))
        assert link.established == (chosen is None)
    rule = conformance.rules["subprotocol"]
    assert (rule.seen, rule.violated, rule.advised) == (2, 1, 1)


def test_messages_are_put_together_and_other_data_violates_the_frames(link, conformance):
    link.response(answer())
    assert link.service_frame(Frame(frames.TEXT, b"\xc3", final=False)) is None
    assert link.service_frame(Frame(frames.PING, b"between")) is None
    assert link.service_frame(Frame(frames.CONTINUATION, b"\xa4")) == "ä"
    assert not violated(conformance)
    for frame in (Frame(frames.BINARY, b"x"), Frame(frames.CONTINUATION, b"x"),
                  Frame(frames.TEXT, b"\xff")):
        link.service_frame(frame)
    assert conformance.rules["frames"].violated == 3


def test_a_ping_without_a_pong_is_told_at_the_next_one(link, conformance):
    link.response(answer())
    link.agent_frame(Frame(frames.PING, b"", masked=True))
    link.service_frame(Frame(frames.PONG, b""))
    assert conformance.rules["pong"].outcome == "held"
    link.agent_frame(Frame(frames.PING, b"", masked=True))
    link.agent_frame(Frame(frames.PING, b"", masked=True))
    assert violated(conformance) == {"pong"}


def test_a_link_that_is_cut_is_worth_advice_and_one_that_is_closed_is_held(conformance, clock):
    for last in (Frame(frames.CLOSE, (1001).to_bytes(2, "big")), Frame(frames.TEXT, b"{}")):
        link = LinkRules(conformance, clock.now)
        link.request(REQUEST)
        link.response(answer())
        link.service_frame(last)
        link.ended(by_service=True, reset=False)
    rule = conformance.rules["closing"]
    assert (rule.seen, rule.advised, rule.outcome) == (2, 1, "held")


# Messages

@pytest.fixture(name="ap")
def known_access_point():
    """Radio 0 has three channels and 8 to 20 dBm."""
    request = json.loads((contract.FOLDER / "examples" / "rrm-from-lumd.json").read_text())[
        "subscribe-request"][0]
    ap = ApModel(MAC)
    ap.learn(request)
    ap.radios[0].update({"available-channels": "1 6 11 ", "power-min": 8, "power-max": 20,
                         "locked-for-dca": 0, "locked-for-tpc": 0, "status": 1})
    return ap


@pytest.fixture(name="talk")
def subscribing_talk(ap, conformance, clock):
    """The rules, once lumd has asked to subscribe."""
    rules = MessageRules("rrm-to-lumd", ap, conformance, clock.now)
    rules.told({"cmd": "subscribe-request"})
    return rules


def say(talk, cmd, **members):
    given = {key.replace("_", "-"): value for key, value in members.items()}
    talk.heard(json.dumps({"version": "2.4", "service": "rrm", "cmd": cmd, **given}))


def test_a_service_that_does_everything_right_is_held(talk, conformance):
    config = {"use-dca": 1, "use-tpc": 1, "use-80211v": 1}
    say(talk, "subscribe-response", status="success", code=200, config=config)
    say(talk, "rrm-info", ap_mac=MAC, radios=[{"id": 0, "channel": 6, "power": 10}], **config)
    say(talk, "rrm-update", rrm_scan_channels="1 6 36")
    talk.told({"cmd": "rrm-response"})
    say(talk, "rrm-request-mode")
    say(talk, "rrm-sta-overload", radios=[{"id": 0, "roam-count": 1}])
    assert not violated(conformance) and not advised(conformance)
    seen = {name for name, rule in conformance.rules.items() if rule.seen}
    assert seen == {"subscription", "message", "version", "command", "members", "address",
                    "refusal", "patience"}


@pytest.mark.parametrize("text, rule", [
    ("garbage", "message"), ("[1]", "message"),
    ('{"service": "rrm", "cmd": "rrm-request-mode"}', "version"),
    ('{"version": "2.3", "service": "rrm", "cmd": "rrm-request-mode"}', "version"),
    ('{"version": "2.4", "cmd": "rrm-request-mode"}', "command"),
    ('{"version": "2.4", "service": "rrm"}', "command"),
    ('{"version": "2.4", "service": "rrm", "cmd": "rrm-dance"}', "command"),
    ('{"version": "2.4", "service": "rrm", "cmd": "rrm-blacklist"}', "command"),
    ('{"version": "2.4", "service": "rrm", "cmd": "rrm-update", "rrm-scan-channels": "1,6,36"}',
     "members"),
    ('{"version": "2.4", "service": "rrm", "cmd": "rrm-request-mode", "ap-mac": "x"}', "address"),
])
def test_a_message_violates_the_rule_that_it_is_made_for(talk, conformance, text, rule):
    talk.heard(text)
    assert violated(conformance) == {rule}


@pytest.mark.parametrize("radio", [
    {"id": 0, "channel": 14}, {"id": 0, "power": 21}, {"id": 0, "power": 7}])
def test_what_the_access_point_told_it_cannot_do_must_not_be_asked_for(talk, conformance, radio):
    say(talk, "rrm-info", radios=[radio], use_dca=1, use_tpc=1)
    assert violated(conformance) == {"refusal"}


def test_a_locked_radio_must_not_be_asked_for_another_channel(talk, ap, conformance):
    ap.radios[0]["locked-for-dca"] = 1
    say(talk, "rrm-info", radios=[{"id": 0, "channel": 6}], use_dca=1)
    assert violated(conformance) == {"refusal"}


def test_what_is_without_effect_is_worth_advice(talk, conformance):
    say(talk, "rrm-info", radios=[{"id": 0, "channel": 6}], use_dca=0)
    say(talk, "rrm-update", rrm_scan_channels="1")
    say(talk, "rrm-sta-overload", radios=[{"id": 0, "roam-count": 1}])
    assert advised(conformance) == {"refusal"}
    assert conformance.rules["refusal"].advised == 3


def test_a_subscription_must_be_answered_within_half_a_minute(talk, conformance, clock):
    clock.time += 30.5
    say(talk, "subscribe-response", status="success", code=200)
    assert violated(conformance) == {"subscription"}


def test_a_subscription_that_is_never_answered_is_told_when_lumd_asks_again(talk, conformance,
                                                                          clock):
    clock.time += 10
    talk.link_lost()
    assert not violated(conformance)
    talk.told({"cmd": "subscribe-request"})
    clock.time += 30
    talk.told({"cmd": "subscribe-request"})
    assert violated(conformance) == {"subscription"}


def test_a_survey_that_is_asked_for_twice_is_worth_advice_until_it_must_have_ended(
        talk, conformance, clock):
    say(talk, "rrm-update", rrm_scan_channels="1 36")
    assert talk.survey_under_way
    say(talk, "rrm-update", rrm_scan_channels="1 36")
    assert conformance.rules["patience"].advised == 1
    clock.time += 100
    assert not talk.survey_under_way
    say(talk, "rrm-request-mode")
    assert conformance.rules["patience"].advised == 1


def test_the_rules_of_a_fleet_are_added_up_and_each_finding_names_its_access_point():
    parts = [Conformance(), Conformance()]
    parts[1].judge("message", ["no JSON"])
    parts[0].see("message")
    rule = together(parts)["message"]
    assert (rule.seen, rule.violated, rule.outcome) == (2, 1, "violated")
    assert rule.violations[0]["ap"] == 1


# The relay

class Heard(Listener):
    def __init__(self):
        self.events = []

    def unreachable(self, reason):
        self.events.append(("unreachable", reason))

    def request(self, head):
        self.events.append(("request", head.first))

    def response(self, head):
        self.events.append(("response", head and head.first))

    def frame(self, speaker, frame):
        self.events.append((speaker, frame.opcode, frame.payload))

    def ended(self, speaker, reset):
        self.events.append(("ended", speaker, reset))


async def through_a_relay(sent, answered, end=lambda writer: writer.close()):
    """(what the service got, what lumd got, what the listener heard); the service answers to the
    request and ends the connection. What lumd got is None after a reset."""
    got, heard = [], Heard()

    async def serve(reader, writer):
        got.append(await reader.readuntil(b"\r\n\r\n") + await reader.readexactly(2))
        writer.write(answered)
        await writer.drain()
        end(writer)

    server = await asyncio.start_server(serve, "127.0.0.1", 0)
    port = server.sockets[0].getsockname()[1]
    relay = Relay(Endpoint("127.0.0.1", port, "/"), lambda: heard)
    await relay.start()
    reader, writer = await asyncio.open_connection("127.0.0.1", relay.port)
    writer.write(sent)
    try:
        back = await asyncio.wait_for(reader.read(), 20)
    except ConnectionResetError:
        back = None
    writer.close()
    await relay.stop()
    server.close()
    return got[0], back, heard.events


def test_the_relay_carries_every_byte_and_hears_the_frames():
    sent = b"GET /x HTTP/1.1\r\nHost: 127.0.0.1\r\nX: 127.0.0.1\r\n\r\n\x89\x00"
    answered = b"HTTP/1.1 101 Yes\r\nA: b\r\n\r\n\x8a\x00\x88\x02\x03\xe8"
    got, back, events = asyncio.run(through_a_relay(sent, answered))
    assert (got, back) == (sent, answered)
    assert events == [("request", "GET /x HTTP/1.1"), (AGENT, frames.PING, b""),
                      ("response", "HTTP/1.1 101 Yes"), (SERVICE, frames.PONG, b""),
                      (SERVICE, frames.CLOSE, b"\x03\xe8"), ("ended", SERVICE, False)]


def test_the_relay_resets_the_connection_when_the_service_does():
    sent = b"GET / HTTP/1.1\r\n\r\n\x89\x00"
    _, back, events = asyncio.run(through_a_relay(sent, b"", hang_up))
    assert back is None
    assert events[-1] == ("ended", SERVICE, True)


def test_the_relay_addresses_the_request_to_the_service():
    head = b"GET /127.0.0.1 HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: http://127.0.0.1\r\nX: 127.0.0.1"
    assert addressed_to("radio.example", head) == \
        b"GET /127.0.0.1 HTTP/1.1\r\nHost: radio.example\r\nOrigin: http://radio.example\r\n" \
        b"X: 127.0.0.1"


def test_the_relay_tells_what_is_no_answer_and_carries_it_all_the_same():
    sent = b"GET / HTTP/1.1\r\n\r\n\x89\x00"
    for garbage in (b"\x00garbage", b"no HTTP\r\n\r\n", b"HTTP/1.1 101 without an end"):
        _, back, events = asyncio.run(through_a_relay(sent, garbage))
        assert back == garbage
        assert (("response", None) in events) == (not garbage.startswith(b"HTTP/"))


def test_the_relay_tells_that_nobody_is_there():
    async def call():
        heard = Heard()
        relay = Relay(Endpoint("127.0.0.1", 1, "/"), lambda: heard)
        await relay.start()
        reader, writer = await asyncio.open_connection("127.0.0.1", relay.port)
        try:
            await asyncio.wait_for(reader.read(), 20)
        except ConnectionError:
            pass
        writer.close()
        await relay.stop()
        return heard.events

    assert asyncio.run(call()) == [("unreachable", "Connection refused")]


@pytest.mark.parametrize("url, why", [
    ("wss://host:1/", "no TLS"), ("http://host:1/", "websocket is wanted"), ("host:1/", "ws://"),
    ("ws://host/", "a port"), ("ws://host:1", "a path"), ("ws://host:x/", "Port"),
    ("ws://:1/", "host name"), ("ws://[::1]:1/", "IPv4")])
def test_a_url_that_lumd_cannot_take_is_refused_with_the_reason(url, why):
    with pytest.raises(EndpointError, match=why):
        Endpoint.parse(url)


def test_a_url_is_taken_with_its_query():
    assert Endpoint.parse("ws://host:80/a/b?c=d") == Endpoint("host", 80, "/a/b?c=d")


def test_each_access_point_of_a_fleet_is_another():
    office = scenarios.load("office")
    assert fleet.member(office, 0) == office
    members = [fleet.member(office, number) for number in range(fleet.MOST)]
    for name in ("serial", "mac"):
        assert len({scenario["factory"][name] for scenario in members}) == fleet.MOST
    assert members[1]["factory"] == {**office["factory"], "serial": "OFC0001235",
                                     "mac": "00:11:22:33:44:70"}
    assert members[7]["seed"] == office["seed"] + 7
    members += [fleet.member(office, number) for number in (256, 1000, fleet.NUMBERS - 1)]
    clients = [{station["mac"] for radio in scenario["radios"] for vap in radio["vaps"]
                for station in vap["stations"]} for scenario in members]
    assert len(set().union(*clients)) == sum(map(len, clients))
    assert fleet.member(office, fleet.NUMBERS - 1)["factory"]["mac"] == "00:11:22:33:44:30"
