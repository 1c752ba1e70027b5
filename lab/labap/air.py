"""The radio model: radios, VAPs, stations, neighbours, and scans that take their time."""
import dataclasses
import random

from . import records, scenario as scenarios

# What an unused receive chain reports.
NO_SIGNAL = -100
CHAINS = 4


@dataclasses.dataclass
class Station:
    """One client. `roam`: what it does when asked to move ("accept", "refuse" or "ignore")."""
    mac: str
    rssi: list
    roam_attempt: bool = False
    no_balance: bool = False
    roam: str = "accept"
    roam_to: str | None = None
    fade: float = 0.0       # dB a second
    fade_since: float = 0.0  # lab time at which `rssi` was right

    @classmethod
    def make(cls, given, now, where="station"):
        given = scenarios.fill(given, scenarios.STATION, where, ("mac",))
        if given["roam"] not in ("accept", "refuse", "ignore"):
            raise scenarios.ScenarioError(f"{where}.roam: {given['roam']!r}")
        return cls(mac=records.mac_text(records.mac_bytes(given["mac"])),
                   rssi=chains(given["rssi"]), roam_attempt=given["roam-attempt"],
                   no_balance=given["no-balance"], roam=given["roam"], roam_to=given["roam-to"],
                   fade=given["fade"], fade_since=now)

    def signal(self, now):
        """The four chains now, faded, never below nothing."""
        lost = self.fade * (now - self.fade_since)
        return [max(NO_SIGNAL, round(value - lost)) for value in self.rssi]


def chains(value):
    """A reading for each chain; one number stands for a client heard on two chains."""
    if isinstance(value, int):
        return [value, max(value - 3, NO_SIGNAL), NO_SIGNAL, NO_SIGNAL]
    if not isinstance(value, list) or not 1 <= len(value) <= CHAINS:
        raise scenarios.ScenarioError(f"rssi: {value!r} is neither a number nor up to four")
    return list(value) + [NO_SIGNAL] * (CHAINS - len(value))


@dataclasses.dataclass
class Vap:
    number: int
    ifname: str
    mac: str
    ssid: str
    security: str
    up: bool
    stations: dict = dataclasses.field(default_factory=dict)  # by MAC

    @property
    def enterprise(self):
        return "1X" in self.security


@dataclasses.dataclass
class Scan:
    """A scan in time: what is found grows with each channel that has been listened to."""
    channels: list
    started: float
    dwell: float
    stopped: float | None = None

    def finished_channels(self, now):
        until = now if self.stopped is None else min(now, self.stopped)
        return self.channels[:max(int((until - self.started) / self.dwell + 1e-6), 0)]

    def duration(self):
        return len(self.channels) * self.dwell


class Radio:
    """One radio as its driver knows it."""

    def __init__(self, given, number, factory_mac, now):
        self.number, self.ifname, self.driver = number, given["ifname"], given["driver"]
        self.band = given["bands"][0]
        self.up, self.noise = given["up"], given["noise"]
        self.channel, self.bandwidth = given["channel"], given["bandwidth"]
        self.primary, self.tx_power = given["primary"], given["tx-power"]
        self.available = list(given["available-channels"])
        self.obss_coex = given["obss-coex"]
        self.fixed_mibs = dict(given["mibs"])
        self.mibs = {}  # per interface: what was set
        self.scan = self.rrm_scan = None
        self.vaps = [make_vap(vap, number, factory_mac, now) for vap in given["vaps"]]

    @property
    def chanspec(self):
        return records.encode_chanspec(self.channel, self.bandwidth, self.primary)

    def vap(self, ifname):
        return next((vap for vap in self.vaps if vap.ifname == ifname), None)

    def serves(self, ifname):
        return ifname == self.ifname or self.vap(ifname) is not None

    def hears(self, channel):
        """Whether a channel number lies in this radio's band."""
        return channel in scenarios.CHANNELS[self.band] or \
            (self.band == "2.4GHz" and channel == 14)

    def mib(self, ifname, name):
        """The value of a MIB, None for one that the driver does not have."""
        second = {("lower", 40): 2, ("upper", 40): 1}.get((self.primary, self.bandwidth), 0)
        power = "actual_tx_power" if self.driver == "rtl8192cd" else "power_target"
        known = {"chanspec": self.chanspec, power: self.tx_power,
                 "use40M": {20: 0, 40: 1, 80: 2}.get(self.bandwidth, 0), "2ndchoffset": second,
                 "rrm_scan_chan": 0, "roam_attempt_timeout": 0}
        return {**known, **self.fixed_mibs, **self.mibs.get(ifname, {})}.get(name)

    def set_mib(self, ifname, name, value):
        self.mibs.setdefault(ifname, {})[name] = value


