"""A day of an office in protocol time, with random faults.

Every hour the service surveys the air, changes channels and asks for the radios; clients come, go
and fade; twice the link is lost, once hostapd restarts, once the broker. Whatever the agent
reports must be what the virtual access point is, and nothing may pile up.
"""
import os
import random
import re
import signal
import time

import pytest

from lumdtest.lab import CONFIG, ask, radios
from lumdtest.waiting import wait_until

HOURS = int(os.environ.get("SOAK_HOURS", 7))
SPEED = 120  # a wait of 20 s on the bus takes 170 ms; faster, and a busy machine looks like a fault
HOUR = 3600 / SPEED  # in real seconds
GROWTH_KB = 8 * 1024
# AddressSanitizer keeps freed memory for a while; that must not look like a leak.
SMALL_QUARANTINE = {"ASAN_OPTIONS": "verify_asan_link_order=0:quarantine_size_mb=1"}
CHANNELS = {0: [1, 6, 11], 1: [36, 44, 52, 100, 149]}
BROKER_GONE = re.compile(r"msgbus|Error: (path|no response|can't)|can't get value from|"
                         r"invalid data from the store")


class Day:
    def __init__(self, lab, seed):
        self.lab, self.random = lab, random.Random(seed)
        self.visitors, self.lines_seen, self.unexplained = 0, 0, []

    # What the service and the people do

    def survey(self):
        channels = sorted(self.random.sample(CHANNELS[0], 2) + self.random.sample(CHANNELS[1], 2))
        vendor = self.random.random() < 0.3
        answer = ask(self.lab, {"cmd": "rrm-update", "vexor-rrm-scanning": int(vendor),
                                "rrm-scan-channels": " ".join(map(str, channels))},
                     "rrm-response", timeout=90)
        known = {entry["bssid"]: entry["channel"]
                 for entry in self.lab.ap("status")["neighbours"]}
        assert len(answer["rf-environment"]) <= (1 if vendor else 5)
        for table in answer["rf-environment"]:
            for entry in table:
                assert known[entry["bssid"]] == entry["channel"]
                assert entry["channel"] in channels

    def change_a_channel(self):
        number = self.random.randrange(2)
        wanted = {"id": number, "channel": self.random.choice(CHANNELS[number]),
                  "power": self.random.randint(10, 18)}
        since = self.lab.mark()
        self.lab.send({"cmd": "rrm-info", **CONFIG, "radios": [wanted]})
        self.lab.wait("update-orvanta-response", since)
        self.lab.wait("rrm-config-changed", since)
        seen = radios(self.lab)[number]
        assert (seen["channel"], seen["power"]) == (wanted["channel"], wanted["power"])

    def somebody_comes(self):
        self.visitors += 1
        mac = f"02:ff:00:00:{self.visitors >> 8:02x}:{self.visitors & 255:02x}"
        since = self.lab.mark()
        self.lab.ap("station-add", vap=self.random.choice(["wlan0-va0", "wlan1-va0", "wlan1-va2"]),
                    mac=mac, rssi=self.random.randint(-85, -40))
        self.lab.wait("rrm-client-assoc", since, data={"sta-mac": mac})

    def somebody_leaves(self):
        present = self.clients()
        if present:
            mac = self.random.choice(sorted(present))
            since = self.lab.mark()
            self.lab.ap("station-remove", mac=mac)
            self.lab.wait("rrm-client-disassoc", since, data={"sta-mac": mac})

    def a_radio_is_overloaded(self):
        self.lab.send({"cmd": "rrm-sta-overload", "ap-mac": "00:11:22:33:44:50",
                       "radios": [{"id": self.random.randrange(2), "roam-count": 1}]})
        self.settle()

    # What goes wrong

    def lose_the_link(self):
        since = self.lab.mark()
        self.lab.service("drop", hard=self.random.random() < 0.5)
        self.lab.wait("subscribe-response", since, timeout=60)

    def restart_hostapd(self):
        since = self.lab.mark()
        self.lab.ap("hostapd", action="stop")
        self.lab.wait("rrm-disassoc-all-clients", since)
        self.lab.ap("hostapd", action="start")
        self.lab.wait("rrm-config-changed", since)

    def restart_the_broker(self):
        lab = self.lab

        async def restart():
            broker = lab.lab.broker
            broker.signal(signal.SIGKILL)
            await broker.wait()
            for daemon in lab.lab.ap.daemons.values():
                await daemon.stop()
            lab.lab.bus_path.unlink(missing_ok=True)
            await broker.start([lab.lab.build.bin / "msgbusd"], lab.lab._environment())
            await lab.lab._bus_is_there()
            for daemon in lab.lab.ap.daemons.values():
                await daemon.start()

        lab.run(restart())
        wait_until(lambda: self.tells_the_truth(), "the truth again after the broker's restart")
        wait_until(self.traps_pass, "traps again after the broker's restart")
        self.explain(BROKER_GONE)

    def traps_pass(self):
        since = self.lab.mark()
        self.lab.ap("trap", type="recv-deauth", dev="wlan0-va0", mac="02:ee:00:00:00:01",
                    ssid="office")
        time.sleep(0.2)
        return self.lab.events(since, what="rrm-client-disassoc")

    # What must hold

    def settle(self):
        self.lab.settle(quiet=0.3, limit=3)

    def clients(self):
        return {station["mac"]: max(station["rssi"])
                for radio in self.lab.ap("status")["radios"]
                for vap in radio["vaps"] for station in vap["stations"]}

    def tells_the_truth(self):
        told, real = radios(self.lab), self.lab.ap("status")["radios"]
        return [[radio["channel"], radio["power"], radio["status"]] for radio in told] == \
            [[radio["channel"], radio["tx-power"], 1] for radio in real] and \
            {client["mac"]: client["rssi"] for radio in told
             for client in radio.get("assoclist", [])} == self.clients()

    def explain(self, explained=None):
        lines = self.lab.log_lines()
        new, self.lines_seen = lines[self.lines_seen:], len(lines)
        self.unexplained += [line for line in new if " error: " in line
                             and not (explained and explained.search(line))]

    def memory_kb(self):
        with open(f"/proc/{self.lab.lab.lumd.pid}/status", encoding="ascii") as status:
            return int(re.search(r"VmRSS:\s+(\d+)", status.read()).group(1))

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.lab.lab.lumd.pid}/fd"))

    def threads(self):
        return len(os.listdir(f"/proc/{self.lab.lab.lumd.pid}/task"))


