"""The service's knowledge as text for a terminal."""

BANDS = {0: "-", 2: "2.4 GHz", 5: "5 GHz", 6: "6 GHz"}
BAR = 30
WEAKEST, STRONGEST = -95, -35


def table(head, rows):
    """Columns as wide as their widest cell."""
    cells = [[str(cell) for cell in row] for row in [head, *rows]]
    widths = [max(len(row[column]) for row in cells) for column in range(len(head))]
    lines = ["  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
             for row in cells]
    return "\n".join([lines[0], "  ".join("-" * width for width in widths), *lines[1:]])


def radios(ap):
    rows = []
    for number, radio in sorted(ap.radios.items()):
        if not radio["status"]:
            rows.append([f"wlan{number}", "down", BANDS.get(radio["band"], radio["band"]), "-", "-",
                         "-", "-", "-", "-"])
            continue
        channel, width = radio["channel"], radio["bandwidth"]
        locks = [name for name in ("dca", "tpc", "80211v") if radio["locked-for-" + name]]
        rows.append([f"wlan{number}", "up", BANDS.get(radio["band"], radio["band"]), channel,
                     f"{width} {radio['primary-channel']}" if width == 40 else width,
                     f"{radio['power']} ({radio['power-min']}..{radio['power-max']})",
                     f"{radio['eirp']} ({radio['eirp-min']}..{radio['eirp-max']})",
                     " ".join(locks) or "-", radio.get("available-channels", "").strip()])
    return table(["radio", "state", "band", "channel", "MHz", "dBm", "EIRP", "locked",
                  "available channels"], rows)


def vaps(ap):
    rows = []
    for number, radio in sorted(ap.radios.items()):
        for vap in radio.get("vaps", []):
            count = sum(1 for client in ap.clients.values()
                        if client["radio"] == number and client["ssid"] == vap["ssid"])
            rows.append([f"wlan{number}-va{vap['id']}", vap["ssid"], vap["mac"],
                         "yes" if vap["802dot11k"] else "no",
                         "yes" if vap["802dot11r"] else "no", count])
    return table(["VAP", "SSID", "MAC", "802.11k", "802.11r", "clients"], rows)


def clients(ap):
    rows = [[mac, f"wlan{client['radio']}", client["ssid"], f"{client['rssi']} dBm"]
            for mac, client in sorted(ap.clients.items(),
                                      key=lambda item: (item[1]["radio"] or 0, item[0]))]
    return table(["client", "radio", "SSID", "signal"], rows)


def overview(ap):
    return f"{radios(ap)}\n\n{vaps(ap)}\n\n{clients(ap)}"


def bar(signal):
    """A signal as a bar between the weakest and the strongest that matter."""
    share = (signal - WEAKEST) / (STRONGEST - WEAKEST)
    return "█" * max(1, min(BAR, round(share * BAR)))


def picture(ap):
    """The air as the last survey found it: channels by signal."""
    found = ap.neighbours()
    if not found:
        return "no neighbours were heard"
    own = {radio["channel"]: f"wlan{number}" for number, radio in ap.radios.items()
           if radio["status"]}
    lines, last = [], None
    for entry in found:
        label = f"{entry['channel']:>4}" if entry["channel"] != last else "    "
        here = f" ← {own[entry['channel']]}" if entry["channel"] in own and \
            entry["channel"] != last else ""
        width = f"{entry['bandwidth']} {entry['primary-channel']}".replace(" none", "")
        lines.append(f"{label} │{bar(entry['rssi']):<{BAR}} {entry['rssi']:>4} dBm  "
                     f"{entry['bssid']}  {width}{here}")
        last = entry["channel"]
    passes = len(ap.environment)
    return "\n".join([f"{len(found)} neighbours in {passes} pass{'es' if passes != 1 else ''}",
                      *lines])
