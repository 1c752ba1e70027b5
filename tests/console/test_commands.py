"""Every form: what it offers, and that its effect is seen where it takes place."""
import pytest
from selenium.webdriver.support.ui import Select

from consoletest.forms import field, form, run
from labconsole.forms import LEFT_OUT
from labshow import console as commands
from labshow.rrm_console import RrmConsole
from labshow.show import Show


QUIET = 0.4  # seconds without an event that end a command's output


@pytest.fixture
def desk(office, page, monkeypatch):
    """The office's commands on a page: (LabHandle, page). They wait for what must follow as ever, and
    less for what may follow."""
    monkeypatch.setattr(commands, "QUIET", QUIET)
    handle, console = office
    page.open(console, "commands")
    page.until(lambda: page.all(form("channel")), "the forms")
    yield handle, page
    handle.ap("fault-clear")


def radio(handle, name):
    return next(entry for entry in handle.ap("status")["radios"] if entry["ifname"] == name)


def clients(handle, vap):
    return {station["mac"] for entry in handle.ap("status")["radios"] for one in entry["vaps"]
            if one["ifname"] == vap for station in one["stations"]}


def test_channel_reaches_the_radio(desk):
    handle, page = desk
    said = run(page, "channel", radio="wlan1", channel=100, bandwidth=40, side="lower")
    assert radio(handle, "wlan1")["channel"] == 100 and radio(handle, "wlan1")["bandwidth"] == 40
    assert "rrm-info" in said  # what was sent
    run(page, "channel", radio="wlan1", channel=36, bandwidth=80)
    assert radio(handle, "wlan1")["channel"] == 36


def test_choices_and_limits_are_those_of_the_radio(desk):
    _, page = desk

    def offered():
        return [option.get_attribute("value") for option in
                page.all(field("channel", "channel") + " option")]
    page.choose(field("channel", "radio"), "wlan0")
    assert offered() == [str(channel) for channel in range(1, 14)]
    page.choose(field("channel", "radio"), "wlan1")
    assert offered()[0] == "36" and "161" in offered()
    page.choose(field("power", "radio"), "wlan1")
    power = page.one(field("power", "power"))
    assert (power.get_attribute("min"), power.get_attribute("max")) == ("10", "23")
    assert "10 to 23 dBm" in page.text(form("power"))


def test_power_reaches_the_radio(desk):
    handle, page = desk
    run(page, "power", radio="wlan0", power=12)
    assert radio(handle, "wlan0")["tx-power"] == 12
    run(page, "power", radio="wlan0", power=16)


def test_what_lies_beyond_the_limits_is_not_even_sent(desk):
    handle, page = desk
    since = handle.mark()
    page.choose(field("power", "radio"), "wlan0")
    page.fill(field("power", "power"), "99")
    page.press(f"{form('power')} button[type=submit]")
    assert page.script("return !document.querySelector(arguments[0]).checkValidity()",
                       form("power"))
    assert not handle.events(since, what="rrm-info")


def test_refusal_is_shown_with_its_reason(desk):
    _, page = desk
    said = run(page, "client add", "refused", VAP="wlan0-va0", address="nobody")
    assert "no MAC address" in said


def test_survey_is_reported(desk):
    handle, page = desk
    since = handle.mark()
    said = run(page, "scan", channels="1 36")
    assert "rrm-update" in said
    assert handle.events(since, what="rrm-response")


def test_survey_of_the_vendor_is_asked_for(desk):
    handle, page = desk
    since = handle.mark()
    run(page, "scan", channels="1 36", path="--vendor")
    asked = handle.events(since, what="rrm-update")[0]["data"]
    assert asked["vexor-rrm-scanning"] == 1 and asked["rrm-scan-channels"] == "1 36"


def test_neighbours_reach_the_driver_and_hostapd(desk):
    handle, page = desk
    run(page, "neighbours")
    page.until(lambda: any(report["lines"] for report in handle.ap("reports")) and
               handle.ap("hostapd-neighbours"), "the lists")


