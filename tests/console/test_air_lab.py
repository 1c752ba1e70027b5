"""Access points of the second lab on the page: a guest that a test plays, the rest as it is."""
import json

import pytest

from consoletest.forms import form, run
from consoletest.guest import BSSIDS, CLIENT, NEIGHBOUR, PlayedAir, octets
from labair import airview, commands, frames
from labair.airtalk import content, name
from labconsole.transcript import Transcript

# 9.6.13.9: token 1, candidates and disassociation imminent, timer 10, validity 200; 9.4.2.36: BSSID
# information, operating class 81, channel 6, HT, preference 255.
REQUEST = bytes.fromhex("0a07" "01" "05" "0a00" "c8") + bytes.fromhex("3410") + \
    octets(NEIGHBOUR) + bytes.fromhex("8f000000" "51" "06" "07" "0301ff")
DEAUTHENTICATION = 12  # 9.2.4.1.3
REPORT = {"rf-environment": [[{"bssid": NEIGHBOUR, "rssi": -70, "channel": 1, "tx-power": 0,
                               "primary-channel": "none", "bandwidth": 20}]]}


@pytest.fixture
def air(played, page):
    """The air on a page, its first access point subscribed."""
    async def make():
        return await PlayedAir.make()
    lab = played.run(make())
    played.run(lab.subscribe())
    played.present(lab.views, "real 802.11")
    page.open(played)
    page.until_text("#status", "subscribed")
    lab.run = played.run
    yield lab
    played.clear()
    played.run(lab.stop())


def test_radios_and_clients_are_those_of_the_kernel(air, page):
    page.until_text("[data-radio=wlan0]", "the radio is on channel 1, 15 dBm")  # lumd told 6 and 16
    page.until_text("[data-radio=wlan1]", "80 MHz", "nl80211", "up")
    page.until_text("[aria-label=VAPs]", BSSIDS[0], BSSIDS[1], "WPA2_PSK", "office")
    page.until_text("[aria-label=Clients]", CLIENT, "-41 dBm", "no")
    air.run(air.say("rrm-client-assoc", **{"sta-mac": CLIENT, "radio": 0}))
    page.until_text("[aria-label=Clients]", CLIENT, "yes")
    air.guest.capture(frames.ASSOCIATION_REQUEST, bytes(4) + bytes.fromhex("7f03000008"), BSSIDS[0],
                      CLIENT)
    page.until(lambda: page.text("[aria-label=Clients] td:last-child") == "yes", "it takes 802.11v")
    air.guest.stations["wlan0-va0"] = {}
    page.until(lambda: CLIENT not in page.text("[aria-label=Clients]"), "it is gone")
    air.guest.interfaces = {}
    page.until_text("[data-radio=wlan0]", "down")


def test_frames_stand_in_the_conversation_of_whom_they_concern(air, page):
    page.go("talk")
    air.guest.capture(frames.AUTHENTICATION, bytes.fromhex("0200"), BSSIDS[0], CLIENT)
    air.guest.capture(frames.ACTION, REQUEST, CLIENT, BSSIDS[0])
    air.guest.capture(frames.ACTION, REQUEST, CLIENT, NEIGHBOUR)
    page.until_text("#talk .rows", "subscribe-request", "authentication", "bss-transition-request")
    shown = [event for event in page.script("return consolePage.store.shown")
             if event[6] in ("authentication", "bss-transition-request")]
    assert [(event[4], event[5]) for event in shown] == [("client", "hostapd"),
                                                         ("hostapd", "client")]
    page.press(f"#event-{shown[1][0]}")
    page.until_text("#message", "candidates", NEIGHBOUR, "disassociates", "c1")


def test_survey_has_the_load_that_the_kernel_measured(air, page):
    page.go("air")
    page.until_text("#content", "No survey yet")
    air.run(air.say("rrm-response", **REPORT))
    page.until_text("#content", "1 networks in 1 pass", NEIGHBOUR)
    page.until(lambda: page.script("return document.querySelector(\"text.load[data-channel='1']\")"
                                   "?.textContent") == "25", "a quarter of the time")
    assert not page.all("text.load[data-channel='36']")  # nobody measured there
    cut = page.script("""return [...document.querySelectorAll("svg.spectrum text")]
                         .filter((text) => text.getBBox().x < 0).map((text) => text.textContent)""")
    assert not cut, f"begins outside of its drawing: {cut}"


def test_commands_are_taken_once_the_tour_is_over(air, page, monkeypatch):
    monkeypatch.setattr(airview, "QUIET", 0.4)
    page.go("commands")
    page.until(lambda: page.all(form("send")), "the forms")
    assert "tour is under way" in run(page, "drop-link", "refused")
    air.views[0].doing = "Clients join"
    page.until_text("#status", "Now: Clients join")
    air.views[0].takes_commands, air.views[0].doing = True, ""
    page.until(lambda: "Now" not in page.text("#status"), "the tour is over")
    page.fill(f"{form('send')} textarea", json.dumps({"cmd": "rrm-request-mode"}))
    assert "rrm-request-mode" in run(page, "send")
    assert "subscribe-response" in air.run(air.hear())["cmd"]
    assert air.run(air.hear())["cmd"] == "rrm-request-mode"
    run(page, "daemon", daemon="hostapd", action="stop")
    page.go("state")
    page.until_text("#content", "hostapd is away")
    page.go("commands")
    assert "does not run" in run(page, "daemon", "refused", daemon="hostapd", action="stop")
    run(page, "daemon", daemon="hostapd", action="start")
    page.go("state")
    page.until(lambda: "away" not in page.text("#content"), "it runs again")


