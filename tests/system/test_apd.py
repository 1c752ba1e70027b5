"""apd on a real message bus with a hostapd of the test's: what needs no radio."""
import json
import os
import pathlib
import signal
import socket
import subprocess

import pytest

from lumdtest.fake_hostapd import FakeHostapd
from lumdtest.programs import Programs
from lumdtest.waiting import PATIENCE, wait_until

STORE, MANAGER, AGENT, SCAN = 1, 6, 28, 34
SETTINGS = {"interface": {
    "wlan0": {"wlan": {"radio": {"country": "DE", "channel": 6, "bandwidth": "20"}}},
    "wlan0-va0": {"common": {"enabled": True}, "vap": {
        "ssid": "office", "ap-security": {"mode": "WPA2_PSK", "passphrase": "swordfish"}}}},
    "orvanta": {"tpc": "true"}}
CHANNEL = "/interface/wlan0/wlan/radio/channel"

pytestmark = pytest.mark.skipif(not (Programs().bin / "apd").exists(),
                                reason="apd is built with the libraries of nl80211 alone")


class Apd:
    """apd in a folder of the test's own."""

    def __init__(self, programs, folder, bus):
        self.programs, self.folder = programs, folder
        self.environment = {**os.environ, "MSGBUS_SOCKET": str(bus),
                            "LUMD_PLATFORM_DIR": str(folder)}
        self.process = None

    def start(self):
        places = {"-c": "apd.json", "-r": "run", "-s": "state", "-g": "hostapd/global",
                  "-p": "hostapd.pid", "-n": "", "-l": "apd.log"}
        arguments = [word for option, name in places.items()
                     for word in (option, str(self.folder / name))]
        self.process = subprocess.Popen([str(self.programs.binary("apd")), *arguments],
                                        env=self.environment)

    def stop(self, number=signal.SIGTERM):
        if self.process is not None:
            self.process.send_signal(number)
            status = self.process.wait(PATIENCE)
            self.process = None
            assert status == (0 if number == signal.SIGTERM else -number)

    def ctl(self, *arguments):
        return subprocess.run([str(self.programs.binary("apctl")), *arguments],
                              env=self.environment, text=True, capture_output=True,
                              timeout=PATIENCE, check=False)

    def log(self):
        path = self.folder / "apd.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def wait_log(self, text):
        wait_until(lambda: text in self.log(), f"the line {text!r}")


class Asker:
    """A module of the bus that asks."""

    def __init__(self, client):
        self.client = client

    def ask(self, module, **request):
        self.client.send(module, json.dumps(request))
        return json.loads(self.client.recv())

    def value(self, path):
        return self.ask(STORE, command="get", path=path).get("value")


@pytest.fixture
def hostapd(folder):
    fake = FakeHostapd(folder / "hostapd/global")
    yield fake
    fake.stop()


@pytest.fixture
def apd(programs, folder, broker):
    (folder / "apd.json").write_text(json.dumps(SETTINGS))
    (folder / "factory.json").write_text(json.dumps({"mac": "02:aa:bb:cc:dd:50"}))
    daemon = Apd(programs, folder, broker.path)
    yield daemon
    daemon.stop()


@pytest.fixture
def asker(broker):
    with broker.client(AGENT) as client:
        yield Asker(client)


@pytest.fixture
def running(apd):
    apd.start()
    wait_until(lambda: apd.ctl("status").returncode == 0, "an answer of apd")
    return apd


def test_is_ready_once_it_is_on_the_bus(apd, folder):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(str(folder / "notify"))
        manager.settimeout(PATIENCE)
        apd.environment["NOTIFY_SOCKET"] = str(folder / "notify")
        apd.start()
        assert manager.recv(100) == b"READY=1"
    assert apd.ctl("get", CHANNEL).stdout == "6\n"


def test_answers_by_path_what_is_stored(running, asker):
    assert asker.value(CHANNEL) == 6
    assert asker.value("/interface/wlan0-vap0/vap/ap-security/mode") == "WPA2_PSK"
    assert asker.value("/interface/wlan0-va0/common/enabled") is True
    answer = asker.ask(STORE, command="get", path="/interface/wlan1/wlan/radio/country")
    assert (answer["status"], answer["reason"]) == ("error", "not found")


