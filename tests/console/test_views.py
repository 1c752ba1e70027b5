"""What stands in each view of a known scenario, and what a person does there."""
import json
import pathlib

from selenium.webdriver.common.keys import Keys

from consoletest.view import PlayedView
from labconsole import explain
from labconsole.tape import TapeView

RECORDING = pathlib.Path(__file__).resolve().parents[1] / "system/recordings/office-day.jsonl.gz"
ROWS = "#talk .row:not([hidden])"


def command(page, line):
    """What became of a command that the page's script gives."""
    outcome = page.driver.execute_async_script("""
        const [line, done] = arguments;
        consolePage.link.ask("command", {line}).then((answer) => done(answer.outcome));""", line)
    assert outcome["outcome"] == "done", outcome
    return outcome


def played_view(count):
    view = PlayedView("played")
    for number in range(count):
        view.journal.add("lumd", "service", "played", {"number": number})
    return view


def test_air_shows_what_was_heard_over_its_channels(own_office, page):
    handle, console = own_office
    page.open(console, "air")
    page.until_text("#content", "No survey yet")
    command(page, "scan 1 6 11 36 52")
    page.until_text("#content", "networks in 5 passes", "first survey")
    heard = {entry["bssid"]: entry for entry in handle.lab.service.ap().neighbours()}
    drawn = {shape.get_attribute("data-bssid"): shape for shape in page.all("path.heard")}
    assert set(drawn) == set(heard)
    rows = page.text("[aria-label='Networks heard']")
    for bssid, entry in heard.items():
        assert bssid in rows and f"{entry['rssi']} dBm" in rows
    wide = drawn["00:11:22:33:50:59"]  # 80 MHz
    narrow = drawn["4e:00:10:00:05:08"]  # 20 MHz on the same channel
    assert wide.size["width"] > 3 * narrow.size["width"]
    assert wide.size["height"] > narrow.size["height"]  # -64 and -75 dBm
    assert "wlan0: 6, 20 MHz" in page.text(".band[data-band='2.4GHz']")
    assert "wlan1: 36, 80 MHz" in page.text(".band[data-band='5GHz']")


def test_air_tells_what_changed_since_the_survey_before(own_office, page):
    handle, console = own_office
    page.open(console, "air")
    command(page, "scan 1 36")
    page.until_text("#content", "first survey")
    handle.ap("neighbour-remove", bssid="00:11:22:33:50:51")
    handle.ap("neighbour-add", bssid="4e:00:10:00:09:09", channel=1, ssid="newcomer", signal=-50)
    command(page, "scan 1 36")
    page.until_text("[aria-label='Since the survey before']", "newcomer 4e:00:10:00:09:09", "new,",
                    "office 00:11:22:33:50:51", "gone")


def test_client_that_roams_is_followed(own_office, page):
    handle, console = own_office
    page.open(console)
    command(page, "neighbours")
    command(page, "steer wlan0 1")
    page.until_text("[aria-label='Clients that roamed']", "02:1a:2b:00:00:04", "00:11:22:33:50:51")
    page.until(lambda: "02:1a:2b:00:00:04" not in page.text("[aria-label=Clients]"), "it is gone")


def test_client_has_a_history_of_its_signal(own_office, page):
    handle, console = own_office
    page.open(console)
    handle.ap("station-set", mac="02:1a:2b:00:00:01", given={"rssi": -80})
    page.until(lambda: any("from -48 to -80 dBm" in svg.get_attribute("aria-label")
                           for svg in page.all("svg.spark")), "a signal that falls")