def commanded(air, name):
    """The messages of a kind that lumd was sent."""
    return [message for message in air.obeyed if message["cmd"] == name]


def test_radios_and_clients_are_commanded_by_forms(air, page, monkeypatch):
    """What the kernel has then is told besides what was sent."""
    monkeypatch.setattr(airview, "QUIET", 0.4)
    air.views[0].takes_commands = True
    air.run(air.obey())
    page.go("commands")
    page.until(lambda: page.all(form("channel")), "forms for the radios that lumd told of")
    assert "rrm-info" in run(page, "channel", radio="wlan0", channel=11, bandwidth=20)
    assert commanded(air, "rrm-info")[-1]["radios"] == [{"id": 0, "channel": 11, "bandwidth": 20}]
    page.until_text(".result:first-child", "What the command shows")  # there is no prompt here
    page.press(".result:first-child details:last-of-type summary")
    page.until_text(".result:first-child pre", "wlan0: channel 11, 20 MHz, 15 dBm, 1 clients")
    run(page, "power", radio="wlan1", power=17)
    assert air.guest.interfaces["wlan1-va0"]["power"] == 17
    run(page, "scan", channels="1 36")
    assert commanded(air, "rrm-update")[-1]["rrm-scan-channels"] == "1 36"
    run(page, "neighbours")
    listed, = commanded(air, "rrm-info")[-1]["802dot11k"]
    assert listed["channel"] == 6 and listed["vaps"][0]["mac"] == NEIGHBOUR
    run(page, "steer", radio="wlan0", count=1)
    assert commanded(air, "rrm-sta-overload")[-1]["radios"] == [{"id": 0, "roam-count": 1}]


def test_command_that_the_kernel_does_not_follow_fails(air, page, monkeypatch):
    monkeypatch.setattr(commands, "CHANGE_WAIT", 1.0)
    air.views[0].takes_commands = True
    page.go("commands")
    page.until(lambda: page.all(form("power")), "the forms")
    assert "not 17 dBm within 1 s" in run(page, "power", "failed", radio="wlan1", power=17)


@pytest.mark.parametrize("line,reason", [
    ("channel wlan0 36 20", "no channel 36"), ("channel wlan7 1 20", "no radio wlan7"),
    ("power wlan0 60", "60"), ("power wlan0", "missing"), ("dance", "unknown command"),
    ("send []", "is an object"), ("scan 14", "hears channel 14"), ("daemon init stop", "msgbusd|")])
def test_command_that_cannot_be_is_refused(air, page, line, reason):
    air.views[0].takes_commands = True
    outcome = air.run(air.views[0].execute(line, Transcript()))
    assert outcome.kind == "refused" and reason in outcome.reason
    assert not air.obeyed


def test_interface_that_goes_hides_nothing_else(air, page):
    """hostapd ends: its frames and lumd's log are looked at all the same."""
    page.until_text("[aria-label=Clients]", CLIENT)
    air.guest.gone = True
    air.guest.capture(DEAUTHENTICATION, bytes.fromhex("0300"), CLIENT, BSSIDS[0])
    page.go("talk")
    page.until_text("#talk .rows", "deauthentication")
    page.go("ap")
    page.until_text("[aria-label=Clients]", "nobody is associated")


def test_log_of_the_guest_is_shown_line_by_line(air, page):
    page.go("state")
    air.guest.log = b"first line\nlibwebsocket-debug: noise\nsecond li"
    page.until_text(".log", "first line")
    assert "noise" not in page.text(".log") and "second" not in page.text(".log")
    air.guest.log += b"ne\n"
    page.until_text(".log", "second line")


def test_all_access_points_are_on_the_page(air, page):
    page.go("fleet")
    page.until_text(".totals", "2 access points: 1 connected, 1 subscribed")
    page.press("[data-view-number='1']")
    page.until_text("#status", "no link")


def test_guest_is_left_alone_while_nobody_looks(air, page):
    page.until(lambda: air.guest.calls, "looks")
    page.driver.get("about:blank")

    def quiet():
        air.guest.calls.clear()
        page.driver.execute_async_script("setTimeout(arguments[0], 2500)")
        return not air.guest.calls
    page.until(quiet, "no look any more", 30)


def test_frame_that_is_none_is_told_as_broken():
    frame = frames.Frame(0.0, frames.ACTION, CLIENT, BSSIDS[0], BSSIDS[0], b"\x0a\x07\x01")
    assert name(frame) == "bss-transition-request"
    assert "no BSS transition" in content(frame)["broken"]
