"""The conversation around one access point of the air: what its service and its lumd say, and the
management frames that it sends and gets."""
from labtalk.journal import Journal

from . import frames

# IEEE 802.11-2020, 9.2.4.1.3; beacons and probes are not captured.
SUBTYPES = {0: "association-request", 1: "association-response", 2: "reassociation-request",
            3: "reassociation-response", 10: "disassociation", 11: "authentication",
            12: "deauthentication", 13: "action"}
ACTIONS = {(frames.RADIO_MEASUREMENT, frames.NEIGHBOR_REPORT_REQUEST): "neighbor-report-request",
           (frames.RADIO_MEASUREMENT, frames.NEIGHBOR_REPORT_RESPONSE): "neighbor-report-response",
           (frames.WNM, frames.BSS_TRANSITION_REQUEST): "bss-transition-request",
           (frames.WNM, frames.BSS_TRANSITION_RESPONSE): "bss-transition-response"}
BSS_TRANSITION = "bss-transition"


class AirTalk:
    """`journal`: all of it, the frames by their own times. `takes_transitions`: whether a station
    said, when it associated, that it can be asked to go elsewhere."""

    def __init__(self, air, point):
        self.journal = Journal()
        self.takes_transitions: dict[str, bool] = {}
        self._air, self._point, self._seen = air, point, 0
        self._names = {client.address: client.name for client in air.clients}
        point.journal.follow(self._copy)

    def close(self) -> None:
        """Listens no longer."""
        self._point.journal.leave(self._copy)

    def _copy(self, event):
        self.journal.add(event["from"], event["to"], event["what"], event["data"])["t"] = event["t"]

    async def look(self, own: set[str]) -> None:
        """Takes in the frames that came meanwhile; `own`: addresses of the access point's."""
        captured = await self._air.frames()
        fresh, self._seen = captured[self._seen:], len(captured)
        fresh = [frame for frame in fresh if own & {frame.receiver, frame.transmitter}]
        if not fresh:
            return
        ahead = await self._air.machine.clock_ahead()
        for frame in fresh:
            self._add(frame, frame.time - ahead, own)

    def _add(self, frame, seconds, own):
        is_sent = frame.transmitter in own
        station = frame.receiver if is_sent else frame.transmitter
        speakers = ("hostapd", "client") if is_sent else ("client", "hostapd")
        told = content(frame)
        if BSS_TRANSITION in told:
            self.takes_transitions[station] = told[BSS_TRANSITION]
        event = self.journal.add(*speakers, name(frame), {
            **({"client": self._names[station]} if station in self._names else {}),
            "station": station, "bssid": frame.bssid, **told})
        event["t"] = seconds


def name(frame: frames.Frame) -> str:
    """What kind of frame it is."""
    if frame.subtype == frames.ACTION:
        return ACTIONS.get(tuple(frame.body[:2]), SUBTYPES[frames.ACTION])
    return SUBTYPES.get(frame.subtype, f"subtype-{frame.subtype}")


def content(frame: frames.Frame) -> dict:
    """What a person wants to know of it."""
    reader = READERS.get(name(frame))
    try:
        return reader(frame) if reader is not None else {}
    except frames.FrameError as error:
        return {"broken": str(error)}


def _neighbours(entries):
    return [{"bssid": entry.bssid, "channel": entry.channel, "class": entry.operating_class,
             "preference": entry.preference} for entry in entries]


def _request(frame):
    told = frames.transition_request(frame)
    return {"disassociates": bool(told.mode & frames.MODE_DISASSOCIATION), "timer": told.timer,
            "candidates": _neighbours(told.candidates)}


def _response(frame):
    told = frames.transition_response(frame)
    return {"status": told.status, "target": told.target}


def _association(frame):
    return {BSS_TRANSITION: frames.takes_transitions(frame)}


READERS = {
    "association-request": _association, "reassociation-request": _association,
    "authentication": lambda frame: {"fast-transition": frame.is_ft_authentication},
    "neighbor-report-response":
        lambda frame: {"neighbours": _neighbours(frames.neighbor_response(frame)[1])},
    "bss-transition-request": _request, "bss-transition-response": _response,
}
