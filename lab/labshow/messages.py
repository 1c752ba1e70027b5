"""What the service would know of the network around the access point, as its messages tell it."""

KEY_HOLDER_KEY = "00112233445566778899aabbccddeeff"
MOBILITY_DOMAIN = 4660
OTHER_ACCESS_POINT = "00:11:22:33:50:51"


def same_network(air):
    """The neighbours that carry one of our SSIDs, for "802dot11k"."""
    ours = {vap.ssid for radio in air.radios for vap in radio.vaps}
    return [{"neighbour-mac": entry["bssid"], "channel": entry["channel"], "priority": 1,
             "vaps": [{"ssid": entry["ssid"], "mac": entry["bssid"]}]}
            for entry in air.neighbours if entry["ssid"] in ours]


def key_holders(air):
    """The VAPs that can do fast transition, for "fbt-info"."""
    vaps = []
    for radio in air.radios:
        for vap in radio.vaps:
            if not ("WPA2" in vap.security or "WPA3" in vap.security):
                continue
            remote = {"remote-r1-kh-id": OTHER_ACCESS_POINT,
                      "remote-r0-kh-id": OTHER_ACCESS_POINT.replace(":", ""),
                      "remote-r1-kh-key": KEY_HOLDER_KEY}
            vaps.append({"vap_id": vap.number, "radio_id": radio.number,
                         "mobility-domain": MOBILITY_DOMAIN,
                         "r0-key-holder-id": vap.mac.replace(":", ""),
                         "r1-key-holder-id": vap.mac, "fbt-rrb-key": KEY_HOLDER_KEY,
                         "remotes": [remote]})
    return vaps
