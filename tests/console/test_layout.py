"""How the views lie at the widths of a desk, a small screen and a phone."""
import pytest

from consoletest.browser import DESK, PHONE

TABLET = (1024, 768)   # px
LAPTOP = (1280, 800)   # the conversation stands beside the view
NARROW = (360, 780)
SCROLLED = """
    return [...document.querySelectorAll("*")].filter((node) => node.scrollWidth > node.clientWidth &&
            /auto|scroll/.test(getComputedStyle(node).overflowX) && node.clientWidth)
        .map((node) => `${node.className} ${node.getAttribute("aria-label")}: ${node.scrollWidth} of ${node.clientWidth}`)"""
BEYOND = """
    return [...document.querySelectorAll("td, th, svg, input, select, button, textarea, .badge")]
        .filter((node) => node.checkVisibility() && node.getBoundingClientRect().right > innerWidth)
        .map((node) => node.outerHTML.slice(0, 80))"""
BOXES = """
    return [...document.querySelectorAll(`.band[data-band='${arguments[0]}'] ${arguments[1]}`)].map((node) => {
        const {left, right, top, bottom} = node.getBoundingClientRect();
        return {text: node.textContent, left, right, top, bottom};
    })"""
ROWS = "#talk .row:not([hidden])"
LINE_PX = 2.0  # by which boxes of letters that do not touch may overlap


@pytest.fixture(scope="module")
def surveyed(office):
    """The office after a survey of all that is there, with a client whose row is as wide as any."""
    handle, console = office
    since = handle.mark()
    handle.send({"cmd": "rrm-update", "rrm-scan-channels": "1 6 11 36 40 44 48 52 60 100 149",
                 "rrm-scan-delay": 0, "vexor-rrm-scanning": 0})
    handle.wait("rrm-response", since, timeout=60)
    handle.ap("station-set", mac="02:1a:2b:00:00:03", given={"roam-attempt": True})
    return console


def overlap(one, other):
    return min(one["right"], other["right"]) - max(one["left"], other["left"]) > LINE_PX and \
        min(one["bottom"], other["bottom"]) - max(one["top"], other["top"]) > LINE_PX


@pytest.mark.parametrize("size", [DESK, LAPTOP, (1279, 800), TABLET, (721, 800), (720, 800)],
                         ids=lambda size: f"{size[0]}")
def test_tables_need_no_scrolling_sideways(surveyed, page, size):
    page.fresh(size)
    page.open(surveyed)
    page.until_text("[aria-label=Clients]", "-48 dBm")
    for view in ("ap", "air"):
        page.go(view)
        assert not page.script(SCROLLED), view


@pytest.mark.parametrize("size", [NARROW, PHONE], ids=["narrow", "phone"])
def test_nothing_goes_sideways_on_a_phone(surveyed, page, size):
    page.fresh(size)
    page.open(surveyed)
    page.until_text("[aria-label=Clients]", "-48 dBm")
    for view in ("ap", "air", "state", "commands", "talk"):
        page.go(view)
        page.until(lambda: page.text("#content" if view != "talk" else "#talk .rows"), view)
        assert not page.script(SCROLLED), view
        assert not page.script(BEYOND), view
        assert page.script("return document.documentElement.scrollWidth") == size[0], view
    page.until(lambda: page.all(ROWS), "events")
    page.all(ROWS)[-1].click()
    page.until(lambda: page.all("#message table"), "a message")
    assert not page.script(SCROLLED) and not page.script(BEYOND)


def test_rows_of_tables_are_cards_on_a_phone(surveyed, page):
    """A cell has the head of its column before it."""
    page.fresh(NARROW)
    page.open(surveyed)
    page.until_text("[aria-label=Clients]", "-48 dBm")
    heads = page.script("""
        const row = document.querySelector("[aria-label=Clients] tbody tr");
        return [...row.children].map((cell) => getComputedStyle(cell, "::before").content)""")
    assert heads == [f'"{head}"' for head in ("client", "on", "SSID", "signal", "two minutes", "known",
                                               "802.11v")]
    page.fresh(TABLET)
    page.open(surveyed)
    page.until_text("[aria-label=Clients]", "-48 dBm")
    assert page.script("""
        const cell = document.querySelector("[aria-label=Clients] tbody td");
        return getComputedStyle(cell, "::before").content""") == "none"


def test_band_of_several_pieces_has_a_drawing_for_each_on_a_phone(surveyed, page):
    page.fresh(NARROW)
    page.open(surveyed, "air")
    page.until(lambda: page.all("path.heard"), "networks")
    assert len(page.all(".band[data-band='2.4GHz'] svg")) == 1
    assert len(page.all(".band[data-band='5GHz'] svg")) == 2
    on_phone = sorted(path.get_attribute("data-bssid") for path in page.all("path.heard"))
    page.fresh(DESK)
    page.open(surveyed, "air")
    page.until(lambda: page.all("path.heard"), "networks")
    assert len(page.all(".band[data-band='5GHz'] svg")) == 1
    assert on_phone == sorted(path.get_attribute("data-bssid") for path in page.all("path.heard"))


@pytest.mark.parametrize("size", [DESK, LAPTOP, TABLET, PHONE, NARROW],
                         ids=["desk", "laptop", "tablet", "phone", "narrow"])
@pytest.mark.parametrize("band", ["2.4GHz", "5GHz"])
def test_names_of_networks_do_not_overlap(surveyed, page, size, band):
    page.fresh(size)
    page.open(surveyed, "air")
    page.until(lambda: page.all("path.heard"), "networks")
    names = page.script(BOXES, band, "text.name")
    assert len(names) >= 5
    found = [(one["text"], other["text"]) for index, one in enumerate(names)
             for other in names[:index] if overlap(one, other)]
    assert not found
    drawing = page.script(BOXES, band, "svg")[0]
    for text in names + page.script(BOXES, band, ".own text") + page.script(BOXES, band, ".tick"):
        assert drawing["left"] <= text["left"] and text["right"] <= drawing["right"], text


@pytest.mark.parametrize("size", [DESK, NARROW], ids=["desk", "narrow"])
@pytest.mark.parametrize("what", ["circle.load", ".tick[text-anchor=middle]"],
                         ids=["figures", "channels"])
def test_what_stands_below_the_axis_does_not_overlap(surveyed, page, size, what):
    page.fresh(size)
    page.open(surveyed, "air")
    page.until(lambda: page.all("path.heard"), "networks")
    boxes = page.script(BOXES, "5GHz", what)
    assert len(boxes) >= 6
    assert not [(one["text"], other["text"]) for index, one in enumerate(boxes)
                for other in boxes[:index] if overlap(one, other)]
