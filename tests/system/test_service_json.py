"""What the service may send at its worst: the agent lives on and handles the next good message.

One agent of each mode takes all of it, so a message that leaves damage behind is found by the
messages after it.
"""
import itertools
import json

import pytest

from lumdtest.lab import CONFIG, Labs, ask, radios, scenario, send_bytes
from lumdtest.msgbus import ORVANTA_EVENTS
from lumdtest.waiting import wait_until

HEADER = b'{"version":"2.4","service":"rrm","cmd":"rrm-request-mode"'
NAMED = b'{"version":"2.4","service":"wids-mac-service","Name":"lab-list"'

NO_JSON = [b"", b" ", b"x", b"nul", b"{", b"}", b"[", b'"', b"{]", b'{"cmd"', b'{"cmd":', b"{,}",
           b"\xef\xbb\xbf", b"\0", b"\0" + HEADER + b"}", HEADER, HEADER + b",", HEADER + b",}",
           b"'cmd'", b"<xml/>", b"%s%n%d", b"\xff\xfe\x00", b"-", b"1e", b"\\u0000"]
NO_OBJECT = [b"[]", b"[[]]", b"[{}]", b"{}", b"null", b"true", b"0", b"-1", b"1.5", b'""',
             b'"cmd"', b"1e999", b"[" + HEADER + b"}]", b"99999999999999999999999999"]
DEEP = [opening * depth + middle + closing * depth
        for depth in (30, 33, 1000, 200_000)
        for opening, middle, closing in ((b"[", b"", b"]"), (b'{"a":', b"1", b"}"),
                                         (b"[", b"", b""))]
# What a member can be instead of what it should be: one of each type, at its worst.
VALUES = ["null", "true", "-99999999999999999999", "1e999", '"a\\u0000%s%n"', "[null,-1]",
          '[{"id":[]}]', '{"":{}}', '"' + "x" * 5000 + '"']

NEIGHBOUR = {"neighbour-mac": "00:11:22:33:50:51", "channel": 11, "priority": 3,
             "vaps": [{"ssid": "office", "mac": "00:11:22:33:50:51"}]}
RADIO = {"id": 0, "channel": 11, "bandwidth": 40, "power": 10, "primary-channel": "lower",
         "no-balance-enterprise": 1, "vexor-roam-attempt-timeout": 5}
GOOD = [
    {"cmd": "rrm-info", **CONFIG, "radios": [RADIO], "802dot11k": [NEIGHBOUR]},
    {"cmd": "rrm-update", "rrm-scan-delay": 0, "vexor-rrm-scanning": 0,
     "rrm-scan-channels": "1 36"},
    {"cmd": "rrm-request-mode"},
    {"cmd": "subscribe-response", "status": "success", "code": 200, "domain": "lab",
     "config": {**CONFIG, "use-80211r": 1}},
    {"cmd": "fbt-info", "fbt-reassoc-deadline": 500, "fbt-over-ds": 0, "vaps": [
        {"vap_id": 0, "radio_id": 0, "mobility-domain": 7, "r0-key-holder-id": "r0",
         "r1-key-holder-id": "r1", "fbt-rrb-key": "key", "remotes": [
             {"remote-r1-kh-id": "aa", "remote-r0-kh-id": "bb", "remote-r1-kh-key": "cc"}]}]},
    {"cmd": "rrm-sta-overload", "ap-mac": "00:11:22:33:44:50",
     "radios": [{"id": 0, "roam-count": 1}], "802dot11k": [NEIGHBOUR]},
]


def places(value, path=()):
    """The path of each member and element below a value."""
    entries = value.items() if isinstance(value, dict) else \
        enumerate(value) if isinstance(value, list) else ()
    for key, below in entries:
        yield path + (key,)
        yield from places(below, path + (key,))


def with_member(message, path, text):
    """The message's text with another value, which need not be valid JSON, at that place."""
    copy = json.loads(json.dumps(message))
    parent = copy
    for key in path[:-1]:
        parent = parent[key]
    parent[path[-1]] = "@@"
    return json.dumps(copy).replace('"@@"', text).encode()


@pytest.fixture(scope="module", name="rrm")
def rrm_lab():
    labs = Labs()
    # No report after each change of a radio: the messages themselves are what is tested here.
    lab = labs.start(scenario("minimal", **{"notify-after-update": False}), speed=1,
                     complaints=[{"cmd": "rrm-client-assoc"}])
    yield lab
    labs.stop()


@pytest.fixture(scope="module", name="wids")
def wids_lab():
    labs = Labs()
    lab = labs.start("minimal", mode="wids", speed=1)
    yield lab
    labs.stop()


def push(lab):
    """Sends a good list; once its acknowledgement is here all before it has been handled."""
    assert ask(lab, {"Name": "lab-list", "white": []}, "mac-list-received") == {
        "version": "2.4", "service": "wids-mac-service", "cmd": "mac-list-received",
        "Name": "lab-list"}


def answers_after(lab, texts, handled, answer):
    """How many answers came for texts of which none is a good message's."""
    since = lab.mark()
    for text in texts:
        send_bytes(lab, text)
    handled(lab)
    lab.settle(quiet=0.4)
    return len(lab.events(since, what=answer)) - 1