def test_fast_transition_reaches_the_network_manager(desk):
    handle, page = desk
    since = handle.mark()
    run(page, "ft", state="on")
    handle.wait("update-orvanta-fbt-response", since)
    run(page, "ft", state="off")
    handle.wait("reset-orvanta-fbt-response", since)


def test_client_comes_moves_is_steered_and_goes(desk):
    handle, page = desk
    mac = "02:1a:2b:00:00:99"
    run(page, "client add", VAP="wlan0-va0", address=mac, signal=-90)
    assert mac in clients(handle, "wlan0-va0")
    page.until(lambda: page.all(f"{field('client move', 'client')} option[value='{mac}']"), "choice")
    run(page, "client move", client=mac, VAP="wlan1-va0")
    assert mac in clients(handle, "wlan1-va0") and mac not in clients(handle, "wlan0-va0")
    run(page, "client remove", client=mac)
    assert mac not in clients(handle, "wlan1-va0")


def test_weakest_client_is_steered_away(desk):
    handle, page = desk
    handle.ap("station-add", vap="wlan0-va1", mac="02:1a:2b:00:00:98", rssi=-92)
    handle.settle()
    run(page, "steer", radio="wlan0", count=1)
    page.until(lambda: "02:1a:2b:00:00:98" not in clients(handle, "wlan0-va1"), "it has moved")


def test_message_is_sent_as_it_stands(desk):
    handle, page = desk
    since = handle.mark()
    chooser = Select(page.one("[aria-label=Example]"))
    chooser.select_by_index([option.text.startswith("rrm-request-mode")
                             for option in chooser.options].index(True))
    run(page, "send")
    assert handle.events(since, what="rrm-request-mode", from_="service")
    handle.wait("rrm-mode-response", since)


def test_dropped_link_comes_back(desk):
    handle, page = desk
    since = handle.mark()
    run(page, "drop-link")
    assert handle.events(since, what="disconnected") and handle.events(since, what="connected")


def test_hostapd_goes_and_comes(desk):
    handle, page = desk
    run(page, "hostapd", action="stop")
    assert handle.ap("status")["hostapd"] is False
    run(page, "hostapd", action="start")
    assert handle.ap("status")["hostapd"] is True


def test_lumd_restarts(desk):
    handle, page = desk
    pid = handle.lab.lumd.pid
    run(page, "restart")
    assert handle.lab.lumd.running and handle.lab.lumd.pid != pid


def test_faults_are_made_shown_and_cleared(desk):
    handle, page = desk
    run(page, "fault", call="vendor", errno="EIO", times=3)
    assert handle.ap("fault-list")[0]["errno"] == "EIO"
    run(page, "fault daemon", daemon="scand", action="stop")
    assert handle.ap("status")["daemons"]["scand"] is False
    run(page, "fault daemon answer", daemon="hubd", answer="silent")
    assert handle.lab.ap.daemons["hubd"].behaviour.answer == "silent"
    page.go("state")
    page.until_text("#content", "errno=EIO", "daemon=scand state=stopped", "answer=silent")
    page.go("commands")
    run(page, "fault clear")
    assert not handle.ap("fault-list") and handle.ap("status")["daemons"]["scand"] is True


def test_command_under_way_can_be_left(desk):
    handle, page = desk
    handle.ap("daemon", name="hubd", answer="silent")
    page.choose(field("channel", "radio"), "wlan0")
    page.choose(field("channel", "channel"), "11")
    handle.set_speed(1)
    try:
        page.press(f"{form('channel')} button[type=submit]")
        page.until_text(".busy", "channel wlan0 11")
        page.until(lambda: page.one(".became button:not(.event)").is_enabled(), "it can be stopped")
        page.press(".became .log-head button")
        page.until(lambda: page.all("[data-outcome=interrupted]"), "it was left")
    finally:
        handle.set_speed(10)
        run(page, "fault clear")


def test_every_command_of_the_prompt_has_a_form(desk):
    handle, page = desk
    known = set(RrmConsole(handle.lab, Show(machine=True)).commands()) - LEFT_OUT
    assert {node.get_attribute("data-form").split()[0] for node in page.all("form")} == known
