"""Many access points of one scenario, each with its own serial number, addresses and noise."""
import copy
import re

from . import records

MOST = 250
STEP = 32  # addresses of an access point: its own, and those of two radios with up to 15 VAPs


def member(scenario: dict, number: int) -> dict:
    """The scenario of access point `number` of a fleet; number 0 is the scenario itself."""
    result = copy.deepcopy(scenario)
    if number == 0:
        return result
    factory = result["factory"]
    factory["serial"] = counted_up(factory["serial"], number)
    factory["mac"] = moved(factory["mac"], number * STEP)
    result["seed"] += number
    for radio in result["radios"]:
        for vap in radio["vaps"]:
            for station in vap["stations"]:
                station["mac"] = moved(station["mac"], number << 16)
    return result


def counted_up(serial: str, number: int) -> str:
    """The serial number that comes so many after this one: its last digits count, as wide as they
    are; of one without digits they are put behind it."""
    text, digits = re.fullmatch(r"(.*?)(\d*)", serial, re.DOTALL).groups()
    return f"{text}{int(digits or 0) + number:0{len(digits)}d}"


def moved(mac: str, by: int) -> str:
    """The address that comes so many after this one, within the same maker's."""
    octets = records.mac_bytes(mac)
    low = (int.from_bytes(octets[3:], "big") + by) % (1 << 24)
    return records.mac_text(octets[:3] + low.to_bytes(3, "big"))
