"""All of the page by the keyboard alone: where Tab goes, that it is seen there, and what keys do."""
import pytest
from selenium.webdriver.common.keys import Keys

from consoletest.browser import DESK

LAPTOP = (1024, 768)  # px
MOST_STOPS = 200
VIEWS = ("ap", "air", "state", "commands", "talk")
# Tables are made anew every second, so stops are known by their names; a second visit ends the round.
NAMES = """
    const nameOf = (node) => [node.tagName, node.id || node.closest("form")?.dataset.form, node.getAttribute("aria-label"),
        node.labels?.[0]?.textContent, node.name || (/^(A|BUTTON)$/.test(node.tagName) ? node.textContent : "")].join(" ");"""
VISIT = NAMES + """
    const node = document.activeElement, name = nameOf(node);
    if (node === document.body || window.visited.has(name)) return null;
    window.visited.add(name);
    const box = node.getBoundingClientRect(), style = getComputedStyle(node);
    const at = document.elementFromPoint(Math.max(box.left, 0) + Math.min(box.width, 20) / 2,
        Math.max(box.top, 0) + Math.min(box.height, 20) / 2);
    return {name, part: node.closest("#top, #tabs, #view, #talk")?.id ?? "first",
        outline: style.outlineStyle === "none" ? 0 : parseFloat(style.outlineWidth), top: box.top, left: box.left,
        inSight: box.bottom > 0 && box.top < innerHeight && box.right > 0 && box.left < innerWidth,
        uncovered: Boolean(at) && (node.contains(at) || at.contains(node) || at.tagName === "LABEL")};"""
REACHABLE = NAMES + """
    return [...document.querySelectorAll("a[href], button, input, select, textarea, [tabindex='0']")]
        .filter((node) => node.checkVisibility({visibilityProperty: true}) && !node.disabled && !window.visited.has(nameOf(node)))
        .map((node) => node.outerHTML.slice(0, 100))"""


def round_of(page):
    """What Tab comes to, from the beginning."""
    page.keys(Keys.TAB)  # the page has the focus, and shows it
    page.script("window.visited = new Set(); document.querySelector('.skip').focus()")
    stops = []
    while (stop := page.script(VISIT)) is not None:
        stops.append(stop)
        assert len(stops) < MOST_STOPS
        page.keys_to_focus(Keys.TAB)
    return stops


@pytest.mark.parametrize("size", [DESK, LAPTOP], ids=["desk", "laptop"])
def test_tab_comes_to_everything_and_is_seen_there(office, page, size):
    _, console = office
    page.fresh(size)
    page.open(console)
    for view in VIEWS:
        page.go(view)
        page.until(lambda: page.text("#content" if view != "talk" else "#talk .rows"), view)
        stops = round_of(page)
        assert not page.script(REACHABLE), view
        for stop in stops:
            assert stop["outline"] >= 2 and stop["inSight"] and stop["uncovered"], (view, stop)
        parts = [stop["part"] for stop in stops]
        assert parts == sorted(parts, key=parts.index), (view, parts)  # never back to an earlier one
        talk = [stop["top"] for stop in stops if stop["part"] == "talk"]
        assert all(one <= other + 20 for one, other in zip(talk, talk[1:])), (view, talk)


def test_link_of_a_view_is_followed_by_enter(office, page):
    _, console = office
    page.open(console)
    page.script("document.querySelector(\"#tabs [data-view=state]\").focus()")
    page.keys_to_focus(Keys.ENTER)
    page.until(lambda: page.script("return document.body.dataset.view") == "state", "the view")
    page.keys(Keys.TAB)
    assert page.script("return document.body.dataset.view") == "state"


def test_message_keeps_the_focus_and_gives_it_back(office, page):
    _, console = office
    page.open(console, "talk")
    page.until(lambda: page.all("#talk .row:not([hidden])"), "events")
    page.script("document.querySelector('.rows').focus()")
    page.keys(Keys.HOME, Keys.ENTER, selector=".rows")
    page.until(lambda: page.all("#message table"), "a message")
    for _ in range(4):
        page.keys_to_focus(Keys.TAB)
        assert page.script("return document.activeElement === document.body || "
                           "document.querySelector('#message').contains(document.activeElement)")
    page.keys_to_focus(Keys.ESCAPE)
    page.until(lambda: not page.one("#message").is_displayed(), "it is closed")
    assert page.script("return document.activeElement.className") == "rows"


def test_skip_link_leads_to_the_view(office, page):
    _, console = office
    page.open(console, "state")
    page.keys(Keys.TAB)
    page.keys_to_focus(Keys.ENTER)
    assert page.script("return document.activeElement.id") == "view"
    assert page.script("return document.body.dataset.view") == "state"


def test_form_is_filled_in_and_sent_by_keys(office, page):
    _, console = office
    page.open(console, "commands")
    page.until(lambda: page.all("form[data-form='status']"), "the forms")
    page.script("document.querySelector(\"form[data-form='status'] button\").focus()")
    page.keys_to_focus(Keys.ENTER)
    page.until(lambda: page.all(".result[data-outcome=done]"), "its outcome", 60)
    assert page.script("return document.activeElement.textContent") == "Run"  # where it was


def test_table_that_is_made_anew_keeps_the_focus(own_office, page):
    handle, console = own_office
    page.open(console)
    page.until_text("[aria-label=Clients]", "-48 dBm")
    page.script("document.querySelector('[aria-label=Clients]').focus()")
    handle.ap("station-set", mac="02:1a:2b:00:00:01", given={"rssi": -80})
    page.until_text("[aria-label=Clients]", "-80 dBm")
    assert page.script("return document.activeElement.getAttribute('aria-label')") == "Clients"
