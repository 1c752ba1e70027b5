"""Scenarios: one JSON file describes an access point and the air around it.

docs/lab.md describes the format. `load` refuses what it does not know, so that a misspelt member
is found when it is written and not when a test does not fail.
"""
import copy
import json
import os
import pathlib

from labtalk.resources import resource

FOLDER = resource("scenarios")

CHANNELS_24G = list(range(1, 14))
CHANNELS_5G = [36, 40, 44, 48, 52, 56, 60, 64, 100, 104, 108, 112, 116, 120, 124, 128, 132, 136,
               140, 149, 153, 157, 161, 165]
CHANNELS = {"2.4GHz": CHANNELS_24G, "5GHz": CHANNELS_5G, "6GHz": list(range(1, 94, 4))}

DEFAULTS = {
    "name": "", "description": "", "mode": "rrm", "seed": 1,
    "factory": {"board": "lab-ap", "hw": "1.0", "serial": "LAB0000001",
                "mac": "00:11:22:33:44:50"},
    "antennas": [], "hostapd": True, "guardd": False, "ap-location": "lab",
    "mac-list-id": "lab-list", "radios": [], "neighbours": [], "config": {}, "faults": [],
    "daemons": {}, "service": {},
    "scan": {"dwell": 0.5, "jitter": 0}, "roam-delay": 0.3, "notify-after-update": True,
}
RADIO = {
    "ifname": None, "driver": "rtl8192cd", "bands": ["2.4GHz"],
    "antenna-gain": {"type": "none"}, "up": True, "channel": None, "bandwidth": 20,
    "primary": "lower", "tx-power": 16, "available-channels": None, "obss-coex": 0, "noise": -95,
    "country": "RU", "auto-channel": False, "wds": False, "limit-channels": None,
    "tx-power-range": [8, 20], "eirp-range": [0, 30], "antenna-configuration": None, "mibs": {},
    "vaps": [],
}
VAP = {
    "id": None, "ssid": "lab", "security": "WPA2_PSK", "up": True, "enabled": True,
    "80211k": False, "ft": False, "captive-portal": False, "stations": [],
}
STATION = {
    "mac": None, "rssi": -60, "roam-attempt": False, "no-balance": False, "roam": "accept",
    "roam-to": None, "fade": 0,
}
NEIGHBOUR = {
    "bssid": None, "ssid": "", "channel": None, "bandwidth": 20, "primary": "lower",
    "signal": -70, "tx-power": 20,
}


class ScenarioError(Exception):
    """What is wrong with a scenario, and where in it."""


def load(name: str | os.PathLike) -> dict:
    """A complete scenario from a name of the scenarios folder or from a path."""
    path = pathlib.Path(name)
    if not path.suffix and not path.exists():
        path = FOLDER / f"{name}.json"
    try:
        given = json.loads(path.read_text(encoding="utf-8"))
    except OSError as error:
        raise ScenarioError(f"{path}: {error.strerror} "
                            f"(known scenarios: {', '.join(names())})") from error
    except ValueError as error:
        raise ScenarioError(f"{path}: {error}") from error
    result = complete(given)
    result["name"] = result["name"] or path.stem
    return result


def names():
    """Of the scenarios folder."""
    return sorted(entry.stem for entry in FOLDER.glob("*.json"))


def complete(given: dict) -> dict:
    """The scenario with every default filled in; ScenarioError names what does not belong."""
    scenario = fill(given, DEFAULTS, "scenario")
    scenario["factory"] = fill(scenario["factory"], DEFAULTS["factory"], "factory")
    scenario["scan"] = fill(scenario["scan"], DEFAULTS["scan"], "scan")
    scenario["radios"] = [complete_radio(radio, f"radios[{i}]")
                          for i, radio in enumerate(scenario["radios"])]
    scenario["neighbours"] = [fill(entry, NEIGHBOUR, f"neighbours[{i}]", ("bssid", "channel"))
                              for i, entry in enumerate(scenario["neighbours"])]
    return scenario


def complete_radio(given, where):
    radio = fill(given, RADIO, where, ("ifname",))
    if radio["driver"] not in ("rtl8192cd", "g6"):
        raise ScenarioError(f"{where}.driver: {radio['driver']!r} is neither rtl8192cd nor g6")
    unknown = [band for band in radio["bands"] if band not in CHANNELS]
    if unknown or not radio["bands"]:
        raise ScenarioError(f"{where}.bands: {radio['bands']!r} (known: {', '.join(CHANNELS)})")
    channels = CHANNELS[radio["bands"][0]]
    radio["channel"] = channels[0] if radio["channel"] is None else radio["channel"]
    if radio["available-channels"] is None:
        radio["available-channels"] = channels
    radio["vaps"] = [complete_vap(vap, f"{where}.vaps[{i}]", i)
                     for i, vap in enumerate(radio["vaps"])]
    return radio


