"""The lab's bus frames: as the message bus wants them, in either byte order."""
import os
import struct

import pytest

from labap import msgbus
from labshow.policy import write_policy


@pytest.mark.parametrize("order", ["<", ">"])
def test_a_bus_frame_is_17_bytes_of_header_and_the_payload(order):
    data = msgbus.pack(msgbus.Frame(dst=6, payload=b"{}", src=28, seq=7, uid=1000), order)
    assert data[:4] == bytes([0xB5, 1, 28, 6])
    assert struct.unpack_from(order + "III", data, 4) == (2, 7, 1000)
    assert data[16:] == b"\0{}"
    frame, size = msgbus.unpack_header(data[:17], order)
    assert (frame.src, frame.dst, frame.seq, frame.uid, frame.type, size) == (28, 6, 7, 1000, 0, 2)


@pytest.mark.parametrize("offset, value", [(0, 0xB4), (1, 2), (7, 0xFF)])
def test_a_malformed_bus_header_is_refused(offset, value):
    header = bytearray(msgbus.pack(msgbus.Frame(dst=1), "<"))
    header[offset] = value
    with pytest.raises(msgbus.BusError):
        msgbus.unpack_header(bytes(header[:17]), "<")


def test_the_policy_of_the_labs_bus_names_the_user_and_the_group_that_run_the_lab(tmp_path):
    lines = write_policy(tmp_path / "msgbusd.conf").read_text().splitlines()
    assert f"group={os.getgid()}" in lines
    allowed = [line for line in lines if line.startswith("allow=")]
    assert allowed and all(line.startswith(f"allow={os.getuid()} as ") for line in allowed)
