"""Recordings: what is compared, in what order, what lumd is answered; and a day played to it."""
import asyncio
import json
import pathlib
import shutil
import subprocess

import pytest

from labap import records
from labshow.process import LabError, find_build
from labshow.recording import RecordingError, load
from labshow.replay import Replay
from labshow.script import Difference, Script
from lumdtest.lab import CONFIG, NO_DEBUG_LINES, SPEED, running_lab

TREE = pathlib.Path(__file__).resolve().parents[2]
DAY = pathlib.Path(__file__).parent / "recordings" / "office-day.jsonl.gz"
VENDOR, MIB_GET = records.VENDOR_COMMAND["g6"], records.MIB_GET["rtl8192cd"]
LONGEST_PAUSE = 0.1  # real seconds; the recordings run at twenty times that


def at(time, border, by, what, **members):
    return {"t": time, "border": border, "by": by, "what": what, **members}


def text(content, by="lumd", time=0.0):
    more = {"pieces": 1} if by == "lab" else {}
    return at(time, "service", by, "text", text=content, **more)


def frame(content, src=28, seq=1):
    return at(0.0, "bus", "lumd", "frame", src=src, dst=6, seq=seq, text=json.dumps(content))


def answer(content, seq=1):
    return at(0.0, "bus", "lab", "answer", src=6, dst=28, seq=seq, text=json.dumps(content))


def mib(value, name="chanspec"):
    return at(0.0, "driver", "lumd", "ioctl", request=MIB_GET, ifname="wlan0", length=9,
              data=name.encode().hex(), result=0, out_length=4, answer=value)


def set_mib(name):
    return at(0.0, "driver", "lumd", "iwpriv", arguments=["wlan0", "set_mib", name], status=0,
              output="")


def test_acts_of_different_borders_may_come_in_any_order():
    script = Script([text("a"), set_mib("x=1"), text("b")])
    for entry in (set_mib("x=1"), text("a"), text("b")):
        script.did(entry)
    assert script.is_over


def test_acts_of_one_border_may_not():
    script = Script([text("a"), text("b")])
    with pytest.raises(Difference, match='recorded: text text=a\n  now:      text text=b'):
        script.did(text("b"))


def test_the_modules_of_the_bus_are_borders_of_their_own():
    script = Script([frame({"command": "x"}, src=28), frame({"command": "y"}, src=31)])
    script.did(frame({"command": "y"}, src=31))
    script.did(frame({"command": "x"}, src=28))
    assert script.is_over


def test_an_act_beyond_the_last_one_is_a_difference():
    with pytest.raises(Difference, match="after all that was recorded there"):
        Script([set_mib("x=1")]).did(text("a"))


def test_a_difference_within_json_is_told_by_its_path():
    recorded, now = ({"radios": [{"id": 0, "channel": channel}]} for channel in (6, 11))
    with pytest.raises(Difference, match=r"at radios\[0\].channel: 6 recorded, 11 now"):
        Script([text(json.dumps(recorded))]).did(text(json.dumps(now)))


def test_members_in_another_order_are_a_difference():
    with pytest.raises(Difference, match="at the order of members"):
        Script([text('{"a": 1, "b": 2}')]).did(text('{"b": 2, "a": 1}'))


def test_sequence_numbers_times_and_answers_are_not_compared():
    script = Script([frame({"command": "x"}, seq=7), set_mib("x=1")])
    script.did({**frame({"command": "x"}, seq=9), "t": 5})
    script.did({**set_mib("x=1"), "status": 3})
    assert script.is_over


def test_what_happens_to_lumd_waits_for_all_that_it_had_done_before():
    script = Script([text("a"), text("go", "lab"), text("b")])
    place, entry = script.next_input()
    assert entry["text"] == "go" and not script.is_ready(place)
    script.did(text("a"))
    assert script.is_ready(place)
    script.happened(place)
    assert script.next_input() is None and not script.is_over


def test_an_act_may_come_before_what_happened_when_it_was_recorded():
    script = Script([text("go", "lab"), text("b")])
    script.did(text("b"))
    script.happened(0)
    assert script.is_over


def test_what_does_not_come_is_told():
    script = Script([text("go", "lab"), text("a", time=7.0)])
    script.happened(0)
    difference = script.not_done(30)
    assert "7.0 s into the recording" in str(difference)
    assert "recorded: text text=a\n  now:      nothing within 30 s" in str(difference)


