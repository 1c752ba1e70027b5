"""A survey of the air: what is asked for, and how long it takes."""
import dataclasses

from .console import Refused, integer, within

CHANNELS = (1, 6, 11, 36, 40, 44, 48)
FIRST_CHANNEL_5G = 36
LONGEST_DELAY = 3600  # seconds; a person who types more means something else

# How lumd counts the seconds of one pass, for each radio by itself.
PASSES = 5
TENTHS_A_CHANNEL = 7
WHOLE_BAND_SECONDS = {False: 10, True: 15}  # of a radio that is on a 5 GHz channel
VENDOR_SECONDS = 6


@dataclasses.dataclass
class Survey:
    """`vendor`: one measurement by the driver itself; otherwise five passes over all channels.
    `delay`: seconds before it, and with `vendor` again before the report."""
    channels: tuple = CHANNELS
    vendor: bool = False
    delay: int = 0

    @classmethod
    def parse(cls, words, radios):
        """Of the words "[CHANNELS] [--vendor] [--delay S]"; Refused when no radio can do it."""
        survey, words = cls(), list(words)
        if "--vendor" in words:
            words.remove("--vendor")
            survey.vendor = True
        if "--delay" in words:
            at = words.index("--delay")
            delay = integer(words[at + 1] if at + 1 < len(words) else "")
            survey.delay = within(delay, 0, LONGEST_DELAY, "the delay", "s")
            del words[at:at + 2]
        if words:
            survey.channels = tuple(integer(word) for word in words)
        for channel in survey.channels:
            if not any(radio.hears(channel) for radio in radios):
                raise Refused(f"no radio here hears channel {channel}")
        return survey

    def message(self):
        return {"cmd": "rrm-update", "rrm-scan-delay": self.delay,
                "vexor-rrm-scanning": int(self.vendor),
                "rrm-scan-channels": " ".join(map(str, self.channels))}

    def channels_of(self, radio):
        """The channels that are listed for a radio; none: it goes through its whole band."""
        high = radio.band != "2.4GHz"
        return {channel for channel in self.channels if (channel >= FIRST_CHANNEL_5G) == high}

    def seconds(self, radios):
        """Until the report."""
        if self.vendor:
            return 2 * self.delay + VENDOR_SECONDS
        return self.delay + PASSES * max((self._pass_seconds(radio) for radio in radios), default=0)

    def _pass_seconds(self, radio):
        count = len(self.channels_of(radio))
        if not count:
            return WHOLE_BAND_SECONDS[radio.channel >= FIRST_CHANNEL_5G]
        return count * TENTHS_A_CHANNEL // 10 + 1

    def heard_for_certain(self, air):
        """Neighbours on the listed channels of radios that are up, which a survey must hear."""
        return [entry["bssid"] for radio in air.radios if radio.up
                for entry in air.neighbours if entry["channel"] in self._listened(radio)]

    def _listened(self, radio):
        listed = sorted(self.channels_of(radio))[:1 if self.vendor else None]
        return [channel for channel in listed if radio.hears(channel)]
