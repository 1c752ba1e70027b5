"""./run --service: somebody else's service in front of virtual access points, and the verdict."""
import asyncio
import contextlib
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading

import pytest

from labservice.conformance import RULES
from labservice.endpoint import Endpoint
from labservice.server import Service as LabService
from labshow import visit
from labshow.handle import running_lab
from lumdtest.service import unused_port
from lumdtest.waiting import wait_until

TREE = pathlib.Path(__file__).resolve().parents[2]
BIN = os.environ.get("LUMD_BIN_DIR", str(TREE / "build" / "release" / "bin"))
PATIENCE = 120  # seconds of one trial


@pytest.fixture(name="folder")
def temporary_folder():
    """A short path: the socket names below it are limited to 107 bytes."""
    path = pathlib.Path(tempfile.mkdtemp(prefix="run"))
    yield path
    shutil.rmtree(path, ignore_errors=True)


class Trial:
    """A running ./run --service; `report` is what it wrote."""

    def __init__(self, folder, url, *options):
        self._report = folder / "report.json"
        self.labs = folder / "labs"
        self.labs.mkdir()
        self.process = subprocess.Popen(
            ["/usr/bin/python3", TREE / "lab" / "run.py", "--bin", BIN, "--scenario", "minimal",
             "--speed", "10", "--service", url, "--report", self._report, *options],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            env={**os.environ, "TMPDIR": str(self.labs), "COLUMNS": "80"})
        self._patience = threading.Timer(PATIENCE, self.process.kill)
        self._patience.start()

    def read_until(self, text, times=1):
        """The output so far."""
        lines = []
        while sum(text in line for line in lines) < times:
            lines.append(self.process.stdout.readline())
            assert lines[-1], f"ended without {times} times {text!r}:\n{''.join(lines)}"
        return "".join(lines)

    def end(self):
        """(exit status, standard output, standard error)"""
        output, errors = self.process.communicate()
        self._patience.cancel()
        assert "Traceback" not in output + errors
        assert list(self.labs.iterdir()) == []
        return self.process.returncode, output, errors

    @property
    def report(self):
        return json.loads(self._report.read_text())

    def rules(self):
        return {rule["rule"]: rule for rule in self.report["rules"]}


@contextlib.contextmanager
def serving(service):
    """The coroutines of a service's start() and stop(), on a thread of their own."""
    loop = asyncio.new_event_loop()
    thread = threading.Thread(target=loop.run_forever)
    thread.start()
    asyncio.run_coroutine_threadsafe(service.start(), loop).result(20)
    yield service
    asyncio.run_coroutine_threadsafe(service.stop(), loop).result(20)
    loop.call_soon_threadsafe(loop.stop)
    thread.join()
    loop.close()


@contextlib.contextmanager
def example():
    """The port of docs/service-example.py."""
    port = unused_port()
    with subprocess.Popen([sys.executable, TREE / "docs" / "service-example.py", str(port)],
                          stdout=subprocess.DEVNULL) as process:
        try:
            wait_until(lambda: listens(port), "the example listens")
            yield port
        finally:
            process.terminate()


def listens(port):
    with socket.socket() as caller:
        return caller.connect_ex(("127.0.0.1", port)) == 0