def test_a_question_may_be_asked_more_or_less_often_than_it_was_recorded():
    script = Script([mib("01"), mib("02"), set_mib("x=1"), mib("03"), text("go", "lab"),
                     mib("04")])
    given = [script.did(mib(None))["answer"] for _ in range(3)]
    script.did(set_mib("x=1"))
    given.append(script.did(mib(None))["answer"])
    given.append(script.did(mib(None))["answer"])
    script.happened(4)
    given.append(script.did(mib(None))["answer"])
    assert given == ["01", "02", "02", "03", "03", "04"]


def test_answers_that_were_not_asked_for_are_left_behind():
    script = Script([mib("01"), mib("02"), set_mib("x=1"), mib("03")])
    given = [script.did(mib(None))["answer"]]
    script.did(set_mib("x=1"))
    assert [*given, script.did(mib(None))["answer"]] == ["01", "03"]


def test_a_question_that_was_not_asked_here_is_answered_as_before():
    script = Script([mib("01"), set_mib("x=1"), text("go", "lab"), mib("04")])
    script.did(set_mib("x=1"))
    assert script.did(mib(None))["answer"] == "01"


def test_a_question_that_was_never_asked_is_a_difference():
    with pytest.raises(Difference, match="a question that the recording does not have"):
        Script([mib("01")]).did(mib(None, "roam"))


def test_reads_of_the_configuration_are_questions_with_their_answers():
    get, value = {"command": "get", "path": "/x"}, {"command": "get-response", "value": 1}
    script = Script([frame(get, seq=3), answer(value, seq=3)])
    assert script.next_input() is None
    assert script.did(frame(get, seq=8))["answers"] == [json.dumps(value)]


def test_what_lumd_does_from_its_end_signal_on_is_chance_but_for_its_status():
    stop, end = at(1.0, "lumd", "lab", "stop"), at(1.2, "lumd", "lumd", "end", status=0)
    for recorded, now in (([text("a")], []), ([], [text("b"), mib(None)])):
        script = Script([text("first"), stop, *recorded, end, text("again")])
        script.did(text("first"))
        script.happened(1)
        for entry in now:
            script.did(entry)
        with pytest.raises(Difference, match="status=1"):
            script.did({**end, "status": 1})
        script.did(end)
        with pytest.raises(Difference):
            script.did(text("b"))


@pytest.mark.parametrize("now", [text("b"), mib(None), frame({"command": "x"})])
@pytest.mark.parametrize("again", [[], [text("first")]])
def test_what_comes_in_the_second_before_the_end_signal_may_have_come_too_late_when_recorded(
        now, again):
    clock = [0.0]
    stop, end = at(5.0, "lumd", "lab", "stop"), at(5.2, "lumd", "lumd", "end", status=0)
    script = Script([text("first", time=3.0), stop, end, *again], clock=lambda: clock[0])
    script.did(text("first"))
    clock[0] = 0.9
    with pytest.raises(Difference):
        script.did(now)
    clock[0] = 1.1
    assert script.did(now)["place"] is None
    script.happened(1)
    script.did(end)
    assert script.is_over == (not again)


def test_the_answer_to_what_lumd_asks_while_it_ends_is_passed_over():
    script = Script([at(1.0, "lumd", "lab", "stop"), frame({"command": "update"}, seq=3),
                     answer({"status": "ok"}, seq=3), at(1.2, "lumd", "lumd", "end", status=0)])
    script.happened(0)
    assert script.next_input() is None


def test_the_answer_to_a_request_happens_once_it_was_made():
    script = Script([frame({"command": "update"}, seq=3), answer({"status": "ok"}, seq=3)])
    place, entry = script.next_input()
    assert entry["answers_place"] == 0 and not script.is_ready(place)
    assert script.did(frame({"command": "update"}, seq=8))["place"] == 0
    assert script.is_ready(place)


@pytest.mark.parametrize("command, is_act", [(records.CUSTOM_SCAN, True),
                                             (records.CUSTOM_SCAN_RESULTS, False)])
def test_a_scan_is_an_act_and_its_results_are_a_question(command, is_act):
    data = command.to_bytes(4, "little").rstrip(b"\0").hex()
    script = Script([at(0.0, "driver", "lumd", "ioctl", request=VENDOR, ifname="wlan1", length=9,
                        data=data, result=0, out_length=0, answer="")])
    assert script.count() == int(is_act)