def test_event_that_is_told_of_late_stands_at_its_time(played, page):
    """Frames of the air are read once a second."""
    view = played_view(0)

    def add(*times):
        for seconds in times:
            view.journal.add("lumd", "service", f"at-{seconds}")["t"] = float(seconds)
    played.loop.call_soon_threadsafe(add, *range(100, 200))
    played.present([view], "played")
    page.open(played, "talk")
    page.until_text("#talk .rows", "at-199")
    page.keys("p")
    page.script("document.querySelector('.rows').scrollTop -= 1000")
    rows = "return [...document.querySelectorAll('#talk .row:not([hidden])')].filter((row) =>" \
        " row.getBoundingClientRect().top >= row.parentNode.getBoundingClientRect().top)" \
        ".map((row) => row.querySelector('.what').textContent).sort()"
    page.until(lambda: "at-199" not in page.text("#talk .rows"), "an earlier place")
    before = page.script(rows)
    played.loop.call_soon_threadsafe(add, 120.5, 198.5, 99)
    page.until(lambda: page.script("return consolePage.store.last") == 103, "the late ones")
    shown = page.script("return consolePage.store.shown.map((event) => event[1])")
    assert shown == sorted(shown)
    page.until(lambda: page.script(rows)[:5] == before[:5], "what was looked at stays in its place")


def test_message_opens_with_what_its_schema_says(office, page):
    _, console = office
    page.open(console, "talk")
    page.fill("[aria-label='Filter by text']", "subscribe-request")
    page.until_text("#talk .rows", "subscribe-request")
    next(row for row in page.all(ROWS) if "subscribe-request" in row.text).click()
    page.until_text("#message", "power-max", "Most that may be set", "dBm", "office-floor-2",
                    "lumd → service: subscribe-request")
    page.keys(Keys.ESCAPE)
    page.until(lambda: not page.one("#message").is_displayed(), "the message is closed")


def test_conversation_is_filtered_by_kind_client_radio_and_text(office, page):
    handle, console = office
    page.open(console, "talk")
    page.until(lambda: page.all("[aria-label='Filter by radio'] option[value=wlan1]"), "radios")

    def shown():
        return page.script("return consolePage.store.shown")

    for kind in ("bus", "driver", "hostapd", "lumd"):
        page.press(f"label[data-kind={kind}] input")
    assert {event[8] for event in shown()} == {"service"}
    for kind in ("driver", "hostapd", "reads"):
        page.press(f"label[data-kind={kind}] input")
    page.choose("[aria-label='Filter by radio']", "wlan1")
    assert shown() and all("wlan1" in event[9] for event in shown())
    page.choose("[aria-label='Filter by radio']", "")
    page.choose("[aria-label='Filter by client']", "02:1a:2b:00:00:07")
    assert shown() and all("02:1a:2b:00:00:07" in event[9] for event in shown())
    page.choose("[aria-label='Filter by client']", "")
    page.fill("[aria-label='Filter by text']", "subscribe-resp")
    page.until(lambda: {event[6] for event in shown()} == {"subscribe-response"}, "one kind")


def test_conversation_pauses_and_goes_on(office, page):
    handle, console = office
    page.open(console, "talk")
    page.until(lambda: page.all(ROWS), "events")
    page.keys("p")
    assert page.one(".pause").get_attribute("aria-pressed") == "true"
    top = page.script("return document.querySelector('.rows').scrollTop")
    for _ in range(3):
        since = handle.mark()
        handle.send({"cmd": "rrm-request-mode"})
        handle.wait("rrm-mode-response", since)
    last = handle.mark()
    page.until(lambda: page.script("return consolePage.store.last") >= last, "events come")
    assert page.script("return document.querySelector('.rows').scrollTop") == top
    page.press(".pause")
    page.until(lambda: page.script(
        "const list = document.querySelector('.rows');"
        "return list.scrollTop + list.clientHeight >= list.scrollHeight - 2"), "the end is shown")


def test_page_that_comes_late_scrolls_back_to_the_beginning(played, page):
    view = played_view(3500)
    played.present([view], "played")
    page.open(played, "talk")
    page.until(lambda: page.script("return consolePage.store.last") == 3500, "the newest event")
    assert page.script("return consolePage.store.events[0][0]") > 1
    page.until(lambda: page.script(
        "document.querySelector('.rows').scrollTop = 0;"
        "return consolePage.store.events[0][0]") == 1, "the first event")
    assert page.script("return consolePage.store.events.length") == 3500