def test_answers_what_the_agent_reads_where_it_is_not_set(running, asker):
    for path, value in (("/interface/wlan0-vap0/vap/ft-config/enabled", "false"),
                        ("/interface/wlan0-wds7/common/enabled", "false"),
                        ("/interface/wlan0/wlan/radio/control-sideband", "lower"),
                        ("/interface/wlan1-va6/vap/ap-security/mode", "OPEN"),
                        ("/wids/enabled", "false"), ("/orvanta/dca", "false")):
        assert asker.value(path) == value, path
    assert running.ctl("get", "/orvanta/dca").stdout == "false\n"
    assert running.ctl("show", "/orvanta").stdout == "/orvanta/tpc true\n"


def test_changes_settings_at_the_commit_and_keeps_them(running, asker):
    assert running.ctl("set", CHANNEL, "11", "/orvanta/dca", "true").returncode == 0
    assert running.ctl("changes").stdout == (f"- {CHANNEL} 6\n+ {CHANNEL} 11\n"
                                             "+ /orvanta/dca true\n")
    assert asker.value(CHANNEL) == 6
    assert running.ctl("commit").returncode == 0
    assert asker.value(CHANNEL) == "11"
    running.stop(signal.SIGKILL)
    running.start()
    wait_until(lambda: running.ctl("get", CHANNEL).stdout == "11\n", "what was stored")


def test_forgets_what_is_reverted(running):
    running.ctl("set", CHANNEL, "11")
    assert running.ctl("revert").returncode == 0
    assert running.ctl("changes").stdout == ""


@pytest.mark.parametrize("words, reason", [
    (("set", CHANNEL, "999"), "is not a number from 1 to 177"),
    (("set", "/no/such/setting", "1"), "there is no setting /no/such/setting"),
    (("set", "/interface/wlan0-va0/vap/ssid", ""), "1 to 32 bytes"),
    (("unset", "/orvanta/dca"), "there is nothing at /orvanta/dca"),
    (("get", "/nothing"), "not found")])
def test_says_why_it_refuses(running, words, reason):
    result = running.ctl(*words)
    assert result.returncode == 1
    assert result.stderr.startswith("apctl: ") and reason in result.stderr


@pytest.mark.parametrize("words", [(), ("fly",), ("set", CHANNEL), ("get",), ("status", "x"),
                                   ("--fly",)])
def test_explains_wrong_use(apd, words):
    assert apd.ctl(*words).returncode == 2


@pytest.mark.parametrize("words", [("get", CHANNEL, "--stored"), ("status", "--candidate"),
                                   ("commit", "--stored")])
def test_takes_a_layer_for_show_alone(running, words):
    result = running.ctl(*words)
    assert result.returncode == 2 and "is for 'show' alone" in result.stderr


@pytest.mark.parametrize("words", [("show",), ("get", CHANNEL), ("status",), ("--help",)])
def test_tells_that_its_output_was_lost(running, words):
    with open("/dev/full", "w", encoding="ascii") as full:
        result = subprocess.run([str(running.programs.binary("apctl")), *words], stdout=full,
                                stderr=subprocess.PIPE, text=True, env=running.environment,
                                timeout=PATIENCE, check=False)
    assert (result.returncode, result.stderr) == (1, "apctl: cannot write the output\n")


@pytest.mark.parametrize("words", [("set", "/a\x1b[31m\nb", "1"), ("fly\x1b[31m\n",),
                                   ("set", CHANNEL, "x\x1b[31m\n"), ("show", "/\x1b[31m\n"),
                                   ("unset", "\x1b[31m\n"), ("set", "/" + "x" * 100000, "1"),
                                   ("set", CHANNEL, "1" * 100000), ("get", "/" + "x" * 100000)])
def test_complains_in_one_short_line(running, words):
    complaint = running.ctl(*words).stderr
    assert complaint.count("\n") == 1 and "\x1b" not in complaint
    assert complaint.startswith("apctl: ") and len(complaint) < 600


def test_asks_beside_other_tools(running, broker):
    tools = [broker.client(module) for module in range(206, 255, 2)]
    try:
        for _ in range(8):
            assert running.ctl("get", CHANNEL).stdout == "6\n"
    finally:
        for tool in tools:
            tool.close()


def test_shows_a_list_that_is_set(running):
    path = "/interface/wlan0/wlan/radio/antenna-configuration"
    assert running.ctl("set", path, '{"name": [1, {"a": 2}]}').returncode == 0
    line = f'{path}/name [1,{{"a":2}}]\n'
    assert running.ctl("show", "--candidate", path).stdout == line
    assert running.ctl("changes").stdout == "+ " + line