@pytest.mark.parametrize("content, why", [
    ("", "no recording"), ("{}\n", "no recording"), ("garbage\n", "1: Expecting value"),
    ('{"recording": 1, "mode": 0, "scenario": 0, "speed": 0, "order": 0, "config": 0}\n{}\n',
     "2: an entry has"), ("[]\n", "1: no object"), (None, "No such file")])
def test_a_file_that_is_no_recording_is_refused_with_the_place(tmp_path, content, why):
    path = tmp_path / "recording"
    if content is not None:
        path.write_text(content)
    with pytest.raises(RecordingError, match=why):
        load(path)


# With lumd

def replay(path, **options):
    """How many acts were the same."""
    async def run():
        return await Replay(path, find_build(), longest_pause=LONGEST_PAUSE, **options).run()
    return asyncio.run(run())


@pytest.fixture(name="recorded", scope="module")
def short_recording(tmp_path_factory):
    """lumd subscribes and changes a channel."""
    path = tmp_path_factory.mktemp("recording") / "short.jsonl"
    with running_lab(speed=SPEED, config=[NO_DEBUG_LINES], record=path) as lab:
        lab.wait_subscribed()
        since = lab.mark()
        lab.send({"cmd": "rrm-info", **CONFIG, "radios": [{"id": 0, "channel": 11}]})
        lab.wait("rrm-config-changed", since)
    return path


@pytest.fixture(name="recording")
def copied_recording(recorded, tmp_path):
    """For a test that changes it."""
    return pathlib.Path(shutil.copy(recorded, tmp_path))


def changed(recording, old, new):
    """The same recording of an agent that says something else."""
    content = recording.read_text()
    assert old in content
    recording.write_text(content.replace(old, new))
    return recording


def test_the_same_lumd_does_the_same_again(recording, tmp_path):
    copy = tmp_path / "lumd"
    shutil.copy(find_build().bin / "lumd", copy)
    assert replay(recording, lumd=copy) > 3


@pytest.mark.parametrize("old, new, told", [
    (r'\"channel\":\"11\"', r'\"channel\":\"12\"', r"the bus \(module 28\)"),
    (r'\"cmd\":\"rrm-config-changed\"', r'\"cmd\":\"rrm-other\"', "the service.*at cmd"),
    ("roam_attempt_timeout".encode().hex(), "x".encode().hex(), "the driver")])
def test_a_lumd_that_does_something_else_is_told_where(recording, old, new, told):
    with pytest.raises(Difference, match=told):
        replay(changed(recording, old, new))


def test_a_recording_of_the_other_byte_order_is_refused(recording):
    order = load(recording)[0]["order"]
    other = {"<": ">", ">": "<"}[order]
    with pytest.raises(RecordingError, match="byte order"):
        replay(changed(recording, f'"order": "{order}"', f'"order": "{other}"'))


def test_what_cannot_be_played_is_told(recording):
    time = load(recording)[1][-1]["t"]
    with pytest.raises(LabError, match=f"'dance' at the service, {time:.1f} s into the recording"):
        with open(recording, "a", encoding="utf-8") as file:
            file.write(json.dumps(at(time, "service", "lab", "dance")) + "\n")
        replay(recording)


def test_what_is_said_to_a_lumd_that_has_just_ended_is_passed_over(recording):
    lines = recording.read_text().splitlines(keepends=True)
    stop = next(n for n, line in enumerate(lines) if json.loads(line).get("what") == "stop")
    said = text('{"cmd": "rrm-request-mode"}', by="lab", time=json.loads(lines[stop])["t"])
    recording.write_text("".join((*lines[:stop + 1], json.dumps(said) + "\n", *lines[stop + 1:])))
    assert replay(recording) > 3


def test_run_ends_with_3_and_tells_the_difference(recording):
    result = subprocess.run(
        ["/usr/bin/python3", TREE / "lab" / "run.py", "--bin", find_build().bin, "--replay",
         changed(recording, r'\"channel\":\"11\"', r'\"channel\":\"12\"')],
        check=False, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    assert (result.returncode, result.stderr) == (3, "")
    assert "the first difference is at the bus (module 28)" in result.stdout
    assert 'at params.channel: "12" recorded, "11" now' in result.stdout


def test_lumd_lives_through_the_office_day_as_it_was_recorded():
    if load(DAY)[0]["order"] != "<" or find_build().emulator:
        pytest.skip("another machine")
    assert replay(DAY) > 100
