"""./run as a newcomer uses it: what it shows, what it leaves behind, and how it fails."""
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import time

import pytest

from labtalk.control import ControlClient
from lumdtest.terminal import COLUMNS, Terminal

TREE = pathlib.Path(__file__).resolve().parent.parent.parent
PATIENCE = 120  # seconds
BIN = os.environ.get("LUMD_BIN_DIR", str(TREE / "build" / "release" / "bin"))


@pytest.fixture(name="folder")
def temporary_folder():
    """A short path: the socket names below it are limited to 107 bytes."""
    path = pathlib.Path(tempfile.mkdtemp(prefix="run"))
    yield path
    shutil.rmtree(path, ignore_errors=True)


def command(*options):
    return ["/usr/bin/python3", str(TREE / "lab" / "run.py"), "--bin", BIN, *options]


def once(folder, *options):
    return subprocess.run(command("--once", "--speed", "5", *options), stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=PATIENCE, check=False,
                          env={**os.environ, "TMPDIR": str(folder)})


class Session:
    """A running ./run with a pipe for its commands."""

    def __init__(self, folder, *options):
        self.folder = folder
        self.process = subprocess.Popen(
            command(*options), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, text=True, bufsize=1,
            env={**os.environ, "TMPDIR": str(folder)})
        self.output = ""
        self.read_until("help lists the commands")

    def read_until(self, text):
        deadline = time.monotonic() + PATIENCE
        while text not in self.output:
            assert time.monotonic() < deadline, f"no {text!r} in:\n{self.output}"
            line = self.process.stdout.readline()
            assert line, f"ended without {text!r}:\n{self.output}"
            self.output += line

    def children(self):
        listing = subprocess.run(["ps", "-ww", "-o", "pid=,args=", "--ppid", str(self.process.pid)],
                                 capture_output=True, text=True, check=False).stdout
        return {int(line.split()[0]): line.split(None, 1)[1] for line in listing.splitlines()
                if "ps -ww" not in line}

    def type(self, line):
        self.process.stdin.write(line + "\n")

    def end(self):
        self.output += self.process.communicate(timeout=PATIENCE)[0]
        return self.process.returncode


@pytest.fixture(name="session")
def running_session(folder):
    session = Session(folder, "--scenario", "minimal")
    yield session
    session.process.kill()
    session.process.communicate()


def alive(pid):
    try:
        os.kill(pid, 0)
    except ProcessLookupError:
        return False
    return True


def assert_nothing_left(folder, pids):
    assert [pid for pid in pids if alive(pid)] == []
    assert list(folder.iterdir()) == []


def test_once_shows_the_radios_the_clients_and_the_air_and_ends_with_0(folder):
    result = once(folder)
    assert result.returncode == 0, result.stdout[-3000:] + result.stderr
    for text in ("subscribe-request", "subscribe-response", "update-orvanta", "SET_NEIGHBOR",
                 "update-orvanta-fbt", "bss-transition", "02:1a:2b:00:00:0c  wlan1  staff",
                 "neighbours in 5 passes"):
        assert text in result.stdout
    assert re.search(r"wlan0 +up +2\.4 GHz +1 +20", result.stdout)
    assert_nothing_left(folder, [])


@pytest.mark.parametrize("mode, shown", [
    ("wids", ["mac-list-received", "update-wids-mac-lists", "mac-list-rejected"]),
    ("portal", ["hello portal", "hello service"]),
])
def test_once_shows_the_other_modes(folder, mode, shown):
    result = once(folder, "--mode", mode)
    assert result.returncode == 0, result.stdout[-3000:] + result.stderr
    for text in shown:
        assert text in result.stdout


def test_once_shows_hostapd_coming_late(folder):
    result = once(folder, "--scenario", "hostapd-down")
    assert result.returncode == 0, result.stdout[-3000:] + result.stderr
    assert result.stdout.index("hostapd is not running") < \
        result.stdout.index("subscribe-request")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_signal_ends_everything_that_was_started(folder, session, number):
    children = session.children()
    assert len(children) == 2
    session.process.send_signal(number)
    assert session.end() == 128 + number
    assert_nothing_left(folder, children)


def test_the_end_of_standard_input_ends_everything(folder, session):
    children = session.children()
    assert session.end() == 0
    assert_nothing_left(folder, children)


def test_a_command_shows_what_arrives_and_what_is_reported_then(session):
    session.type("channel wlan1 44 40 upper")
    session.read_until("rrm-mode-response")
    session.type("quit")
    assert session.end() == 0
    assert re.search(r"lumd → hubd +update-orvanta .*\"control-sideband\":\"upper\"",
                     session.output)
    assert re.search(r"wlan1 +up +5 GHz +44 +40 upper", session.output)


