"""How the lab talks: its journal, its control sockets, and which of its parts knows which."""
import ast
import asyncio

import pytest

from labtalk import contract, control, journal
from labtalk.waiting import until
from lumdtest.programs import ROOT

# What each package of the lab may use, besides itself.
BELOW = {"labtalk": set(), "labap": {"labtalk"}, "labservice": {"labtalk"},
         "labshow": {"labtalk", "labap", "labservice"}}


def imported_packages(path):
    for node in ast.walk(ast.parse(path.read_text(encoding="utf-8"))):
        if isinstance(node, ast.Import):
            yield from (name.name.partition(".")[0] for name in node.names)
        elif isinstance(node, ast.ImportFrom) and node.level == 0:
            yield node.module.partition(".")[0]


@pytest.mark.parametrize("package", BELOW)
def test_a_package_of_the_lab_uses_only_those_below_it(package):
    files = list((ROOT / "lab" / package).glob("*.py"))
    assert files
    used = {name for path in files for name in imported_packages(path)} & set(BELOW)
    assert used <= BELOW[package]


def test_the_control_socket_answers_each_line_and_names_what_is_wrong(tmp_path):
    path = tmp_path / "control.sock"

    def talk():
        with control.ControlClient(path) as client:
            assert client.call("add", one=1, two_parts=2) == 3
            with pytest.raises(control.ControlError, match="unknown command"):
                client.call("nothing")
            with pytest.raises(control.ControlError, match="add: "):
                client.call("add", one="x", two_parts=1)

    async def serve():
        server = control.ControlServer({"add": lambda one, two_parts: one + two_parts})
        await server.start(str(path))
        await asyncio.to_thread(talk)
        await server.stop()

    asyncio.run(serve())


def test_the_control_socket_closes_although_a_command_is_under_way(tmp_path):
    async def run():
        begun, ended = asyncio.Event(), asyncio.Event()

        async def for_ever():
            begun.set()
            try:
                await asyncio.Event().wait()
            finally:
                ended.set()

        server = control.ControlServer({"wait": for_ever})
        await server.start(str(tmp_path / "control.sock"))
        reader, writer = await asyncio.open_unix_connection(str(tmp_path / "control.sock"))
        writer.write(b'{"cmd": "wait"}\n')
        await begun.wait()
        await asyncio.wait_for(server.stop(), 10)
        assert await reader.read() == b""
        assert ended.is_set()
        writer.close()

    asyncio.run(run())


@pytest.mark.parametrize("line", [b"x" * 100 + b"\n", b"no object\n"])
def test_a_request_that_is_too_long_ends_the_conversation_and_a_strange_one_does_not(
        tmp_path, line):
    class ShortServer(control.ControlServer):
        read_limit = 64

    async def run():
        server = ShortServer({})
        await server.start(str(tmp_path / "control.sock"))
        reader, writer = await asyncio.open_unix_connection(str(tmp_path / "control.sock"))
        writer.write(line)
        answer = await reader.readline()
        writer.close()
        await server.stop()
        return answer

    assert bool(asyncio.run(run())) == (len(line) <= 64)


def test_a_wait_ends_as_soon_as_its_condition_holds_and_in_bounded_time_when_it_never_does():
    looks = []

    async def third():
        looks.append(len(looks))
        return len(looks) == 3

    assert asyncio.run(until(third))
    assert len(looks) == 3
    assert not asyncio.run(until(lambda: False, timeout=0.05))


def test_waiting_for_an_event_ends_with_none_in_bounded_time():
    async def wait():
        events = journal.Journal()
        events.add("service", "lumd", "rrm-info", {"a": {"b": 1}})
        found = await events.wait(0, 5, what="rrm-info", data={"a": {"b": 1}})
        missed = await events.wait(1, 0.05, what="rrm-info")
        return found, missed

    found, missed = asyncio.run(wait())
    assert found["n"] == 1
    assert missed is None


NOTICE = {"command": "lock-scan", "interface": "wlan0"}


def test_what_is_as_the_schemas_want_it_draws_no_complaint():
    checker = contract.Checker(journal.Journal())
    assert checker.look("bus-from-lumd", NOTICE) == [] == checker.found
    assert checker.look("rrm-to-lumd", {"version": "2.4", "service": "RRM", "cmd": "Rrm-Info",
                                        "whatever": 1}) == []


def test_a_journal_that_keeps_the_latest_still_numbers_all():
    async def talk():
        events = journal.Journal()
        events.keep(3)
        for number in range(1, 21):
            events.add("lumd", "lab", f"event {number}")
        assert events.count == 20
        assert 3 <= len(events.events) <= 6
        assert [event["what"] for event in events.since(18)] == ["event 19", "event 20"]
        assert events.since(0)[-1]["n"] == 20
        assert await events.wait(20, 0.01) is None

    asyncio.run(talk())


@pytest.mark.parametrize("border, message, complaint", [
    ("bus-from-lumd", {**NOTICE, "more": 1}, "'more' was unexpected"),
    ("bus-from-lumd", {"interface": "wlan0", "command": "lock-scan"}, "out of order"),
    ("bus-from-lumd", {**NOTICE, "command": "lock"}, "unknown command 'lock'"),
    ("bus-from-lumd", None, "not a JSON object"),
    ("rrm-to-lumd", {"version": "2.3", "service": "rrm", "cmd": "rrm-info"}, "version: '2.3'"),
    ("rrm-to-lumd", {"version": "2.4", "service": "rrm", "cmd": "rrm-update",
                     "rrm-scan-channels": "1,6,36"}, "rrm-scan-channels: '1,6,36'"),
    ("wids-to-lumd", {"Name": "list"}, "'service' is a required property"),
])
def test_what_is_not_is_kept_and_told_in_the_journal(border, message, complaint):
    talk = journal.Journal()
    checker = contract.Checker(talk)
    found, = checker.look(border, message)
    assert complaint in found
    assert checker.found == [{"border": border, "complaint": found,
                              "cmd": (message or {}).get("cmd") or (message or {}).get("command") or
                              ("mac-list" if border == "wids-to-lumd" else "message")}]
    assert len(talk.since(0, what="COMPLAINT")) == 1
