"""The second lab without its virtual machine: a guest that answers as a kernel with two radios does,
and the agent's side of the link."""
import asyncio
import base64
import json
import pathlib
import struct
import time

import aiohttp

from labair.accesspoint import LUMD_LOG
from labair.air import CAPTURE, Air, Plan
from labair.airview import AirView
from labair.machine import GuestError, Machine
from labair.nl80211 import INTERFACE_TYPES
from labair.station import frequency

EXAMPLES = pathlib.Path(__file__).resolve().parents[3] / "schemas/examples/rrm-from-lumd.json"
PCAP = struct.pack("<IHHIIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, 127)
RADIOTAP = bytes.fromhex("0000080000000000")
BSSIDS = ("02:00:00:0a:01:01", "02:00:00:0a:01:09")
CLIENT = "02:00:00:00:04:00"
NEIGHBOUR = "02:00:00:0a:02:01"
NL80211_IFTYPE_AP = 3  # linux/nl80211.h
AHEAD = 3.0  # seconds of the guest's clock before this one


def octets(address):
    return bytes.fromhex(address.replace(":", ""))


def interface(index, address, frequency, width, power):
    return {"index": index, "wiphy": index, "type": INTERFACE_TYPES[NL80211_IFTYPE_AP],
            "address": address, "frequency": frequency, "width": width,
            "center": frequency, "power": power, "ssid": "office"}


class PlayedGuest(Machine):
    """A machine whose agent a test plays. `calls`: what was asked of it; `gone`: the
    interfaces of the access points are."""

    def __init__(self, machine):
        super().__init__(machine.radios, machine.programs)
        self.calls, self.frames, self.log, self.gone = [], b"", b"", False
        self.interfaces = {"wlan0-va0": interface(3, BSSIDS[0], 2412, 20, 15),
                           "wlan1-va0": interface(4, BSSIDS[1], 5180, 80, 15)}
        self.others = {"wlan0-va0": interface(3, NEIGHBOUR, 2437, 20, 15)}
        self.stations = {"wlan0-va0": {CLIENT: {"signal": -41, "connected": 7}}, "wlan1-va0": {}}
        self.surveys = {"wlan0-va0": [{"frequency": 2412, "noise": -92, "time": 400, "busy": 100}],
                        "wlan1-va0": [{"frequency": 5180, "noise": -92, "time": None, "busy": None}]}
        self.processes = iter(range(100, 200))

    running = True

    async def call(self, call, **arguments):
        self.calls.append((call, arguments))
        return getattr(self, f"_{call}", lambda **_: None)(**arguments)

    def _clock(self):
        return time.time() + AHEAD

    def _start(self, **_):
        return next(self.processes)

    def _run(self, **_):
        return {"status": 0, "output": "/run/msgbus.sock\n"}

    def _signal(self, pid, number):
        asyncio.get_running_loop().call_soon(self._take, {"event": "end", "pid": pid,
                                                          "status": -number})

    def _interfaces(self, place):
        if self.gone:
            return {}
        return self.interfaces if place == "ap1" else self.others

    def _stations(self, place, ifname):
        if self.gone:
            raise GuestError(f"{ifname}: no such device")
        return self.stations[ifname] if place == "ap1" else {}

    def _survey(self, place, ifname):
        return self.surveys[ifname] if place == "ap1" else []

    def _read(self, place, path, offset=0):
        content = {CAPTURE: PCAP + self.frames, LUMD_LOG: self.log}.get(path)
        return None if content is None else base64.b64encode(content[offset:]).decode()

    def capture(self, subtype, body, receiver, transmitter):
        """A management frame, captured now."""
        frame = bytes((subtype << 4, 0)) + bytes(2) + octets(receiver) + octets(transmitter) + \
            octets(BSSIDS[0]) + bytes(2) + body
        record = RADIOTAP + frame
        seconds = time.time() + AHEAD
        self.frames += struct.pack("<IIII", int(seconds), int(seconds % 1 * 1e6), len(record),
                                   len(record)) + record


class PlayedAir:
    """`air` with a played guest, its access points' services up and their daemons "running"; made
    and used on one loop. `obeyed`: what lumd was sent meanwhile."""

    def __init__(self):
        self.air = Air(Plan(clients=1))
        self.guest = self.air.machine = PlayedGuest(self.air.machine)
        for part in (*self.air.points, *self.air.clients):
            part.machine = self.guest
        self._session = self._link = self._obeying = None
        self.obeyed = []

    @classmethod
    async def make(cls):
        made = cls()
        for point in made.air.points:
            await point.service.start()
            await point.start_daemons()
        made.views = [AirView(made.air, point) for point in made.air.points]
        return made

    async def subscribe(self):
        """What the first access point's lumd says at its beginning."""
        service = self.air.points[0].service
        self._session = aiohttp.ClientSession()
        self._link = await self._session.ws_connect(
            f"ws://127.0.0.1:{service.port}{service.path}", protocols=["websock-rrm"])
        await self.say("subscribe-request")

    async def say(self, kind, **members):
        """A recorded message of lumd's, with other members."""
        recorded = json.loads(EXAMPLES.read_text(encoding="utf-8"))[kind][0]
        await self._link.send_str(json.dumps({**recorded, **members}))

    async def hear(self):
        """The next message of the service."""
        return json.loads((await self._link.receive(10)).data)

    async def obey(self):
        """Does as lumd does from now on; the answers are the recorded ones."""
        self._obeying = asyncio.ensure_future(self._obey())

    async def _obey(self):
        answers = {"rrm-request-mode": "rrm-mode-response", "rrm-update": "rrm-response",
                   "rrm-sta-overload": "rrm-sta-roam"}
        while True:
            message = json.loads((await self._link.receive()).data)
            self.obeyed.append(message)
            for change in message.get("radios", ()) if message["cmd"] == "rrm-info" else ():
                self._change(self.guest.interfaces[f"wlan{change['id']}-va0"], change)
            if message["cmd"] in answers:
                await self.say(answers[message["cmd"]])

    @staticmethod
    def _change(here, change):
        if "channel" in change:
            here.update(frequency=frequency(change["channel"]), width=change["bandwidth"])
        here["power"] = change.get("power", here["power"])

    async def stop(self):
        if self._obeying is not None:
            self._obeying.cancel()
        if self._session is not None:
            await self._session.close()
        for point in self.air.points:
            await point.service.stop()