@contextlib.contextmanager
def rude_service(answer):
    """The port of a server that says `answer` and closes the connection."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        def serve():
            with contextlib.suppress(OSError):
                while True:
                    link, _ = server.accept()
                    with link:
                        link.recv(4096)
                        link.sendall(answer)

        threading.Thread(target=serve, daemon=True).start()
        yield server.getsockname()[1]
        server.shutdown(socket.SHUT_RDWR)


def test_a_fleet_ends_with_ctrl_c_and_finds_that_the_example_held_all(folder):
    with example() as port:
        trial = Trial(folder, f"ws://127.0.0.1:{port}/", "--fleet", "2")
        trial.read_until("subscribe-response", times=2)
        trial.process.send_signal(signal.SIGINT)
        status, output, errors = trial.end()
    assert (status, errors) == (0, "")
    first, second = trial.report["access-points"]
    assert (first["mac"], second["mac"]) == ("00:11:22:33:44:50", "00:11:22:33:44:70")
    assert (first["subscribed"], second["subscribed"]) == (1, 1)
    rules = trial.rules()
    assert rules["subscription"]["seen"] == rules["handshake"]["seen"] == 2
    assert {rule["outcome"] for rule in rules.values()} == {"held", "not seen"}
    assert "all that was seen was held" in output
    table = output[output.index("what the service must do"):]
    assert max(map(len, table.splitlines())) <= 80


def test_what_a_service_does_wrong_is_told_by_rule_and_ends_with_3(folder):
    service = LabService()
    service.subscribe_answers = [{"status": "success", "code": "two hundred", "ap-mac": "x",
                                  "config": {"use-dca": 1, "radios": [{"id": 0, "channel": 99}]}}]
    with serving(service):
        trial = Trial(folder, f"ws://127.0.0.1:{service.port}/agent")
        trial.read_until("the network manager refused")
        trial.process.stdin.write("report\nquit\n")
        trial.process.stdin.flush()
        status, output, _ = trial.end()
    assert status == 3
    assert not trial.report["held"] and not trial.report["access-points"][0]["held"]
    rules = trial.rules()
    assert {name for name, rule in rules.items() if rule["outcome"] == "violated"} == {
        "members", "address", "refusal"}
    assert "code: 'two hundred'" in rules["members"]["violations"][0]["what"]
    assert output.count("address, VIOLATED") == 2  # asked for, and at the end


def test_a_visit_is_a_subscription_a_client_a_restart_and_a_link_that_fails(folder, monkeypatch):
    monkeypatch.setattr(visit, "QUIET", 0.4)
    service = LabService()
    service.subscribe_answers = [{"status": "success", "code": 200, "config": {"use-80211v": 1}}]
    with serving(service), running_lab("minimal", speed=20, endpoint=Endpoint(
            "127.0.0.1", service.port, "/agent")) as lab:
        lab.run(visit.visit(lab.lab))
        told = [event["what"] for event in lab.events(from_="lumd", to="service")]
        foreign = lab.lab.service
    names = ["connected", "subscribe-request", "rrm-client-assoc", "rrm-client-disassoc",
             "rrm-disassoc-all-clients", "rrm-config-changed", "connected", "subscribe-request"]
    places = iter(told)
    assert all(name in places for name in names), told
    assert foreign.conformance.held
    assert (foreign.connections, foreign.subscriptions) == (2, 2)


@pytest.mark.parametrize("answer, status, why", [
    (None, 1, "no service at ws://127.0.0.1:1/x: Connection refused"),
    (b"", 3, "closed the connection: no websocket came about"),
    (b"\0\1 garbage", 3, "no websocket that lumd takes: no HTTP"),
    (b"HTTP/1.1 404 Not Found\r\n\r\n", 3, "no websocket that lumd takes: HTTP/1.1 404 Not Found"),
])
def test_what_is_no_service_is_told_in_a_sentence(folder, answer, status, why):
    with contextlib.ExitStack() as stack:
        port = 1 if answer is None else stack.enter_context(rude_service(answer))
        trial = Trial(folder, f"ws://127.0.0.1:{port}/x", "--once")
        ended, _, errors = trial.end()
    assert ended == status
    assert why in errors and errors.count("\n") == 1
    assert why in trial.report["trouble"]


def test_a_conversation_with_somebody_elses_service_is_recorded_and_replayed(folder):
    recording = folder / "day.jsonl"
    with example() as port:
        trial = Trial(folder, f"ws://127.0.0.1:{port}/", "--record", recording, "--for", "3")
        assert trial.end()[0] == 0
    said = [json.loads(line) for line in recording.read_text().splitlines()[1:]]
    texts = [json.loads(entry["text"])["cmd"] for entry in said if entry["what"] == "text"]
    assert {"subscribe-request", "subscribe-response"} <= set(texts)
    assert {entry["by"] for entry in said if entry["border"] == "service"} == {"lumd", "lab"}
    replay = subprocess.run(
        ["/usr/bin/python3", TREE / "lab" / "run.py", "--bin", BIN, "--replay", recording],
        stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=PATIENCE, check=False)
    assert replay.returncode == 0, replay.stdout + replay.stderr
    assert "acts of the recording, and no other" in replay.stdout


def test_a_member_of_a_fleet_waits_for_its_service_until_it_is_ended(folder):
    port = unused_port()
    trial = Trial(folder, f"ws://127.0.0.1:{port}/", "--member", "300")
    trial.read_until("unreachable")
    with serving(LabService(port=port)) as service:
        trial.read_until("subscribe-response")
        trial.process.send_signal(signal.SIGTERM)
        assert trial.end()[0] == 0
        request, = service.journal.since(0, what="subscribe-request")
    assert request["data"]["factory"]["serial"] == "LAB0000301"
    assert trial.report["access-points"][0]["mac"] == "00:11:22:33:69:d0"


def test_the_time_that_is_given_ends_it(folder):
    with example() as port:
        trial = Trial(folder, f"ws://127.0.0.1:{port}/", "--for", "0.1", "--json")
        status, output, errors = trial.end()
    assert (status, errors) == (0, "")
    events = [json.loads(line) for line in output.splitlines()]
    assert [event["data"]["rule"] for event in events if event.get("what") == "rule"] == list(RULES)


@pytest.mark.parametrize("options", [
    ("--service", "wss://127.0.0.1:1/"), ("--service", "ws://127.0.0.1:1/", "--fleet", "0"),
    ("--fleet", "2"), ("--member", "2"), ("--service", "ws://127.0.0.1:1/", "--member", "-1"),
    ("--service", "ws://127.0.0.1:1/", "--fleet", "2", "--member", "3"), ("--service", "ws://127.0.0.1:1/", "--for", "-1")])
def test_options_that_make_no_sense_are_refused(options):
    result = subprocess.run(["/usr/bin/python3", TREE / "lab" / "run.py", *options], check=False,
                            stdin=subprocess.DEVNULL, capture_output=True, text=True)
    assert result.returncode == 2
    assert options[-2] in result.stderr