@pytest.mark.soak
def test_a_day_in_the_office(start_lab):
    seed = int(os.environ.get("SOAK_SEED", random.randrange(1 << 32)))
    print(f"SOAK_SEED={seed}")
    lab = start_lab("office", speed=SPEED, environment=SMALL_QUARANTINE)
    day = Day(lab, seed)
    hours = day.random.sample(range(1, HOURS), 4)
    faults = dict(zip(hours, (day.lose_the_link, day.lose_the_link, day.restart_hostapd,
                              day.restart_the_broker)))
    people = (day.somebody_comes, day.somebody_leaves, day.change_a_channel,
              day.a_radio_is_overloaded)
    first = None
    for hour in range(HOURS):
        begun = time.monotonic()
        day.survey()
        for act in day.random.choices(people, k=3):
            act()
        if hour in faults:
            print(f"{hour:2}:00 {faults[hour].__name__}")
            faults[hour]()
        day.settle()
        assert day.tells_the_truth(), f"seed {seed}, hour {hour}"
        day.explain()
        assert day.unexplained == [], f"seed {seed}, hour {hour}"
        figures = (day.memory_kb(), day.descriptors(), day.threads())
        print(f"{hour:2}:00 {figures[0]} KiB, {figures[1]} descriptors, {figures[2]} threads")
        first = figures if hour == 0 else first
        time.sleep(max(0.0, HOUR - (time.monotonic() - begun)))
    assert figures[0] - first[0] < GROWTH_KB
    assert figures[1:] == first[1:]
