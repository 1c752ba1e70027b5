"""Screenshots for people, with --images FOLDER only: they are made to be looked at."""
import os
import pathlib
import subprocess

import pytest

from consoletest.browser import DESK, PHONE

TREE = pathlib.Path(__file__).resolve().parents[2]
FLEET = 200
START_WAIT = 600.0  # seconds until all of them are subscribed
ROWS = "#talk .row:not([hidden])"


@pytest.fixture
def folder(request):
    given = request.config.getoption("--images")
    if given is None:
        pytest.skip("--images FOLDER makes them")
    path = pathlib.Path(given)
    path.mkdir(parents=True, exist_ok=True)
    return path


@pytest.fixture
def lived(own_office):
    """The office after two surveys with changes between them, and clients that moved."""
    handle, console = own_office
    for line in ("neighbours", "scan 1 6 11 36 40 44 48 52 60 100 149", "steer wlan0 1"):
        outcome = handle.run(console.view.execute(line, _Silent()))
        assert outcome.is_done, outcome
    handle.ap("neighbour-remove", bssid="4e:00:10:00:05:0a")
    handle.ap("neighbour-add", bssid="4e:00:10:00:09:09", channel=6, ssid="newcomer", signal=-50)
    handle.run(console.view.execute("scan 1 6 11 36 40 44 48 52 60 100 149", _Silent()))
    for number, mac in enumerate(("01", "05", "07", "0b")):
        handle.ap("station-set", mac=f"02:1a:2b:00:00:{mac}",
                  given={"fade": 0.05 * (number + 1) - 0.12})
    return console


class _Silent:
    """A transcript that keeps nothing."""
    width, busy = None, ""

    def __getattr__(self, _name):
        return lambda *_: None


@pytest.mark.parametrize("size,dark,suffix,wanted", [
    (DESK, False, "", ("ap", "message", "commands")), (DESK, True, "-dark", ("air",)),
    (PHONE, False, "-phone", ("talk", "air"))], ids=["light", "dark", "phone"])
def test_views_are_drawn(folder, lived, page, size, dark, suffix, wanted):
    page.fresh(size, dark)
    page.open(lived)
    for name in wanted:
        SCENES[name](page, name)
        page.shot(folder / f"console-{name}{suffix}.png")


@pytest.fixture
def fleet():
    """The address of the page of ./run --console --fleet."""
    with subprocess.Popen(["/usr/bin/python3", TREE / "lab" / "run.py", "--bin",
                           os.environ["LUMD_BIN_DIR"], "--console", "--fleet", str(FLEET)],
                          stdout=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True) as process:
        yield next(line.split()[-1] for line in process.stdout if "console is at" in line)
        process.terminate()


def test_fleet_is_drawn(folder, fleet, page):
    page.driver.get(f"{fleet}#fleet")
    page.until(lambda: f"{FLEET} connected, {FLEET} subscribed" in page.text(".totals"),
               "all of them", START_WAIT)
    page.until(lambda: page.all(ROWS), "events")
    page.shot(folder / "console-fleet.png")


def view(page, name):
    page.go(name)
    page.until(lambda: page.text("#content") or page.all(ROWS), name)


def histories(page, name):
    view(page, name)
    page.until(lambda: any(len(svg.get_attribute("innerHTML")) > 300
                           for svg in page.all("svg.spark")), "some history", 60)


def report(page, _name):
    view(page, "talk")
    page.fill("[aria-label='Filter by text']", "rrm-response")
    page.until(lambda: page.all(ROWS) and "rrm-response" in page.all(ROWS)[0].text, "a report")
    page.all(ROWS)[0].click()
    page.until_text("#message", "rf-environment")


def command(page, name):
    """After the message, which is closed."""
    page.press("#message button")
    page.fill("[aria-label='Filter by text']", " ")
    page.press(".pause")
    view(page, name)
    page.press("form[data-form='power'] button[type=submit]")
    page.until(lambda: page.all(".result"), "a result", 60)
    page.script("document.querySelector('#view').scrollTop = 0")


SCENES = {"ap": histories, "air": view, "talk": view, "message": report,
          "commands": command}
