"""Every view, light and dark, at a desk and on a phone: contrast and names by a check of our own, and
all rules of axe-core where npm can bring it."""
import pathlib
import subprocess

import pytest

from consoletest.browser import DESK, PHONE

HERE = pathlib.Path(__file__).resolve().parent
TREE = HERE.parents[1]
CHECK = (HERE / "consoletest" / "contrast.js").read_text(encoding="utf-8")
VIEWS = ("ap", "air", "state", "commands", "talk")
ROWS = "#talk .row:not([hidden])"


@pytest.fixture(scope="module")
def surveyed(office):
    """The office after a survey, a roam, a fault and a refusal, so that all there is to see is seen."""
    handle, console = office
    handle.send({"cmd": "rrm-update", "rrm-scan-channels": "1 6 36", "rrm-scan-delay": 0,
                 "vexor-rrm-scanning": 0})
    handle.wait("rrm-response")
    handle.ap("fault-add", rule={"call": "vendor", "errno": "EIO", "name": "nothing"})
    yield console
    handle.ap("fault-clear")


@pytest.fixture(scope="session")
def axe():
    script = TREE / "build" / "axe" / "axe.min.js"
    got = subprocess.run([TREE / "scripts" / "fetch-axe", script.parent], capture_output=True,
                         text=True, check=False)
    if not script.is_file():
        pytest.skip(f"axe-core is not to be had: {got.stderr.strip()[-200:]}")
    return script.read_text(encoding="utf-8")


def each_view(page, console, dark, size):
    page.fresh(size, dark)
    page.open(console)
    for view in VIEWS:
        page.go(view)
        page.until(lambda: page.text("#content" if view != "talk" else "#talk .rows"), view)
        yield view
    page.until(lambda: page.all(ROWS), "events")
    page.all(ROWS)[-1].click()
    page.until(lambda: page.all("#message table"), "a message")
    yield "message"


LOOKS = pytest.mark.parametrize("dark,size", [(False, DESK), (True, DESK), (False, PHONE)],
                                ids=["light", "dark", "phone"])


@LOOKS
def test_text_has_contrast_and_controls_have_names(surveyed, page, dark, size):
    for view in each_view(page, surveyed, dark, size):
        result = page.script(CHECK)
        assert result["texts"] > 10, view
        assert not result["found"], (view, result["found"])


@LOOKS
def test_axe_finds_nothing(surveyed, page, axe, dark, size):
    for view in each_view(page, surveyed, dark, size):
        if not page.script("return Boolean(window.axe)"):  # half a megabyte
            page.script(axe)
        found = page.driver.execute_async_script("""
            const done = arguments[0];
            axe.run({runOnly: ["wcag2a", "wcag2aa", "wcag21a", "wcag21aa", "best-practice"]}).then(
                ({violations}) => done(violations.map(({id, nodes}) =>
                    [id, nodes.length, nodes[0].html.slice(0, 160), nodes[0].failureSummary])));""")
        assert not found, (view, found)


def test_check_sees_what_is_wrong(played, page):
    """Grey on grey, a nameless button, a name twice, a heading too deep."""
    page.driver.get(played.url)
    page.script("""document.body.innerHTML = '<h1>one</h1><h3 id="a">deep</h3><button id="a"></button>';
        const text = document.createElement("p");
        text.textContent = "pale";
        text.style.color = "#999";
        document.body.append(text);""")
    found = " ".join(page.script(CHECK)["found"])
    for part in ("contrast", "pale", "no name", "twice: #a", "heading 3 after 1"):
        assert part in found