def make_vap(given, radio, factory_mac, now):
    number = given["id"]
    octets = bytearray(records.mac_bytes(factory_mac))
    octets[5] = (octets[5] + 1 + number + 8 * radio) % 256
    stations = [Station.make(station, now) for station in given["stations"]]
    return Vap(number=number, ifname=f"wlan{radio}-va{number}", mac=records.mac_text(octets),
               ssid=given["ssid"], security=given["security"], up=given["up"],
               stations={station.mac: station for station in stations})


class Air:
    """Every radio of the access point, and the neighbours that they can hear."""

    def __init__(self, scenario, clock):
        self.clock = clock
        self.dwell, self.jitter = scenario["scan"]["dwell"], scenario["scan"]["jitter"]
        self.neighbours = [dict(entry) for entry in scenario["neighbours"]]
        self._random = random.Random(scenario["seed"])
        self.radios = [Radio(radio, number, scenario["factory"]["mac"], clock.now())
                       for number, radio in enumerate(scenario["radios"])]

    def radio(self, ifname):
        return next((radio for radio in self.radios if radio.serves(ifname)), None)

    def vap(self, ifname):
        return next((radio.vap(ifname) for radio in self.radios if radio.vap(ifname)), None)

    def vap_by_mac(self, mac):
        return next((vap for radio in self.radios for vap in radio.vaps if vap.mac == mac), None)

    def locate(self, mac):
        """(VAP, station) of a client; (None, None) when it is not here."""
        for radio in self.radios:
            for vap in radio.vaps:
                if mac in vap.stations:
                    return vap, vap.stations[mac]
        return None, None

    def start_scan(self, radio, channels):
        channels = sorted(channels) or radio.available
        radio.scan = Scan(channels, self.clock.now(), self.dwell)
        return radio.scan

    def start_rrm_scan(self, radio, ifname):
        channel = int(radio.mib(ifname, "rrm_scan_chan") or 0)
        radio.rrm_scan = Scan([channel], self.clock.now(), self.dwell)
        return radio.rrm_scan

    def stop_scan(self, radio):
        if radio.scan is not None and radio.scan.stopped is None:
            radio.scan.stopped = self.clock.now()

    def scan_result(self, radio, rrm):
        """What the last scan has found so far, in the order in which it listened."""
        scan = radio.rrm_scan if rrm else radio.scan
        if scan is None:
            return []
        return [self._heard(entry, rrm) for channel in scan.finished_channels(self.clock.now())
                for entry in self.neighbours
                if entry["channel"] == channel and radio.hears(channel)]

    def _heard(self, entry, rrm):
        signal = entry["signal"] + self._random.randint(-self.jitter, self.jitter)
        chanspec = records.encode_chanspec(entry["channel"], entry["bandwidth"], entry["primary"])
        return records.ApInfo(bssid=entry["bssid"], signal=signal, channel=entry["channel"],
                              bandwidth=entry["bandwidth"], chanspec=chanspec,
                              tx_power=entry["tx-power"] * 4 if rrm else 0)

    def stations(self, vap):
        """The driver's station list of one VAP."""
        now = self.clock.now()
        return [records.StaInfo(station.mac, tuple(station.signal(now)), station.roam_attempt,
                                station.no_balance) for station in vap.stations.values()]
