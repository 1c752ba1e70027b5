"""The reader of captured frames, against frames written by hand from IEEE 802.11-2020."""
import struct

import pytest
from labair import frames

AP, CLIENT, OTHER = "02:00:00:00:00:10", "02:00:00:00:04:00", "02:00:00:00:02:10"
PCAP = struct.pack("<IHHIIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, 127)
PLAIN_RADIOTAP = bytes.fromhex("0000080000000000")
FCS_RADIOTAP = bytes.fromhex("00000900020000001000")[:9]
TIMED_RADIOTAP = bytes.fromhex("0000110003000000") + bytes(8) + b"\x10"

# 9.4.2.36: BSSID, BSSID information, operating class 81, channel 6, HT; preference 255.
NEIGHBOUR = bytes.fromhex("3410" "020000000210" "8f000000" "51" "06" "07" "0301ff")
# 9.6.13.9: token 1, candidates and abridged, disassociation timer 10, validity 200.
REQUEST = bytes.fromhex("0a07" "01" "03" "0a00" "c8") + NEIGHBOUR


def octets(address):
    return bytes.fromhex(address.replace(":", ""))


def management(subtype, body, receiver=CLIENT, transmitter=AP):
    return bytes((subtype << 4, 0)) + bytes(2) + octets(receiver) + octets(transmitter) + \
        octets(AP) + bytes(2) + body


def capture(*records):
    return PCAP + b"".join(struct.pack("<IIII", 100, 500000, len(record), len(record)) + record
                           for record in records)


def one(subtype, body, radiotap=PLAIN_RADIOTAP, behind=b""):
    (frame,) = frames.management_frames(capture(radiotap + management(subtype, body) + behind))
    return frame


def test_a_frame_is_told_with_time_addresses_and_body():
    frame = one(frames.ACTION, REQUEST)
    assert frame == frames.Frame(100.5, 13, CLIENT, AP, AP, REQUEST)


@pytest.mark.parametrize("radiotap", (FCS_RADIOTAP, TIMED_RADIOTAP))
def test_a_check_sum_is_no_part_of_the_body(radiotap):
    assert one(frames.ACTION, REQUEST, radiotap, b"\1\2\3\4").body == REQUEST


def test_other_frames_and_an_unfinished_record_are_left_out():
    data = b"\x08" + management(13, REQUEST)[1:]
    beside = capture(PLAIN_RADIOTAP + data, PLAIN_RADIOTAP + b"\xd0")
    assert not list(frames.management_frames(beside))
    whole = capture(PLAIN_RADIOTAP + management(13, REQUEST))
    assert not list(frames.management_frames(whole[:-1]))
    assert not list(frames.management_frames(b""))


@pytest.mark.parametrize("kind, fixed", ((frames.ASSOCIATION_REQUEST, bytes(4)),
                                         (frames.REASSOCIATION_REQUEST, bytes(4) + octets(AP))))
@pytest.mark.parametrize("capabilities, takes", (
    ("7f03000008", True), ("7f080000f7ffffffffff", False), ("7f020000", False), ("", False)))
def test_who_associates_tells_whether_it_can_be_asked_to_go(kind, fixed, capabilities, takes):
    body = fixed + b"\x00\x06office" + bytes.fromhex(capabilities)
    assert frames.takes_transitions(one(kind, body)) is takes


def test_an_association_that_is_cut_short_or_none_tells_nothing():
    for frame in (one(frames.ASSOCIATION_REQUEST, bytes(4) + b"\x7f\x08\x00"),
                  one(frames.AUTHENTICATION, bytes(6))):
        with pytest.raises(frames.FrameError):
            frames.takes_transitions(frame)


def test_a_transition_request_is_read_byte_by_byte():
    read = frames.transition_request(one(frames.ACTION, REQUEST))
    assert (read.token, read.mode, read.timer, read.validity) == (1, 3, 10, 200)
    assert read.candidates == (frames.Neighbor(OTHER, 0x8F, 81, 6, 7, 255, NEIGHBOUR),)


def test_what_may_stand_before_the_candidates_is_passed_over():
    body = bytes.fromhex("0a07" "02" "19" "0000" "01") + bytes(12) + b"\x03abc" + NEIGHBOUR
    assert frames.transition_request(one(frames.ACTION, body)).candidates[0].bssid == OTHER


def test_a_transition_response_tells_its_target_only_when_it_accepts():
    accepted = one(frames.ACTION, bytes.fromhex("0a08" "01" "00" "00") + octets(OTHER))
    refused = one(frames.ACTION, bytes.fromhex("0a08" "01" "07" "00"))
    assert frames.transition_response(accepted) == frames.TransitionResponse(1, 0, OTHER)
    assert frames.transition_response(refused) == frames.TransitionResponse(1, 7, None)


def test_a_neighbour_report_response_is_read_with_subelements_it_does_not_know():
    element = bytes.fromhex("3412" "020000000010" "af090000" "51" "01" "07" "060300" "0100")
    token, (read,) = frames.neighbor_response(one(frames.ACTION, b"\x05\x05\x09" + element))
    assert token == 9
    assert read == frames.Neighbor(AP, 0x9AF, 81, 1, 7, None, element)


@pytest.mark.parametrize("cut", range(1, len(NEIGHBOUR)))
def test_a_list_that_is_cut_short_is_no_list(cut):
    with pytest.raises(frames.FrameError):
        frames.transition_request(one(frames.ACTION, REQUEST[:-cut]))


def test_fast_transition_is_known_by_its_algorithm():
    assert one(frames.AUTHENTICATION, b"\2\0\1\0\0\0").is_ft_authentication
    assert not one(frames.AUTHENTICATION, b"\0\0\1\0\0\0").is_ft_authentication


@pytest.mark.parametrize("number, status, refuses", ((2, 1, True), (2, 0, False), (1, 1, False)))
def test_a_refusal_is_an_answer_without_success(number, status, refuses):
    body = struct.pack("<HHH", 0, number, status)
    assert one(frames.AUTHENTICATION, body).refuses is refuses
    assert not one(frames.AUTHENTICATION, body[:5]).refuses
    assert not one(frames.ACTION, body).refuses


def wired(*records):
    header = struct.pack("<IHHIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144) + struct.pack("<I", 1)
    return header + capture(*records)[len(PCAP):]


def test_what_key_holders_say_to_each_other_is_told_by_its_kind():
    ends = octets(OTHER) + octets(AP)
    pull = ends + bytes.fromhex("88b7" "0013740001" "01" "3500")
    strange = ends + bytes.fromhex("88b7" "0013740002" "01"), ends + bytes.fromhex("0800" "45")
    assert list(frames.key_frames(wired(pull, *strange, pull[:19]))) == \
        [frames.KeyFrame(100.5, OTHER, AP, frames.KEY_PULL)]
