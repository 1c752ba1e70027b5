"""Days of an office in protocol time, with random faults.

While the office is open the service surveys the air every hour, changes channels and asks for the
radios; clients come, go and fade, and something breaks now and then. At night nobody asks for
anything. Whatever the agent reports must be what the virtual access point is, nothing may be lost
that the fault at work does not cost, and nothing may pile up.
"""
import os
import random
import re
import time

import pytest

from lumdtest.lab import CONFIG, ask, radios
from lumdtest.waiting import wait_until

HOURS = int(os.environ.get("SOAK_HOURS", 24))
OPEN = range(7, 21)   # hours of the day
# How much faster than real time. A wait of 20 s on the bus takes 330 ms; faster, and a busy machine
# looks like a fault. Where nothing happens only pings can be late: three unanswered ones take
# 90 ms, and a machine that is busier than that costs a link, and answers while it is made anew;
# such links are counted.
SPEED = int(os.environ.get("SOAK_SPEED", 60))
SPEED_WHEN_NOTHING_HAPPENS = int(os.environ.get("SOAK_IDLE_SPEED", 1000))
HOUR = 3600           # seconds of protocol time
LINES_PER_IDLE_HOUR = 0
LOOKS = 10            # the agent opens a socket for each command of a moment
GROWTH_KB = 1024
# AddressSanitizer keeps freed memory for a while; that must not look like a leak.
GROWTH_KB_WITH_SANITIZER = 8 * 1024
SMALL_QUARANTINE = {"ASAN_OPTIONS": "verify_asan_link_order=0:quarantine_size_mb=1"}
CHANNELS = {0: [1, 6, 11], 1: [36, 44, 52, 100, 149]}
RESULTS = "VEXOR_CMD_CUSTOM_SCAN_RESULTS"
NO_ANSWER = re.compile(r"msgbus|Error: (path|no response|can't)|can't get value from|"
                       r"cannot take  value|invalid data from the store")
DRIVER_FAILS = re.compile(r"ioctl|scan|VEXOR|count|entries", re.IGNORECASE)
HUBD_REFUSES = re.compile(r"Error: |Update Orvanta|update_orvanta", re.IGNORECASE)