def test_leaves_hostapd_to_the_apd_that_is_there(running):
    second = Apd(running.programs, running.folder, running.environment["MSGBUS_SOCKET"])
    second.start()
    assert second.process.wait(PATIENCE) == 1
    assert f"another apd is at work in {running.folder}/run" in running.log()
    assert running.ctl("get", CHANNEL).stdout == "6\n"


def test_says_that_nothing_was_usable_last(apd):
    (apd.folder / "apd.json").write_text("{")
    apd.start()
    wait_until(lambda: apd.ctl("status").returncode == 0, "an answer of apd")
    assert "no access point is set up" in apd.log()
    assert "goes on with" not in apd.log()


def test_shows_no_password(running):
    assert "swordfish" not in running.ctl("show").stdout
    assert "swordfish" not in running.ctl("show", "--json", "--stored").stdout
    assert running.ctl("get", "/interface/wlan0-va0/vap/ap-security/passphrase").stdout == \
        "swordfish\n"


def test_refuses_what_the_service_wants_of_a_radio_that_is_not_there(running, asker, hostapd):
    hostapd.start()
    wait_until(lambda: hostapd.is_attached, "apd at hostapd's socket")
    wait_until(lambda: (running.folder / "hostapd.pid").exists(), "the pid file")
    answer = asker.ask(MANAGER, command="update-orvanta", ifname="wlan0",
                       params={"auto-channel": "false", "channel": "1", "bandwidth": "20"})
    assert answer["command"] == "update-orvanta-response"
    assert answer["status"] == "error" and "wlan0" in answer["reason"]
    assert asker.value(CHANNEL) == 6


@pytest.mark.parametrize("request_, reason", [
    ({"command": "update-orvanta", "ifname": "wlan9", "params": {"channel": "1"}}, "no radio"),
    ({"command": "update-orvanta", "ifname": "wlan0", "params": {"channel": "x"}}, "number"),
    ({"command": "update-orvanta", "ifname": "wlan0", "params": {}}, "no params"),
    ({"command": "update-orvanta", "ifname": "wlan0"}, "no params"),
    ({"command": "update-orvanta"}, "no params"),
    ({"command": "reset-orvanta", "ifname": "lo"}, "no radio"),
    ({"command": "update-orvanta-fbt", "wlan0-va9": {"ft-config": {}}}, "no access point"),
    ({"command": "update-orvanta-fbt", "wlan0-va3": {"ft-config": {}}}, "not enabled"),
    ({"command": "update-orvanta-fbt", "wlan0-va0": {"ft-config": {"mobility-domain": 99999}}},
     "mobility-domain"),
    ({"command": "update-wids-mac-lists", "black": json.loads("[" * 25 + "]" * 25)}, "too deeply"),
    ({"command": "dance"}, "no command")])
def test_refuses_a_request_with_its_reason(running, asker, request_, reason):
    answer = asker.ask(MANAGER, **request_)
    assert answer["status"] == "error" and reason in answer["reason"]


def test_lives_through_garbage_from_the_bus(running, asker):
    for text in (b"", b"\0", b"{", b"[]", b"null", b"\xff\xfe", b'{"command": 5}', b"7",
                 b'{"command": {}}', b"[" * 100000, b'{"command":"lock-scan","interface":[]}'):
        for module in (STORE, MANAGER, SCAN):
            asker.client.send(module, text)
    asker.client.send(STORE, json.dumps({"command": "set", "path": "/a" * 10000, "value": 1}))
    assert json.loads(asker.client.recv())["status"] == "error"
    assert running.ctl("get", CHANNEL).stdout == "6\n"


def test_passes_over_a_path_of_millions_of_names(running, asker):
    # Each took its time to be looked at: together longer than anybody waits.
    answer = asker.ask(STORE, command="get", path="/a" * 3000000)
    assert (answer["status"], answer["reason"]) == ("error", "not found")


def test_keeps_the_black_list_for_hostapd(running, asker):
    answer = asker.ask(MANAGER, command="update-wids-mac-lists", service="wids-mac-service",
                       Name="x", **{"black-list": ["02:00:00:00:00:01", "nonsense"]})
    assert answer == {"command": "update-wids-mac-lists-response", "status": "ok"}
    assert (running.folder / "run/black-list").read_text() == "02:00:00:00:00:01\n"


