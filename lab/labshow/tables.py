"""The service's knowledge as text for a terminal."""

import itertools
import textwrap

BANDS = {0: "-", 2: "2.4 GHz", 5: "5 GHz", 6: "6 GHz"}
BAR = 30
WEAKEST, STRONGEST = -95, -35
PICTURE = 50  # columns of a picture's line beside its bar
GAP, NARROWEST = "  ", 8
RUNS = (1, 4)  # between neighbouring channels of 20 MHz at 2.4 GHz and above


def table(head, rows, width=None):
    """Columns as wide as their widest cell; where that is more than `width` in all, the widest
    columns are made narrower and their cells go on below."""
    cells = [[str(cell) for cell in row] for row in [head, *rows]]
    widths = column_widths(cells, width)
    lines = [line for row in cells for line in row_lines(row, widths)]
    below_head = len(row_lines(cells[0], widths))
    lines.insert(below_head, "  ".join("-" * column for column in widths))
    return "\n".join(lines)


def pairs(known):
    """Names beside their values."""
    width = max(map(len, known))
    return "\n".join(f"{name:<{width}}{GAP}{value}" for name, value in known.items())


def column_widths(cells, limit):
    widths = [max(len(row[column]) for row in cells) for column in range(len(cells[0]))]
    while limit is not None and sum(widths) + len(GAP) * (len(widths) - 1) > limit \
            and max(widths) > NARROWEST:
        widths[widths.index(max(widths))] -= 1
    return widths


def row_lines(row, widths):
    pieces = [textwrap.wrap(cell, column, break_on_hyphens=False) if len(cell) > column else [cell]
              for cell, column in zip(row, widths)]
    return [GAP.join(piece.ljust(column) for piece, column in zip(line, widths)).rstrip()
            for line in itertools.zip_longest(*pieces, fillvalue="")]


def channel_list(text):
    """Channels with each run that has more than two of them as its ends: "1-13", "36-64 149"."""
    if not text.replace(" ", "").isdigit():
        return text
    channels, parts = [int(word) for word in text.split()], []
    while channels:
        step = next((step for step in RUNS if channels[1:3] == [channels[0] + step,
                                                                channels[0] + 2 * step]), None)
        end = 1
        while step and end < len(channels) and channels[end] == channels[end - 1] + step:
            end += 1
        parts.append(f"{channels[0]}-{channels[end - 1]}" if step else f"{channels[0]}")
        del channels[:end]
    return " ".join(parts)


def radios(ap, width=None):
    rows = []
    for number, radio in sorted(ap.radios.items()):
        if not radio["status"]:
            rows.append([f"wlan{number}", "down", BANDS.get(radio["band"], radio["band"]), "-", "-",
                         "-", "-", "-", "-"])
            continue
        channel, bandwidth = radio["channel"], radio["bandwidth"]
        locks = [name for name in ("dca", "tpc", "80211v") if radio["locked-for-" + name]]
        rows.append([f"wlan{number}", "up", BANDS.get(radio["band"], radio["band"]), channel,
                     f"{bandwidth} {radio['primary-channel']}" if bandwidth == 40 else bandwidth,
                     f"{radio['power']} ({radio['power-min']}..{radio['power-max']})",
                     f"{radio['eirp']} ({radio['eirp-min']}..{radio['eirp-max']})",
                     " ".join(locks) or "-", channel_list(radio.get("available-channels", ""))])
    return table(["radio", "state", "band", "channel", "MHz", "dBm", "EIRP", "locked",
                  "available channels"], rows, width)


def vaps(ap, width=None):
    rows = []
    for number, radio in sorted(ap.radios.items()):
        for vap in radio.get("vaps", []):
            count = sum(1 for client in ap.clients.values()
                        if client["radio"] == number and client["ssid"] == vap["ssid"])
            rows.append([f"wlan{number}-va{vap['id']}", vap["ssid"], vap["mac"],
                         "yes" if vap["802dot11k"] else "no",
                         "yes" if vap["802dot11r"] else "no", count])
    return table(["VAP", "SSID", "MAC", "802.11k", "802.11r", "clients"], rows, width)


def clients(ap, width=None):
    rows = [[mac, f"wlan{client['radio']}", client["ssid"], f"{client['rssi']} dBm"]
            for mac, client in sorted(ap.clients.items(),
                                      key=lambda item: (item[1]["radio"] or 0, item[0]))]
    return table(["client", "radio", "SSID", "signal"], rows, width)


def overview(ap, width=None):
    return f"{radios(ap, width)}\n\n{vaps(ap, width)}\n\n{clients(ap, width)}"


def bar(signal, longest):
    """A signal as a bar between the weakest and the strongest that matter."""
    share = (signal - WEAKEST) / (STRONGEST - WEAKEST)
    return "█" * max(1, min(longest, round(share * longest)))


def picture(ap, width=None):
    """The air as the last survey found it: channels by signal."""
    found = ap.neighbours()
    if not found:
        return "no neighbours were heard"
    own = {radio["channel"]: f"wlan{number}" for number, radio in ap.radios.items()
           if radio["status"]}
    longest = BAR if width is None else max(min(BAR, width - PICTURE), 1)
    lines, last = [], None
    for entry in found:
        label = f"{entry['channel']:>4}" if entry["channel"] != last else "    "
        here = f" ← {own[entry['channel']]}" if entry["channel"] in own and \
            entry["channel"] != last else ""
        bandwidth = f"{entry['bandwidth']} {entry['primary-channel']}".replace(" none", "")
        lines.append(f"{label} │{bar(entry['rssi'], longest):<{longest}} {entry['rssi']:>4} dBm  "
                     f"{entry['bssid']}  {bandwidth}{here}")
        last = entry["channel"]
    passes = len(ap.environment)
    return "\n".join([f"{len(found)} neighbours in {passes} pass{'es' if passes != 1 else ''}",
                      *lines])
