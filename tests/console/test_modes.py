"""Access points of the other modes, and before somebody else's service."""
import pytest

from conftest import lab_on_a_page
from consoletest.forms import form, run
from labconsole.tape import TapeView
from labservice.endpoint import Endpoint
from labservice.server import Service
from labshow.foreign_console import ForeignConsole
from labshow.handle import running_lab
from labshow.harness import URL_KEYS
from labshow.wids_console import RECEIVED, REJECTED

OTHER_LIST = "somebody-else"


def tabs(page):
    return [tab.get_attribute("data-view") for tab in page.all("#tabs a")]


def commands(page):
    page.go("commands")
    page.until(lambda: page.all("form"), "the forms")


def test_wids_shows_each_list_and_what_became_of_it(page):
    with lab_on_a_page("wids-sentry", mode="wids") as (handle, console):
        page.open(console, "lists")
        assert tabs(page) == ["ap", "lists", "state", "commands", "talk"]
        page.until_text("#content", handle.lab.scenario["mac-list-id"], "none yet")
        assert page.text("#status") == "wids mode, connected"
        commands(page)
        run(page, "push")
        run(page, "push", name=OTHER_LIST)
        page.go("lists")
        page.until(lambda: len(page.all("[aria-label='Lists that came'] tbody tr")) == 2, "two lists")
        other, own = (row.text for row in page.all("[aria-label='Lists that came'] tbody tr"))
        assert "rejected" in other and OTHER_LIST in other and "–" in other
        assert "taken" in own and "ok" in own
        cards = page.text(".card")
        assert "00:11:22:33:44:50" in cards and "0a:00:00:00:00:66" in cards
        page.press("[aria-label='Lists that came'] tbody tr:last-child button")
        page.until_text("#message", "black-list", "MAC lists")


def test_wids_shows_the_radios_that_its_service_is_not_told_of(page):
    with lab_on_a_page("wids-sentry", mode="wids") as (_, console):
        page.open(console)
        page.until_text("[data-radio=wlan0]", "Channel\n1", "20 MHz", "not told to the service")
        page.go("state")
        page.until_text("#content", "wids", "guardd")
        assert "Subscription" not in page.text("#content")


def test_portal_shows_what_was_passed_on_either_way(page):
    with lab_on_a_page("minimal", mode="portal") as (handle, console):
        page.open(console, "relay")
        assert tabs(page) == ["ap", "relay", "state", "commands", "talk"]
        page.until_text("#content", "the portal module runs", "0 passed down, 0 passed up")
        commands(page)
        run(page, "down", text="hello portal")
        run(page, "up", text="hello service")
        page.go("relay")
        page.until_text("#content", "1 passed down, 1 passed up")
        up, down = (row.text for row in page.all("[aria-label='Passed on'] tbody tr"))
        assert "to the service" in up and "hello service" in up
        assert "to the portal module" in down and "hello portal" in down
        handle.ap("daemon", name="portal", action="stop")
        page.until_text("#content", "the portal module is away")


def test_portal_has_clients_that_no_service_need_know(page):
    with lab_on_a_page("minimal", mode="portal") as (handle, console):
        page.open(console)
        page.until_text("#status", "portal mode, connected")
        page.until_text("[aria-label=Clients]", "02:")
        assert "no" not in page.text("[aria-label=Clients] tbody").split()


@pytest.mark.parametrize("mode", sorted(URL_KEYS))
def test_recording_of_every_mode_tells_the_same(mode, tmp_path):
    path = tmp_path / "recording.jsonl"
    with running_lab("minimal", mode=mode, record=path, speed=10) as handle:
        handle.wait("connected")
        if mode == "wids":
            for name, what in ((handle.lab.scenario["mac-list-id"], RECEIVED),
                               (OTHER_LIST, REJECTED)):
                handle.send({"Name": name, "white-list": [], "black-list": ["0a:00:00:00:00:66"]})
                handle.wait(what)
            handle.wait("update-wids-mac-lists-response")
        handle.settle()
    state = TapeView(path).state()
    assert state["about"]["mode"] == mode
    assert (state["link"]["subscribed"] is None) == (mode != "rrm")
    assert {"lists", "relay"} & set(state) == {"rrm": set(), "wids": {"lists"},
                                               "portal": {"relay"}}[mode]
    if mode == "wids":
        own, other = state["lists"]["seen"]
        assert (own["outcome"], own["network-manager"]) == ("taken", "ok")
        assert own["black"] == ["0a:00:00:00:00:66"]
        assert (other["outcome"], other["network-manager"]) == ("rejected", None)


@pytest.fixture
def foreign(played):
    """Another service, as far as the lab knows."""
    async def make():
        service = Service()
        await service.start()
        return service
    service = played.run(make())
    yield service
    played.run(service.stop())


def test_service_of_somebody_else_is_shown_and_judged(foreign, played, page):
    endpoint = Endpoint.parse(f"ws://127.0.0.1:{foreign.port}/agent")
    with lab_on_a_page(commands=ForeignConsole, endpoint=endpoint) as (_, console):
        page.open(console)
        page.until_text("#status", "rrm mode, connected, subscribed")
        page.until_text("[data-radio=wlan1]", "80 MHz", "(10 to 23)")
        played.run(foreign.send({"cmd": "rrm-nonsense"}, broken=True))
        page.go("talk")
        page.until_text("#talk .rows", "rrm-nonsense", "VIOLATION")
        commands(page)
        page.until(lambda: page.all(form("report")), "its report")
        offered = {node.get_attribute("data-form") for node in page.all("form")}
        assert offered >= {"client add", "drop-link", "report"} and not offered & {"channel", "send"}
        run(page, "report")
        page.press(".result details:last-of-type summary")
        page.until_text(".result pre", "VIOLATED", "command", "rrm-nonsense")