def test_empty_conversation_says_why(played, page):
    view = played_view(0)
    played.present([view], "played")
    page.open(played, "talk")
    page.until_text("#talk .nothing", "Nothing was said yet")
    played.loop.call_soon_threadsafe(view.journal.add, "lumd", "service", "first")
    page.until(lambda: page.text("#talk .nothing") == "", "an event")
    page.fill("[aria-label='Filter by text']", "another")
    page.until_text("#talk .nothing", "Nothing passes the filters")


def test_gap_in_time_is_marked(played, page):
    view = played_view(0)

    def add():
        view.journal.add("lumd", "service", "first")["t"] = 100.0
        view.journal.add("lumd", "service", "second")["t"] = 137.5
    played.loop.call_soon_threadsafe(add)
    played.present([view], "played")
    page.open(played, "talk")
    page.until_text("#talk .rows", "+ 37.5 s")


def test_keyboard_alone_reaches_a_message(office, page):
    _, console = office
    page.open(console)
    page.keys("2")
    page.until(lambda: page.script("return document.body.dataset.view") == "air", "the second view")
    page.keys("5")
    page.until(lambda: page.all(ROWS), "events")
    page.keys(Keys.END, selector=".rows")
    page.keys(Keys.ARROW_UP, Keys.ENTER, selector=".rows")
    page.until(lambda: page.one("#message").is_displayed(), "a message is open")


def test_state_shows_link_timers_daemons_and_the_log(office, page):
    _, console = office
    page.open(console, "state")
    page.until_text("#content", "connected", "subscribed", "office-floor-2", "ping",
                    "until lumd pings", "hubd", "guardd is away", "Nothing is made to fail")
    page.until(lambda: len(page.all(".log div")) > 10, "lines of the log")
    page.fill("[aria-label='Filter the log']", "receive_pong")
    page.until(lambda: page.text(".log div") and all(
        "receive_pong" in line for line in page.text(".log div").splitlines() if line),
        "those that are wanted")


def test_timer_of_a_survey_runs_and_ends(own_office, page):
    handle, console = own_office
    handle.set_speed(1)  # a survey of one channel a band takes 5 s
    page.open(console, "state")
    handle.send({"cmd": "rrm-update", "rrm-scan-channels": "1 36", "rrm-scan-delay": 0,
                 "vexor-rrm-scanning": 0})
    page.until_text(".timers", "survey")
    handle.set_speed(20)
    page.until(lambda: "survey" not in page.text(".timers"), "the survey ends")


def test_recording_stands_on_the_page_as_the_lab_did(played, page):
    played.present([TapeView(RECORDING)], RECORDING.name)
    page.open(played, "talk")
    page.until_text("#status", "a recording of the rrm mode")
    page.fill("[aria-label='Filter by text']", "rrm-response")
    page.until_text("#talk .rows", "rrm-response")
    page.fill("[aria-label='Filter by text']", " ")
    page.script("document.querySelector('.rows').scrollTop = 0")
    page.until(lambda: "0.044 s" in page.text("#talk .rows"), "its beginning")
    page.go("air")
    page.until_text("#content", "networks in 5 passes")
    page.go("ap")
    page.until_text("[aria-label='Clients that roamed']", "02:1a:2b:00:00:77")
    page.go("commands")
    page.until_text("#content", "takes no commands")


def test_theme_follows_the_system_and_the_switch(office, page):
    _, console = office

    def ground():
        return page.script("return getComputedStyle(document.body).backgroundColor")

    page.open(console)
    light = ground()
    page.press("#theme")
    page.press("#theme")
    assert page.one("#theme").text == "Theme: dark" and ground() != light
    dark = ground()
    page.open(console)
    assert ground() == dark  # remembered
    page.press("#theme")
    page.fresh(dark=True)
    page.open(console)
    assert page.one("#theme").text == "Theme: system" and ground() == dark


def test_explanations_are_those_of_the_schemas(office):
    handle, console = office
    event = handle.wait("subscribe-request")
    rows = explain.opened(event, "rrm")["rows"]
    said = {name: text for _, name, _, text in rows}
    schema = json.loads((RECORDING.parents[3] / "schemas/common.json").read_text())["$defs"]
    assert said["eirp"].startswith(schema["radio"]["properties"]["eirp"]["description"])
    assert "dBm" in said["power"]