def test_tells_the_agent_of_hostapd(running, hostapd):
    files = [running.folder / name for name in
             (".orvanta_notify", ".orvanta_notify_hostapd_started", "hostapd.pid")]
    assert not any(path.exists() for path in files)
    hostapd.start()
    wait_until(lambda: all(path.exists() for path in files), "notify and pid files")
    assert files[2].read_text() == f"{os.getpid()}\n"
    hostapd.stop()
    wait_until(lambda: not files[2].exists(), "the pid file's end")
    running.wait_log("hostapd has gone")
    files[0].unlink()
    hostapd.start_again()
    wait_until(lambda: all(path.exists() for path in files), "the files anew")


def test_says_once_that_no_hostapd_came(running, hostapd):
    line = f"hostapd is not there: nobody answers at {hostapd.path}"
    running.wait_log(line)
    hostapd.start()
    wait_until((running.folder / "hostapd.pid").exists, "the pid file")
    hostapd.stop()
    running.wait_log("hostapd has gone")
    assert running.log().count(line) == 1


def test_lives_through_garbage_from_hostapd(running, hostapd):
    hostapd.start()
    wait_until(lambda: hostapd.is_attached, "apd at hostapd's socket")
    for event in (b"<3>", b"<3>AP-STA-CONNECTED", b"\0" * 4000, b"IFNAME=", b"IFNAME=wlan0-va0",
                  b"IFNAME=wlan0-va0 <3>AP-STA-CONNECTED 02:00:00:00:00:01", b"\xff" * 100,
                  b"IFNAME=wlan9-va9 <3>AP-ENABLED ", b"<3>CTRL-EVENT-TERMINATING "):
        hostapd.tell(event)
    assert running.ctl("get", CHANNEL).stdout == "6\n"


def test_takes_a_silent_hostapd_for_gone_and_comes_back(running, hostapd):
    hostapd.start()
    pid_file = running.folder / "hostapd.pid"
    wait_until(pid_file.exists, "the pid file")
    hostapd.answers["PING"] = hostapd.answers["ATTACH"] = None
    wait_until(lambda: not pid_file.exists(), "the pid file's end")
    running.wait_log("hostapd does not answer")
    assert "hostapd has gone" not in running.log()
    hostapd.answers["PING"] = b"\xff garbage"
    del hostapd.answers["ATTACH"]
    wait_until(pid_file.exists, "the pid file again")
    assert running.ctl("status").returncode == 0


def test_goes_on_with_the_last_usable_settings(apd, asker):
    apd.start()
    wait_until(lambda: apd.ctl("status").returncode == 0, "an answer of apd")
    for broken in ("{", '{"interface": {"wlan0": {"wlan": {"radio": {"channel": "x"}}}}}'):
        (apd.folder / "apd.json").write_text(broken)
        lines = apd.log().count("cannot use")
        apd.process.send_signal(signal.SIGHUP)
        wait_until(lambda: apd.log().count("cannot use") > lines, "a line about the file")
        assert asker.value(CHANNEL) == 6
    apd.stop()
    apd.start()
    wait_until(lambda: apd.ctl("get", CHANNEL).stdout == "6\n", "what was usable last")
    assert "goes on with the settings that were usable last" in apd.log()


def test_takes_the_file_anew_at_sighup(running, asker):
    settings = json.loads((running.folder / "apd.json").read_text())
    settings["interface"]["wlan0"]["wlan"]["radio"]["channel"] = "1"
    (running.folder / "apd.json").write_text(json.dumps(settings))
    running.process.send_signal(signal.SIGHUP)
    wait_until(lambda: asker.value(CHANNEL) == "1", "the new channel")


def test_joins_a_bus_that_comes_back(running, broker):
    broker.kill()
    broker.start()
    wait_until(lambda: running.ctl("status").returncode == 0, "apd on the new bus")


def test_every_setting_of_the_manual_is_known(running):
    known = {line.split("  ")[0] for line in running.ctl("settings").stdout.splitlines()}
    page = pathlib.Path(__file__).resolve().parents[2] / "packaging/man/apd.json.5"
    told = {line.split()[1].replace("\\-", "-") for line in page.read_text().splitlines()
            if line.startswith(".B /")}
    assert told == known
