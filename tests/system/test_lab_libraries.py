"""The libraries that are preloaded into lumd, here into a Python process."""
import asyncio
import json
import os
import struct
import subprocess
import textwrap
import time

from labap import clock, records
from labap.kernel import KernelServer
from labshow.process import find_build


CALLER = """
    import fcntl, json, socket, struct, sys, ctypes
    def iwreq(name, data):
        buffer = ctypes.create_string_buffer(data, max(len(data), 131070))
        request = bytearray(struct.pack("16sPHH", name, ctypes.addressof(buffer), len(data), 0))
        request += bytes(32 - len(request))
        return buffer, request
    def call(number, name, data):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as handle:
            buffer, request = iwreq(name, data)
            try:
                fcntl.ioctl(handle, number, request, True)
            except OSError as error:
                return [error.errno, ""]
            return [0, buffer.raw[:64].hex()]
    print(json.dumps([call(int(number), name.encode(), bytes.fromhex(data))
                      for number, name, data in json.loads(sys.argv[1])]))
"""


def through_the_library(root, calls):
    """What ioctls give in a process that has the lab's kernel library."""
    environment = {**os.environ, "LAB_ROOT": str(root),
                   "LD_PRELOAD": str(find_build().lib / "liblabkernel.so")}
    result = subprocess.run(["/usr/bin/python3", "-c", textwrap.dedent(CALLER), json.dumps(calls)],
                            env=environment, capture_output=True, text=True, timeout=60,
                            check=False)
    assert result.returncode == 0, result.stderr
    return json.loads(result.stdout)


def ioctls(ap, calls):
    async def serve():
        server = KernelServer(ap.kernel, ap.journal)
        await server.start(str(ap.root / "kernel.sock"))
        try:
            return await asyncio.to_thread(through_the_library, ap.root, calls)
        finally:
            await server.stop()

    return asyncio.run(serve())


def test_vendor_commands_travel_through_the_library(ap):
    capacity = struct.pack("=II", records.GET_AVAILABLE_CHANNELS, 65526).hex()
    (status, data), = ioctls(ap, [(0x8BBF, "wlan0", capacity)])
    assert status == 0
    assert struct.unpack("=II4i", bytes.fromhex(data)[:24]) == (5, 13, 1, 2, 3, 4)


def test_each_family_answers_only_its_own_request_number(ap):
    capacity = struct.pack("=II", records.GET_AVAILABLE_CHANNELS, 1).hex()
    answers = ioctls(ap, [(0x8BBF, "wlan1", capacity), (0x89F4, "wlan1", capacity)])
    assert [status != 0 for status, _ in answers] == [True, False]


def test_a_mib_is_a_32_bit_number_behind_its_request(ap):
    (status, data), = ioctls(ap, [(0x89F2, "wlan0", b"chanspec\0".hex())])
    assert status == 0
    assert struct.unpack("=I", bytes.fromhex(data)[:4]) == (0x1006,)


def test_an_errno_fault_reaches_the_caller(ap):
    ap.faults.add({"call": "mib-get", "name": "chanspec", "errno": "EBUSY"})
    (status, _), = ioctls(ap, [(0x89F2, "wlan0", b"chanspec\0".hex())])
    assert status == 16


def test_without_a_lab_program_there_is_no_device(tmp_path):
    (status, _), = through_the_library(tmp_path, [(0x89F2, "wlan0", b"chanspec\0".hex())])
    assert status == 19


def test_the_fast_clock_speeds_up_reading_and_waiting():
    environment = {**os.environ, "LAB_CLOCK_SPEED": "50",
                   "LD_PRELOAD": str(find_build().lib / "liblabclock.so")}
    code = "import time; a = time.monotonic(); time.sleep(60); print(time.monotonic() - a)"
    begun = time.monotonic()
    result = subprocess.run(["/usr/bin/python3", "-c", code], env=environment, text=True,
                            capture_output=True, timeout=90, check=True)
    assert float(result.stdout) >= 60 > time.monotonic() - begun


def test_the_fast_clock_follows_a_change_of_its_speed(tmp_path):
    shared = clock.LabClock(1, tmp_path / "clock")
    environment = {**os.environ, "LAB_CLOCK_FILE": str(tmp_path / "clock"),
                   "LD_PRELOAD": str(find_build().lib / "liblabclock.so")}
    code = "import time\nfor _ in range(3): input(); print(time.monotonic(), flush=True)"
    least, most = [], []  # how far the program's clock may be ahead of the lab's
    with subprocess.Popen(["/usr/bin/python3", "-c", code], env=environment, text=True,
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE) as program:
        for speed in (1, 1e6, 1):
            shared.set_speed(speed)
            before = shared.now()
            program.stdin.write("\n")
            program.stdin.flush()
            reading = float(program.stdout.readline())
            least.append(reading - shared.now())
            most.append(reading - before)
    assert max(least) <= min(most)
    assert shared.now() - time.monotonic() > 1
