"""The end by signal in the modes with radios: status 0 in every phase, nothing left behind."""
import signal

import pytest

from lumdtest.lab import CONFIG
from lumdtest.msgbus import ORVANTA, Flood
from lumdtest.service import MuteServer
from lumdtest.waiting import wait_until

SPEED = 20
FLOODING_MODULE = 100
URL_KEY = {"rrm": "orvanta_service_url", "wids": "mac-list-service-url"}

pytestmark = pytest.mark.threads
both_signals = pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
both_modes = pytest.mark.parametrize("mode", ["rrm", "wids"])


def end(lab, number):
    """The exit status; the harness waits for a bounded time."""
    lab.do(lambda: lab.lab.lumd.signal(number))
    return lab.run(lab.lab.lumd.wait(30))


def wait_log(lab, text):
    wait_until(lambda: any(text in line for line in lab.log_lines()), f"{text!r} in the log")


def kill_broker(lab):
    lab.do(lambda: lab.lab.broker.signal(signal.SIGKILL))
    lab.run(lab.lab.broker.wait())


@pytest.fixture
def mute():
    server = MuteServer()
    yield server
    server.stop()


@both_modes
@both_signals
def test_ends_while_it_backs_off(start_lab, mode, number):
    lab = start_lab(mode=mode, start_lumd=False, speed=1,
                    config=["log_level=15", "initial_connection_delay=600",
                            "max_connection_delay=600"])
    lab.service("silence")
    lab.start_lumd()
    wait_log(lab, "Delay before connection")
    assert end(lab, number) == 0
    assert lab.events(what="connected") == []


@both_modes
@both_signals
def test_ends_while_it_connects(start_lab, mute, mode, number):
    lab = start_lab(mode=mode, wait=False, speed=1,
                    config=[f"{URL_KEY[mode]}=ws://127.0.0.1:{mute.port}/agent",
                            "max_connection_delay=1"])
    mute.wait_attempts(1)
    assert end(lab, number) == 0


@both_modes
@both_signals
def test_ends_while_the_link_is_established_and_nobody_answers(start_lab, mode, number):
    lab = start_lab(mode=mode, start_lumd=False, speed=1)
    lab.service("settings", subscribe_answers=[None])
    lab.start_lumd()
    lab.wait("subscribe-request" if mode == "rrm" else "connected")
    assert end(lab, number) == 0


@both_signals
def test_ends_while_subscribed(start_lab, number):
    lab = start_lab("office")
    assert end(lab, number) == 0
    assert not lab.ap("file-exists", name="/tmp/.orvanta-connected")


@both_signals
def test_ends_while_it_waits_for_hostapd(start_lab, number):
    lab = start_lab("hostapd-down", wait=False)
    lab.wait("connected")
    assert end(lab, number) == 0


@both_signals
def test_ends_in_sentry_mode(start_lab, number):
    assert end(start_lab("wids-sentry", mode="rrm"), number) == 0


@both_modes
@both_signals
def test_ends_without_a_broker(start_lab, mode, number):
    lab = start_lab(mode=mode)
    kill_broker(lab)
    assert end(lab, number) == 0


@both_signals
@pytest.mark.parametrize("update", [
    {"rrm-scan-channels": "1 6 11 36 40"},
    {"rrm-scan-channels": "6 36", "vexor-rrm-scanning": 1, "rrm-scan-delay": 1}])
def test_ends_in_the_middle_of_a_survey(start_lab, number, update):
    lab = start_lab("office")
    since = lab.mark()
    lab.send({"cmd": "rrm-update", **update})
    lab.wait("rrm-scan-start" if "vexor-rrm-scanning" in update else "scan-start", since)
    assert end(lab, number) == 0
    assert lab.events(since, what="rrm-response") == []


@both_signals
def test_ends_in_the_delay_before_a_survey(start_lab, number):
    lab = start_lab()
    since = lab.mark()
    lab.send({"cmd": "rrm-update", "rrm-scan-delay": 3600})
    lab.send({"cmd": "rrm-request-mode"})
    lab.wait("rrm-mode-response", since)
    assert end(lab, number) == 0


# A wait on the bus takes 20 seconds of protocol time when the other daemon says nothing.


@both_signals
def test_ends_after_the_one_wait_for_a_silent_vaultd(start_lab, number):
    lab = start_lab(start_lumd=False)
    lab.ap("daemon", name="vaultd", answer="silent")
    lab.start_lumd()
    lab.wait("get")
    lab.wait("get", lab.mark())  # the one before has been given up: this wait has just begun
    asked = lab.mark()
    assert end(lab, number) == 0
    assert lab.events(asked, what="get") == []
    assert lab.events(what="subscribe-request") == []


def test_a_flood_does_not_prolong_the_wait_for_a_silent_vaultd(start_lab):
    lab = start_lab(start_lumd=False)
    lab.ap("daemon", name="vaultd", answer="silent")
    lab.start_lumd()
    lab.wait("get")
    with Flood(lab.lab.bus_path, FLOODING_MODULE, ORVANTA):
        lab.wait("get", lab.mark())
        asked = lab.mark()
        assert end(lab, signal.SIGTERM) == 0
        assert lab.events(asked, what="get") == []


@both_signals
def test_ends_after_the_one_wait_for_a_silent_hubd(start_lab, number):
    lab = start_lab()
    lab.ap("daemon", name="hubd", answer="silent")
    since = lab.mark()
    lab.send({"cmd": "rrm-info", **CONFIG, "radios": [{"id": 0, "power": 10, "channel": 11},
                                                      {"id": 1, "power": 10, "channel": 44}]})
    lab.wait("update-orvanta", since)
    assert end(lab, number) == 0
    assert len(lab.events(since, to="hubd")) == 1


@both_signals
def test_ends_after_the_one_wait_for_a_hubd_that_is_silent_about_mac_lists(start_lab, number):
    lab = start_lab(mode="wids")
    lab.ap("daemon", name="hubd", answer="silent")
    since = lab.mark()
    for _ in range(3):
        lab.send({"Name": "lab-list", "white": []})
    lab.wait("update-wids-mac-lists", since)
    assert end(lab, number) == 0
    assert len(lab.events(since, what="update-wids-mac-lists")) == 1


def test_a_stop_during_a_wait_is_not_waited_for_again_by_the_next_daemon(start_lab):
    lab = start_lab()
    for name in ("vaultd", "hubd"):
        lab.ap("daemon", name=name, answer="silent")
    since = lab.mark()
    lab.ap("config-set", path="/orvanta/dca", value="false")
    lab.wait("get", since)
    assert end(lab, signal.SIGTERM) == 0
    assert len(lab.events(since, what="get")) == 1
    assert lab.events(since, to="hubd") == []