class Office:
    def __init__(self, lab, seed):
        self.lab, self.random = lab, random.Random(seed)
        self.visitors, self.read, self.unexplained = 0, {}, []
        self.begun = self.now()
        self.people = (self.somebody_comes, self.somebody_leaves, self.change_a_channel,
                       self.a_radio_is_overloaded)
        self.faults = (self.lose_the_link, self.refuse_the_subscription, self.restart_hostapd,
                       self.restart_the_broker, self.fail_the_survey, self.refuse_a_channel)

    def now(self):
        return self.lab.lab.clock.now()

    # What the service and the people do

    def survey(self, passes=None):
        channels = sorted(self.random.sample(CHANNELS[0], 2) + self.random.sample(CHANNELS[1], 2))
        vendor = passes is None and self.random.random() < 0.3
        answer = ask(self.lab, {"cmd": "rrm-update", "vexor-rrm-scanning": int(vendor),
                                "rrm-scan-channels": " ".join(map(str, channels))},
                     "rrm-response", timeout=90)
        known = {entry["bssid"]: entry["channel"]
                 for entry in self.lab.ap("status")["neighbours"]}
        assert len(answer["rf-environment"]) in (passes or ((0, 1) if vendor else range(6)))
        for table in answer["rf-environment"]:
            for entry in table:
                assert known[entry["bssid"]] == entry["channel"]
                assert entry["channel"] in channels

    def ask_for_a_channel(self):
        number = self.random.randrange(2)
        now = self.lab.ap("status")["radios"][number]["channel"]
        channel = self.random.choice([one for one in CHANNELS[number] if one != now])
        wanted = {"id": number, "channel": channel, "power": self.random.randint(10, 18)}
        since = self.lab.mark()
        self.lab.send({"cmd": "rrm-info", **CONFIG, "radios": [wanted]})
        self.lab.wait("update-orvanta-response", since)
        return wanted, since

    def change_a_channel(self):
        wanted, since = self.ask_for_a_channel()
        self.lab.wait("rrm-config-changed", since)
        seen = radios(self.lab)[wanted["id"]]
        assert (seen["channel"], seen["power"]) == (wanted["channel"], wanted["power"])

    def somebody_comes(self):
        self.visitors += 1
        mac = f"02:ff:00:00:{self.visitors >> 8 & 255:02x}:{self.visitors & 255:02x}"
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

    def refuse_the_subscription(self):
        settings = self.lab.lab.service.subscribe_answers
        self.lab.service("settings", subscribe_answers=[
            {"status": "error", "code": 503, "timeout": 3}, *settings])
        since = self.lab.mark()
        self.lab.service("drop", hard=False)
        self.lab.wait("subscribe-response", since, timeout=60, data={"status": "success"})
        self.lab.service("settings", subscribe_answers=settings)

    def restart_hostapd(self):
        since = self.lab.mark()
        self.lab.ap("hostapd", action="stop")
        self.lab.wait("rrm-disassoc-all-clients", since)
        self.lab.ap("hostapd", action="start")
        self.lab.wait("rrm-config-changed", since)

    def restart_the_broker(self):
        self.lab.run(self.lab.lab.restart_broker())
        wait_until(lambda: self.tells_the_truth(), "the truth again after the broker's restart")
        wait_until(self.traps_pass, "traps again after the broker's restart")
        self.explain(NO_ANSWER)

    def traps_pass(self):
        since = self.lab.mark()
        self.lab.ap("trap", type="recv-deauth", dev="wlan0-va0", mac="02:ee:00:00:00:01",
                    ssid="office")
        time.sleep(0.2)
        return self.lab.events(since, what="rrm-client-disassoc")

    def fail_the_survey(self):
        lost = self.random.randint(1, 5)
        self.lab.ap("fault-add", rule={"call": "vendor", "name": RESULTS, "times": lost,
                                       "errno": self.random.choice(["EIO", "ENOMEM", "EBUSY"])})
        self.survey(passes=range(6))
        self.lab.ap("fault-clear")
        self.explain(DRIVER_FAILS)

    def refuse_a_channel(self):
        self.lab.ap("daemon", name="hubd", answer="refuse")
        self.ask_for_a_channel()
        self.lab.ap("daemon", name="hubd", answer="normal")
        self.settle()
        self.explain(HUBD_REFUSES)

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

    def new_lines(self):
        """What the agent has logged since the last look."""
        lines = []
        for path in (self.lab.lab.lumd.output, self.lab.lab.lumd_log):
            with open(path, encoding="utf-8", errors="replace") as file:
                file.seek(self.read.get(path, 0))
                lines += file.read().splitlines()
                self.read[path] = file.tell()
        return lines

    def explain(self, explained=None):
        lines = self.new_lines()
        self.unexplained += [line for line in lines if " error: " in line
                             and not (explained and explained.search(line))]
        return lines

    def figures(self):
        """Resident KiB, descriptors and threads of the agent at rest."""
        process = f"/proc/{self.lab.lab.lumd.pid}"
        with open(f"{process}/status", encoding="ascii") as status:
            resident = int(re.search(r"VmRSS:\s+(\d+)", status.read()).group(1))
        descriptors = set()
        for _ in range(LOOKS):
            descriptors.add(len(os.listdir(f"{process}/fd")))
            time.sleep(0.01)
        return resident, min(descriptors), len(os.listdir(f"{process}/task"))

    def growth_limit(self):
        with open(f"/proc/{self.lab.lab.lumd.pid}/maps", encoding="ascii") as maps:
            return GROWTH_KB_WITH_SANITIZER if "libasan" in maps.read() else GROWTH_KB

    # Hours

    def busy_hour(self, fault):
        self.survey()
        for act in self.random.choices(self.people, k=3):
            act()
        if fault is not None:
            fault()

    def sleep_until(self, hour):
        """Nothing is asked until the hour is over; what the agent logs, and links it lost."""
        since = self.lab.mark()
        self.lab.set_speed(SPEED_WHEN_NOTHING_HAPPENS)
        while self.now() < self.begun + hour * HOUR:
            time.sleep(0.02)
        self.lab.set_speed(SPEED)
        lost = self.lab.events(since, what="disconnected")
        if lost:
            self.lab.wait("subscribe-response", lost[-1]["n"], timeout=60)
        return self.explain(NO_ANSWER if lost else None), len(lost)


def plan_of_faults(office):
    """The fault of each open hour: every kind once in the first day, then one in three hours."""
    opens = [hour for hour in range(HOURS) if hour % 24 in OPEN]
    first = dict(zip(office.random.sample(opens[:len(OPEN)], len(office.faults)), office.faults))
    return {hour: first[hour] if hour in first else office.random.choice(office.faults)
            for hour in opens if hour in first or hour >= 24 and office.random.random() < 1 / 3}


@pytest.mark.soak
def test_days_in_the_office(start_lab):
    seed = int(os.environ.get("SOAK_SEED", random.randrange(1 << 32)))
    print(f"SOAK_SEED={seed}")
    lab = start_lab("office", speed=SPEED, environment=SMALL_QUARANTINE)
    office = Office(lab, seed)
    faults = plan_of_faults(office)
    first, links_lost, idle_lines = None, 0, []
    for hour in range(HOURS):
        fault = faults.get(hour)
        if hour % 24 in OPEN:
            office.busy_hour(fault)
        office.settle()
        office.explain()
        lines, lost = office.sleep_until(hour + 1)
        links_lost += lost
        assert office.tells_the_truth(), f"seed {seed}, hour {hour}"
        office.explain()
        assert office.unexplained == [], "\n".join([f"seed {seed}, hour {hour}",
                                                    *office.unexplained])
        if hour % 24 not in OPEN and not lost:
            idle_lines.append(len(lines))
        figures = office.figures()
        first = first or figures
        print(f"day {hour // 24 + 1} {hour % 24:2}:00 {figures[0]} KiB, {figures[1]} descriptors, "
              f"{figures[2]} threads{' ' + fault.__name__ if fault else ''}", flush=True)
    print(f"{len(faults)} faults; {links_lost} links lost while nothing happened, which the "
          f"machine was too busy for; at most {max(idle_lines)} lines logged in an idle hour")
    assert max(idle_lines) <= LINES_PER_IDLE_HOUR
    assert figures[0] - first[0] < office.growth_limit()
    assert figures[1:] == first[1:]