def complete_vap(given, where, index):
    vap = fill(given, VAP, where)
    vap["id"] = index if vap["id"] is None else vap["id"]
    vap["stations"] = [fill(station, STATION, f"{where}.stations[{i}]", ("mac",))
                       for i, station in enumerate(vap["stations"])]
    return vap


def fill(given, defaults, where, needed=()):
    """`given` over a copy of `defaults`."""
    if not isinstance(given, dict):
        raise ScenarioError(f"{where}: an object is wanted, not {given!r}")
    unknown = sorted(set(given) - set(defaults))
    if unknown:
        raise ScenarioError(f"{where}: unknown member {unknown[0]!r} "
                            f"(known: {', '.join(defaults)})")
    missing = [key for key in needed if given.get(key) is None]
    if missing:
        raise ScenarioError(f"{where}: member {missing[0]!r} is missing")
    return {**copy.deepcopy(defaults), **copy.deepcopy(given)}


def flag(value):
    return "true" if value else "false"


def radio_settings(radio):
    """What the configuration store holds of one radio, below /interface/<ifname>/wlan/radio."""
    settings = {
        "country": radio["country"], "auto-channel": flag(radio["auto-channel"]),
        "channel": str(radio["channel"]), "bandwidth": str(radio["bandwidth"]),
        "control-sideband": radio["primary"], "tx-power": str(radio["tx-power"]),
        "tx-power-min": str(radio["tx-power-range"][0]),
        "tx-power-max": str(radio["tx-power-range"][1]),
        "eirp-min": str(radio["eirp-range"][0]), "eirp-max": str(radio["eirp-range"][1]),
        "use-limit-channels": flag(radio["limit-channels"] is not None),
        "limit-channels": " ".join(str(channel) for channel in radio["limit-channels"] or []),
    }
    if radio["antenna-configuration"] is not None:
        settings["antenna-configuration"] = radio["antenna-configuration"]
    return settings


def vap_settings(vap):
    """What the configuration store holds of one VAP, below /interface/<ifname>."""
    return {
        "common": {"enabled": flag(vap["enabled"])},
        "vap": {
            "ssid": vap["ssid"],
            "ap-security": {"mode": vap["security"]},
            "w80211kv-config": {"enabled": flag(vap["80211k"])},
            "captive-portal": {"enabled": flag(vap["captive-portal"])},
            "ft-config": {"enabled": flag(vap["ft"])},
        },
    }


def config_tree(scenario):
    """The configuration store's tree: what the radios and VAPs say, then the scenario's "config".

    A key of "config" that begins with "/" is a path and replaces what stands there.
    """
    interfaces = {}
    for number, radio in enumerate(scenario["radios"]):
        interfaces[radio["ifname"]] = {"wlan": {"radio": radio_settings(radio),
                                                "wds": {"enabled": flag(radio["wds"])}}}
        if radio["wds"]:
            interfaces[f"{radio['ifname']}-wds0"] = {"common": {"enabled": "true"}}
        for vap in radio["vaps"]:
            interfaces[f"wlan{number}-va{vap['id']}"] = vap_settings(vap)
            interfaces[f"wlan{number}-vap{vap['id']}"] = vap_settings(vap)
    tree = {
        "interface": interfaces,
        "orvanta": {"tpc": "true", "dca": "true", "load-balance-80211v": "true"},
        "wids": {"enabled": "false", "scan-mode": "off", "scan-interface": ""},
    }
    for path, value in scenario["config"].items():
        put(tree, path, value)
    return tree


def find(tree, path):
    """The node at "/a/b/c"; None when there is none."""
    for key in path.strip("/").split("/"):
        if not isinstance(tree, dict) or key not in tree:
            return None
        tree = tree[key]
    return tree


def put(tree, path, value):
    """Sets the node at a path, making what leads there; None removes it."""
    *folders, leaf = path.strip("/").split("/")
    for key in folders:
        if not isinstance(tree.get(key), dict):
            tree[key] = {}
        tree = tree[key]
    if value is None:
        tree.pop(leaf, None)
    else:
        tree[leaf] = value


def write_platform_files(scenario, folder):
    """factory.json, radios.json and antennas.json as the platform libraries read them."""
    folder = pathlib.Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    radios = [{key: radio[key] for key in ("ifname", "driver", "bands", "antenna-gain")}
              for radio in scenario["radios"]]
    files = {"factory.json": scenario["factory"], "radios.json": {"radios": radios},
             "antennas.json": {"antennas": scenario["antennas"]}}
    for name, content in files.items():
        (folder / name).write_text(json.dumps(content, indent=2) + "\n", encoding="utf-8")
