"""How the views lie at the widths of a desk, a small screen and a phone."""
import pytest

from consoletest.browser import DESK, PHONE

TABLET = (1024, 768)   # px
LAPTOP = (1280, 800)   # the conversation stands beside the view
SCROLLED = """
    return [...document.querySelectorAll(".scroll")].filter((node) => node.scrollWidth > node.clientWidth)
        .map((node) => `${node.getAttribute("aria-label")}: ${node.scrollWidth} of ${node.clientWidth}`)"""
BOXES = """
    return [...document.querySelectorAll(`.band[data-band='${arguments[0]}'] ${arguments[1]}`)].map((node) => {
        const {x, y, width, height} = node.getBBox();
        return {text: node.textContent, left: x, right: x + width, top: y, bottom: y + height};
    })"""
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


@pytest.mark.parametrize("size", [DESK, LAPTOP, TABLET], ids=["desk", "laptop", "tablet"])
def test_tables_need_no_scrolling_sideways(surveyed, page, size):
    page.fresh(size)
    page.open(surveyed)
    page.until_text("[aria-label=Clients]", "-48 dBm")
    for view in ("ap", "air"):
        page.go(view)
        assert not page.script(SCROLLED), view


@pytest.mark.parametrize("size", [DESK, LAPTOP, TABLET, PHONE],
                         ids=["desk", "laptop", "tablet", "phone"])
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
    width = page.script("return document.querySelector('svg.spectrum').viewBox.baseVal.width")
    assert all(0 <= name["left"] and name["right"] <= width for name in names)


def test_figures_of_neighbouring_channels_do_not_overlap(surveyed, page):
    page.open(surveyed, "air")
    page.until(lambda: page.all("path.heard"), "networks")
    figures = page.script(BOXES, "5GHz", "circle.load")
    assert len(figures) >= 6
    figures.sort(key=lambda box: box["left"])
    assert all(one["right"] <= other["left"] + LINE_PX for one, other in zip(figures, figures[1:]))
