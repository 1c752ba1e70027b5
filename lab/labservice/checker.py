"""What an access point's messages must look like. `check` lists everything that is wrong."""
import re

VERSION = (2, 4)
MAC = re.compile(r"([0-9a-f]{2}:){5}[0-9a-f]{2}")

INT, STR, OBJ, ARR = int, str, dict, list

# Keys in their order with the type of their value; "?" marks a key that may be missing.
FACTORY = {"board": STR, "hw": STR, "serial": STR, "mac": STR}
ANTENNA = {"antenna-gain": INT, "cable-loss": INT}
VAP = {"id": INT, "ssid": STR, "mac": STR, "802dot11k": INT, "802dot11r": INT}
CLIENT = {"mac": STR, "ssid": STR, "rssi": INT}
NEIGHBOUR = {"bssid": STR, "rssi": INT, "channel": INT, "tx-power": INT, "primary-channel": STR,
             "bandwidth": INT}
RADIO = {
    "id": INT, "status": INT, "mac-offset": INT, "radio-mac-count": INT, "locked-for-dca": INT,
    "locked-for-tpc": INT, "locked-for-balancer": INT, "locked-for-80211v": INT, "power": INT,
    "power-max": INT, "power-min": INT, "eirp": INT, "eirp-max": INT, "eirp-min": INT,
    "antenna-configuration": OBJ, "channel": INT, "band": INT, "bandwidth": INT,
    "primary-channel": STR, "available-channels?": STR, "vaps?": ARR, "assoclist?": ARR,
}
HEADER = {"version": STR, "service": STR, "cmd": STR, "ap-mac": STR}
RRM = {
    "subscribe-request": {"domain": STR, "ap-mac-count": INT, "use-wildcard-80211r": INT,
                          "factory": OBJ, "radios": ARR},
    "unsubscribe-request": {"domain": STR, "factory": OBJ},
    "rrm-disassoc-all-clients": {"domain": STR, "factory": OBJ},
    "rrm-config-changed": {"domain": STR, "radios": ARR},
    "rrm-mode-response": {"domain": STR, "radios": ARR},
    "rrm-response": {"domain": STR, "radios": ARR, "rf-environment": ARR},
    "rrm-client-assoc": {"domain": STR, "radio?": INT, "sta-mac": STR, "rssi": INT, "ssid": STR,
                         "no-balance": INT},
    "rrm-client-disassoc": {"domain": STR, "radio?": INT, "sta-mac": STR, "ssid": STR},
    "rrm-sta-roam": {"domain": STR, "radio?": INT, "sta-mac": STR, "ssid": STR,
                     "target-mac": STR},
    "rrm-probe-response": {"domain": STR, "radios": ARR},
}
WIDS = {"mac-list-received": {"Name": STR}, "mac-list-rejected": {"Name": STR}}


def check(message, subprotocol):
    """Complaints about one message, an empty list when it is as it should be."""
    if subprotocol == "websock-roaming":
        return []
    if not isinstance(message, dict):
        return ["not a JSON object"]
    wids = subprotocol == "websock-wids"
    bodies = WIDS if wids else RRM
    header = {key: kind for key, kind in HEADER.items() if not wids or key != "ap-mac"}
    complaints = check_header(message, "wids-mac-service" if wids else "rrm")
    body = bodies.get(message.get("cmd"))
    if body is None:
        return complaints + [f"unknown command {message.get('cmd')!r}"]
    complaints += check_keys(message, {**header, **body}, "")
    return complaints + ([] if wids else check_parts(message))


def check_header(message, service):
    complaints = []
    numbers = re.match(r"(\d+)\.(\d+)", str(message.get("version", "")))
    if numbers is None or tuple(map(int, numbers.groups())) < VERSION:
        complaints.append(f"version {message.get('version')!r} is below 2.4")
    if message.get("service") != service:
        complaints.append(f"service {message.get('service')!r} is not {service!r}")
    return complaints


def check_parts(message):
    complaints = []
    if isinstance(message.get("factory"), dict):
        complaints += check_keys(message["factory"], FACTORY, "factory")
    if message.get("cmd") != "rrm-probe-response":
        for number, radio in enumerate(_list(message, "radios")):
            complaints += check_radio(radio, number)
    for number, table in enumerate(_list(message, "rf-environment")):
        where = f"rf-environment[{number}]"
        if not isinstance(table, list) or not table:
            complaints.append(f"{where}: an array with neighbours is wanted")
            continue
        for entry in table:
            complaints += check_keys(entry, NEIGHBOUR, where) + check_macs(entry, ("bssid",), where)
    return complaints


def check_radio(radio, number):
    where = f"radios[{number}]"
    complaints = check_keys(radio, RADIO, where)
    if complaints:
        return complaints
    if radio["id"] != number:
        complaints.append(f"{where}: id {radio['id']}")
    complaints += check_keys(radio["antenna-configuration"], ANTENNA, where + ".antenna")
    present = [key for key in ("available-channels", "vaps", "assoclist") if key in radio]
    if not radio["status"] and present:
        complaints.append(f"{where}: {present[0]} of a radio with status 0")
    for vap in radio.get("vaps", []):
        complaints += check_keys(vap, VAP, where + ".vaps") + check_macs(vap, ("mac",), where)
    for client in radio.get("assoclist", []):
        complaints += check_keys(client, CLIENT, where + ".assoclist")
        complaints += check_macs(client, ("mac",), where)
    return complaints


def check_keys(value, wanted, where):
    """Missing, unknown, misplaced and mistyped keys of one object."""
    prefix = where + ": " if where else ""
    if not isinstance(value, dict):
        return [f"{prefix}an object is wanted"]
    kinds = {key.rstrip("?"): kind for key, kind in wanted.items()}
    complaints = [f"{prefix}{key} is missing" for key in wanted
                  if not key.endswith("?") and key not in value]
    complaints += [f"{prefix}unknown key {key}" for key in value if key not in kinds]
    complaints += [f"{prefix}{key} is no {kinds[key].__name__}" for key in value
                   if key in kinds and type(value[key]) is not kinds[key]]
    order = [key for key in kinds if key in value]
    if [key for key in value if key in kinds] != order:
        complaints.append(f"{prefix}keys are out of order: {', '.join(value)}")
    return complaints


def check_macs(value, keys, where):
    return [f"{where}: {key} {value[key]!r} is no MAC address" for key in keys
            if isinstance(value, dict) and isinstance(value.get(key), str)
            and not MAC.fullmatch(value[key])]


def _list(message, key):
    value = message.get(key)
    return value if isinstance(value, list) else []
