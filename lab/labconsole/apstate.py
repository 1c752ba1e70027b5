"""What the service was told of an access point, as state for a page."""

STATE_OF_RADIO = ("channel", "bandwidth", "primary-channel", "power", "power-min", "power-max",
                  "eirp", "eirp-min", "eirp-max")
BANDS = {2: "2.4GHz", 5: "5GHz", 6: "6GHz"}


def radios(known):
    """Of an ApModel: one object a radio."""
    return [_radio(number, radio) for number, radio in sorted(known.radios.items())]


def _radio(number, radio):
    up = bool(radio.get("status"))
    told = {"ifname": f"wlan{number}", "band": BANDS.get(radio.get("band"), ""), "up": up}
    if up:
        told.update({name: radio.get(name) for name in STATE_OF_RADIO})
        told["available"] = [int(word) for word in radio.get("available-channels", "").split()]
        told["locked"] = [name for name in ("dca", "tpc", "80211v")
                          if radio.get(f"locked-for-{name}")]
    return told


def vaps(known):
    return [{"ifname": f"wlan{number}-va{vap['id']}", "radio": f"wlan{number}",
             "ssid": vap["ssid"], "mac": vap["mac"], "80211k": bool(vap["802dot11k"]),
             "80211r": bool(vap["802dot11r"])}
            for number, radio in sorted(known.radios.items()) for vap in radio.get("vaps", [])]


def clients(known):
    """As the service knows them: one object a client."""
    return [{"mac": mac, "radio": f"wlan{client['radio']}", "ssid": client["ssid"],
             "rssi": client["rssi"]} for mac, client in sorted(known.clients.items())]