@pytest.mark.parametrize("texts", [NO_JSON, NO_OBJECT, DEEP], ids=["no JSON", "no object", "deep"])
def test_rrm_drops_what_is_no_message(rrm, texts):
    assert answers_after(rrm, texts, radios, "rrm-mode-response") == 0


@pytest.mark.parametrize("texts", [NO_JSON, NO_OBJECT, DEEP], ids=["no JSON", "no object", "deep"])
def test_wids_drops_what_is_no_message(wids, texts):
    since = wids.mark()
    assert answers_after(wids, texts, push, "mac-list-received") == 0
    assert wids.events(since, what="mac-list-rejected") == []


@pytest.mark.parametrize("message", GOOD, ids=lambda message: message["cmd"])
def test_rrm_survives_every_type_in_every_member(rrm, message):
    message = {"service": "rrm", **message}
    for path in places(message):
        for text in VALUES:
            send_bytes(rrm, with_member({"version": "2.4", **message}, path, text))
        assert len(radios(rrm)) == 2
    assert rrm.events(what="disconnected") == []


def test_rrm_survives_every_type_in_every_member_of_a_trap(rrm):
    trap = {"command": "wifi-client-trap", "event": {
        "type": "auth", "dev": "wlan0-va0", "mac": "02:00:00:00:00:01", "rssi": -50,
        "ssid": "lab", "target-mac": "02:00:00:00:00:02", "client-info": {"using-802.11v": "yes"}}}
    traps = rrm.lab.ap.daemons["traps"]
    for path, text in itertools.product(places(trap), VALUES):
        payload = with_member(trap, path, text)
        rrm.do(lambda payload=payload: traps.send(ORVANTA_EVENTS, payload.decode()))
    since = rrm.mark()
    rrm.send({"cmd": "rrm-info", **CONFIG})
    assert len(radios(rrm)) == 2  # 802.11v is on before the trap comes by its other way
    rrm.ap("trap", type="auth", dev="wlan0-va0", mac="02:00:00:00:00:09", rssi=-40, ssid="lab")
    rrm.wait("rrm-client-assoc", since, data={"sta-mac": "02:00:00:00:00:09"})


def test_wids_survives_every_type_in_every_member(wids):
    for key, text in itertools.product(("version", "service", "cmd", "Name", "white"), VALUES):
        members = {"version": '"2.4"', "service": '"wids-mac-service"', "cmd": '"push"',
                   "Name": '"other"', "white": "[]", key: text}
        send_bytes(wids, ("{" + ",".join(f'"{name}":{value}' for name, value in members.items())
                          + "}").encode())
    push(wids)


def test_the_last_of_duplicate_keys_counts(rrm):
    since = rrm.mark()
    send_bytes(rrm, b'{"version":"2.4","service":"rrm","cmd":"rrm-info","cmd":"rrm-request-mode"}')
    rrm.wait("rrm-mode-response", since)
    send_bytes(rrm, b'{"version":"2.4","service":"rrm","cmd":"rrm-request-mode","cmd":"x"}')
    radios(rrm)
    rrm.settle(quiet=0.4)
    assert len(rrm.events(since, what="rrm-mode-response")) == 2


@pytest.mark.parametrize("text", [b"\xff", b"\xc3", b"\xe2\x82", b"\xc0\xaf", b"\xed\xa0\x80",
                                  b"\xf5\x80\x80\x80"])
def test_rrm_handles_a_message_with_invalid_utf_8_in_a_member_that_it_does_not_read(rrm, text):
    since = rrm.mark()
    send_bytes(rrm, HEADER + b',"comment":"' + text + b'"}')
    rrm.wait("rrm-mode-response", since)


def test_wids_takes_a_list_with_invalid_utf_8(start_lab):
    # At a fast clock: the lab's hubd does not answer to such a list.
    lab = start_lab(mode="wids", complaints=[{"border": "bus-from-lumd", "cmd": "message"}])
    for text in (b"\xff", b"\xc3", b"\xe2\x82", b"\xc0\xaf"):
        since = lab.mark()
        send_bytes(lab, NAMED + b',"white":["' + text + b'"]}')
        lab.wait("mac-list-received", since)
        lab.wait("message", since, to="hubd",
                 predicate=lambda event: "update-wids-mac-lists" in event["data"])
    push(lab)


@pytest.mark.parametrize("version", ["2.4", "2", "[]", "{}", "null", '"x"', '"2"', '""', '"2.3"',
                                     '"-3.9"', '"99999999999999.0"', '".4"', '"2."'])
def test_a_version_that_is_none_ends_the_subscription_for_good(start_lab, version):
    lab = start_lab(speed=1)
    since = lab.mark()
    send_bytes(lab, b'{"version":' + version.encode()
               + b',"service":"rrm","cmd":"rrm-request-mode"}')
    if version == "2.4":  # reads like the text
        lab.wait("rrm-mode-response", since)
        return
    lab.wait("unsubscribe-request", since)
    lab.wait("disconnected", since)
    assert lab.events(since, what="rrm-mode-response") == []
    wait_until(lambda: not lab.ap("file-exists", name="/tmp/.orvanta-connected"), "the end")
