"""The WIDS mode: lists from the service to the network manager."""
import pytest

from lumdtest.lab import Labs, ask, send_bytes
from lumdtest.waiting import wait_until

RECEIVED, REJECTED, UPDATE = "mac-list-received", "mac-list-rejected", "update-wids-mac-lists"
MIB = 1024 * 1024


@pytest.fixture(scope="module", name="lab")
def wids_lab():
    labs = Labs()
    yield labs.start(mode="wids", speed=1)
    labs.stop()


def reply(cmd, name):
    return {"version": "2.4", "service": "wids-mac-service", "cmd": cmd, "Name": name}


@pytest.mark.parametrize("name", ["lab-list", "LAB-LIST", "Lab-List"])
def test_a_list_with_our_name_in_any_letter_case_is_taken(lab, name):
    since = lab.mark()
    received = ask(lab, {"Name": name, "white": ["02:00:00:00:00:01"], "black": []}, RECEIVED)
    assert list(received.items()) == list(reply(RECEIVED, name).items())
    update = lab.wait(UPDATE, since)["data"]
    assert list(update.items()) == [("version", "2.4"), ("service", "wids-mac-service"),
                                    ("Name", name), ("white", ["02:00:00:00:00:01"]),
                                    ("black", []), ("command", UPDATE)]


@pytest.mark.parametrize("name", ["other", "", "lab-list ", "lab-lis", "lab-list2"])
def test_a_list_with_another_name_is_rejected(lab, name):
    since = lab.mark()
    assert ask(lab, {"Name": name, "white": []}, REJECTED) == reply(REJECTED, name)
    ask(lab, {"Name": "lab-list"}, RECEIVED)
    lab.wait(UPDATE, since)
    assert len(lab.events(since, what=UPDATE)) == 1


def test_a_list_without_a_name_is_rejected_as_such(lab):
    assert ask(lab, {"white": []}, REJECTED) == reply(REJECTED, "empty-name")


@pytest.mark.parametrize("text", [
    b"no JSON", b'{"Name":"lab-list"}', b'{"service":"internal-ipc","Name":"lab-list"}',
    b'{"service":"rrm","Name":"lab-list"}'])
def test_what_is_not_for_this_service_is_dropped(lab, text):
    since = lab.mark()
    send_bytes(lab, text)
    ask(lab, {"Name": "other"}, REJECTED)
    assert lab.events(since, what=RECEIVED) == []
    assert lab.events(since, what=UPDATE) == []


def test_the_service_s_name_is_compared_without_regard_to_case(lab):
    assert ask(lab, {"service": "WIDS-Mac-Service", "Name": "lab-list"}, RECEIVED)


def test_a_list_of_a_mebibyte_passes_whole(lab):
    addresses = [f"02:00:{n >> 24 & 255:02x}:{n >> 16 & 255:02x}:{n >> 8 & 255:02x}:{n & 255:02x}"
                 for n in range(MIB // 20)]
    since = lab.mark()
    ask(lab, {"Name": "lab-list", "white": addresses}, RECEIVED)
    assert lab.wait(UPDATE, since)["data"]["white"] == addresses


def test_the_acknowledgement_does_not_wait_for_hubd(lab):
    lab.ap("daemon", name="hubd", delay=15)
    since = lab.mark()
    ask(lab, {"Name": "lab-list"}, RECEIVED)
    lab.wait(f"{UPDATE}-response", since)
    order = [event["what"] for event in lab.events(since) if event["what"] in
             (RECEIVED, f"{UPDATE}-response")]
    lab.ap("daemon", name="hubd", answer="normal")
    assert order == [RECEIVED, f"{UPDATE}-response"]


@pytest.mark.parametrize("behaviour", [{"answer": "refuse"}, {"answer": "refuse", "reason": None},
                                       {"answer": "garbage", "times": 1, "delay": 0}])
def test_a_hubd_that_does_not_comply_does_not_stop_the_next_list(start_lab, behaviour):
    lab = start_lab(mode="wids")
    lab.ap("daemon", name="hubd", **behaviour)
    since = lab.mark()
    for _ in range(2):
        lab.send({"Name": "lab-list"})
    lab.wait(UPDATE, lab.wait(UPDATE, since)["n"], timeout=60)
    lab.wait(RECEIVED, lab.wait(RECEIVED, since)["n"])
    if behaviour["answer"] == "refuse":
        reason = "invalid response" if "reason" in behaviour else "refused by the lab"
        assert any(f"Error: reason ({reason})" in line for line in lab.log_lines())


def test_a_hubd_that_is_gone_is_told_in_one_line_and_the_next_list_is_taken(start_lab):
    lab = start_lab(mode="wids", speed=1)
    lab.ap("daemon", name="hubd", action="stop")
    ask(lab, {"Name": "lab-list"}, RECEIVED)
    wait_until(lambda: told(lab), "the agent tells of the lost list")  # after its acknowledgement
    lab.ap("daemon", name="hubd", action="start")
    since = lab.mark()
    ask(lab, {"Name": "lab-list"}, RECEIVED)
    lab.wait(UPDATE, since)
    assert len(told(lab)) == 1


def told(lab):
    return [line for line in lab.log_lines() if "Error: no response" in line]


def test_lists_arrive_again_after_the_link_was_lost(start_lab):
    lab = start_lab(mode="wids")
    since = lab.mark()
    lab.service("drop", hard=True)
    lab.wait("connected", since)
    ask(lab, {"Name": "lab-list"}, RECEIVED)
    lab.wait(UPDATE, since)
