"""Many access points of one scenario, each with its own serial number, addresses and noise."""
import copy
import re

from . import records

MOST = 250  # on one machine
STEP = 32  # addresses of an access point: its own, and those of two radios with up to 15 VAPs
NUMBERS = (1 << 24) // STEP  # as many as there are different addresses
CLIENTS = 1 << 16  # addresses of an access point's clients
MAKERS_OCTETS = 3  # of an address, that one maker has to give
CLIENT_OCTETS = 5  # all but the first, which says that nobody gave it


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
                station["mac"] = moved(station["mac"], number * CLIENTS, CLIENT_OCTETS)
    return result


def counted_up(serial: str, number: int) -> str:
    """The serial number that comes so many after this one: its last digits count, as wide as they
    are; of one without digits they are put behind it."""
    text, digits = re.fullmatch(r"(.*?)(\d*)", serial, re.DOTALL).groups()
    return f"{text}{int(digits or 0) + number:0{len(digits)}d}"


def moved(mac: str, by: int, counted: int = MAKERS_OCTETS) -> str:
    """The address that comes so many after this one; its last `counted` octets change."""
    octets = records.mac_bytes(mac)
    low = (int.from_bytes(octets[-counted:], "big") + by) % (1 << 8 * counted)
    return records.mac_text(octets[:-counted] + low.to_bytes(counted, "big"))