def test_a_command_that_makes_no_sense_is_explained_and_the_session_goes_on(session):
    session.type("channel wlan0")
    session.read_until("channel RADIO CHANNEL BANDWIDTH")
    session.type("power wlan5 10")
    session.read_until("there is no radio wlan5")
    session.type("fault")
    session.read_until("everything works")
    assert "\x1b" not in session.output, "colours are for terminals"
    session.type("quit")
    assert session.end() == 1, "not all of the commands were done"


def test_a_machine_reads_an_object_a_line_and_how_each_command_and_all_ended(folder):
    script = [("unlink", "done"), ("up text", "refused"), ("restart", "done"), ("status", "done"),
              ("fault daemon hubd pause", "refused"), ("scenario wids-sentry wids", "done"),
              ("record /nowhere/tape", "refused"), (f"record {folder}/tape", "done"),
              ("push", "done"), ("frobnicate", "unknown"), ("show 1", "done")]
    result = subprocess.run(command("--json", "--mode", "portal", "--speed", "5"),
                            input="\n".join(line for line, _ in script), capture_output=True,
                            text=True, timeout=PATIENCE, check=False,
                            env={**os.environ, "TMPDIR": str(folder)})
    told = [json.loads(line) for line in result.stdout.splitlines()]
    assert any(entry.get("what") == "mac-list-received" for entry in told)
    outcomes = {entry["command"]: entry for entry in told if "outcome" in entry}
    assert [(line, entry["outcome"]) for line, entry in outcomes.items()] == [
        *script, (None, "failed")]
    assert outcomes["up text"]["reason"] == "there is no link (restart)"
    assert outcomes["status"]["result"]["connections so far"] == 2
    assert result.returncode == 1
    tape = folder / "tape"
    assert '"mac-list-received"' in tape.read_text(encoding="utf-8").replace("\\", "")
    tape.unlink()
    assert_nothing_left(folder, [])


def test_channels_of_one_band_are_surveyed_together_with_all_of_the_other(folder):
    session = Session(folder, "--scenario", "minimal", "--speed", "20")
    session.type("scan 36 40")
    session.read_until("0a:00:00:00:00:02")
    session.type("quit")
    assert session.end() == 0
    assert "2 neighbours in 5 passes" in session.output


def test_ctrl_c_ends_a_command_and_another_one_everything(folder, session):
    children = session.children()
    session.type("scan --delay 3600")
    session.read_until("rrm-update")
    session.process.send_signal(signal.SIGINT)
    session.read_until("scan: not waited for any longer")
    session.process.send_signal(signal.SIGINT)
    assert session.end() == 128 + signal.SIGINT
    assert_nothing_left(folder, children)


@pytest.fixture(name="terminal")
def running_at_a_terminal(folder):
    terminal = Terminal(command("--scenario", "minimal"),
                        {"TMPDIR": str(folder), "XDG_STATE_HOME": str(folder / "state")})
    yield terminal
    terminal.close()


def test_at_a_terminal_a_line_is_completed_and_not_torn_and_ctrl_c_ends_it(folder, terminal):
    shown = terminal.read_until("lab>")
    assert [line for line in shown.splitlines() if len(line) > COLUMNS] == []
    terminal.read_until("rrm │ connected │ subscribed │ clients: 1 │ minimal")
    terminal.type("scan --del")
    terminal.read_until("scan --del")
    terminal.type("\t")
    terminal.read_until("ay")  # what was lacking
    control, = folder.glob("lumd-lab-*/root/control.sock")
    with ControlClient(control) as ap:
        ap.call("daemon", name="portal", action="stop")
    terminal.read_until("stopped")
    terminal.read_until("lab> scan --delay")
    terminal.type("3600\r")
    terminal.read_until("rrm-update")
    terminal.read_until("Ctrl-C ends it")
    terminal.type("\x03")
    terminal.read_until("scan: not waited for any longer")
    terminal.read_until("1 fault")
    terminal.type("\x03")
    assert terminal.end() == 128 + signal.SIGINT
    history = folder / "state" / "lumd-lab" / "history"
    assert history.read_text(encoding="utf-8").endswith("+scan --delay 3600\n")


@pytest.mark.parametrize("speed", ["0", "-1", "inf", "nan", "fast"])
def test_a_speed_that_is_none_is_refused(folder, speed):
    result = subprocess.run(command("--once", "--speed", speed), capture_output=True, text=True,
                            timeout=PATIENCE, check=False, stdin=subprocess.DEVNULL,
                            env={**os.environ, "TMPDIR": str(folder)})
    assert result.returncode == 2
    assert "--speed" in result.stderr


def test_the_death_of_lumd_is_told_with_its_last_words(session):
    lumd, = [pid for pid, text in session.children().items() if "lumd.conf" in text]
    os.kill(lumd, signal.SIGKILL)
    session.read_until("lumd has ended")
    assert session.end() == 1


def test_an_unknown_scenario_is_refused_with_the_known_ones(folder):
    result = once(folder, "--scenario", "nowhere")
    assert result.returncode == 1
    assert "office" in result.stderr
