"""What the lab shows fits the terminal."""
import pytest

from labshow import tables
from labtalk import journal

HEAD = ["radio", "channels", "SSID"]
ROWS = [["wlan0", "1 6 11 36 40 44 48 52", "an office network"], ["wlan1", "36", "guests"]]


def widest(text):
    return max(map(len, text.splitlines()))


def test_a_table_is_as_wide_as_it_must_be():
    assert tables.table(HEAD, ROWS).splitlines() == [
        "radio  channels               SSID", "-----  ---------------------  -----------------",
        "wlan0  1 6 11 36 40 44 48 52  an office network", "wlan1  36                     guests"]
    assert tables.table(HEAD, ROWS, 200) == tables.table(HEAD, ROWS)


def test_a_table_in_a_narrow_terminal_loses_nothing():
    shown = tables.table(HEAD, ROWS, 33)
    assert widest(shown) <= 33
    assert sorted(shown.replace("-", "").split()) == sorted(tables.table(HEAD, ROWS)
                                                            .replace("-", "").split())


@pytest.mark.parametrize("text, shown", [
    ("1 2 3 4 5 6 7 8 9 10 11 12 13 ", "1-13"), ("1 6 11", "1 6 11"), ("1 2", "1 2"),
    ("36 40 44 48 100 104 149 153 157", "36-48 100 104 149-157"), ("1 2 3 36 40 44", "1-3 36-44"),
    ("", ""), ("none", "none")])
def test_runs_of_channels_are_shown_by_their_ends(text, shown):
    assert tables.channel_list(text) == shown


EVENT = {"n": 12345, "t": 0.5, "from": "lumd", "to": "service", "what": "rrm-config-changed",
         "data": {"version": "2.4", "service": "rrm", "cmd": "rrm-config-changed",
                  "ap-mac": "00:11:22:33:44:50", "domain": "lab", "radios": ["x" * 500]}}


@pytest.mark.parametrize("width", [60, 80, 109, 110, 200])
def test_an_event_fits_the_terminal_and_tells_its_number_and_what_is_new(width):
    shown = journal.line(EVENT, width=width)
    assert len(shown) == width and shown.endswith("…") and shown.startswith("12345 ")
    assert width < 80 or "domain=lab" in shown
    assert "version" not in shown and "\x1b" not in shown


def test_an_event_that_no_terminal_limits_has_its_header():
    shown = journal.line(EVENT)
    assert "version=2.4 service=rrm cmd=rrm-config-changed ap-mac=" in shown


def test_colours_take_no_room():
    coloured = journal.line(EVENT, colour=True, width=80)
    assert coloured.replace("\x1b[36m", "").replace("\x1b[0m", "") == journal.line(EVENT, width=80)
