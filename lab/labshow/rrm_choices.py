"""What the next word of a command in RRM mode may be."""

BANDWIDTHS = {"2.4GHz": (20, 40), "5GHz": (20, 40, 80), "6GHz": (20, 40, 80)}  # MHz


def choices(words, air):
    """Of a line whose words so far are `words`, the first being the command; nothing when
    there is no telling."""
    chooser = CHOOSERS.get(words[0])
    return [str(choice) for choice in chooser(words[1:], air)] if chooser else []


def _pick(words, *places):
    """The choices of the place at which the next word will be."""
    return places[len(words)] if len(words) < len(places) else []


def _radios(air):
    return [radio.ifname for radio in air.radios]


def _channel(words, air):
    radio = air.radio(words[0]) if words else None
    if radio is None:
        return _pick(words, _radios(air))
    return _pick(words, [], radio.available, BANDWIDTHS[radio.band], ["upper", "lower"])


def _client(words, air):
    vaps = [vap.ifname for radio in air.radios for vap in radio.vaps]
    present = [mac for radio in air.radios for vap in radio.vaps for mac in vap.stations]
    places = {("add",): (vaps,), ("move",): (present, vaps), ("remove",): (present,)}
    return _pick(words[1:], *places.get(tuple(words[:1]), ())) if words \
        else ["add", "move", "remove"]


def _scan(words, air):
    channels = sorted({channel for radio in air.radios for channel in radio.available})
    more = [channel for channel in channels if str(channel) not in words]
    return [] if words[-1:] == ["--delay"] else [*more, "--vendor", "--delay"]


CHOOSERS = {
    "channel": _channel, "client": _client, "scan": _scan,
    "power": lambda words, air: _pick(words, _radios(air)),
    "steer": lambda words, air: _pick(words, _radios(air)),
    "hostapd": lambda words, air: _pick(words, ["stop", "start"]),
    "ft": lambda words, air: _pick(words, ["on", "off"]),
}
