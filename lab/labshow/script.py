"""What a recording demands: what lumd must do, what it is answered, and when the rest happens.

lumd's doings are of three kinds. An act changes something outside of it: what it sends to the
service, requests of the bus other than reads, settings, scans, files of the driver, commands of
hostapd. The acts at one border (at the bus: of one module) are one sequence, which is compared. A
question reads: it is answered as the recording has it for this place, and how often it is asked is
not compared, since lumd asks some by the clock. The rest is not compared: pings, ends of links, and
what lumd does from its end signal on, or would have done then had it been a moment slower.
"""
import collections
import json
import time

from labap import records

ANSWERED = frozenset({"result", "out_length", "answer", "status", "output"})  # to lumd, in a call
READS = frozenset({records.CUSTOM_SCAN_RESULTS, records.RRM_SCAN_RESULTS, records.GET_ASSOC_STAS,
                   records.GET_AVAILABLE_CHANNELS, records.GET_DETAILS_PMKID})
UNCOMPARED = frozenset({"ping", "disconnect"})
# Of a call that lumd makes while it ends, which may not be in the recording.
NOTHING = {"result": 0, "out_length": 0, "answer": "", "status": 0, "output": "", "place": None}
CHANGES_ANSWERS = frozenset({"driver", "hostapd"})  # borders whose acts lumd waits for
LAST_MOMENT = 1.0  # real seconds: by so much lumd may have been slower when it was recorded
SHOWN = 200  # characters of either side of a difference

ACT, QUESTION, INPUT, NOTE = "act", "question", "input", "note"


class Difference(Exception):
    """The first thing that lumd did otherwise."""

    def __init__(self, place, recorded, now):
        super().__init__(f"{place}\n  recorded: {recorded}\n  now:      {now}")


def form(entry):
    """What is compared of an act, or asked by a question."""
    left_out = {"t", "seq", "answers"} | (ANSWERED if entry["border"] in CHANGES_ANSWERS else set())
    return {key: value for key, value in entry.items() if key not in left_out}


def border(entry):
    """Where the acts are one sequence."""
    return f"bus (module {entry['src']})" if entry["border"] == "bus" else entry["border"]


def kind(entry, order="<"):
    """ACT, QUESTION, INPUT or NOTE."""
    if entry["by"] == "lab":
        return INPUT
    if entry["what"] in UNCOMPARED:
        return NOTE
    return QUESTION if is_question(entry, order) else ACT


def is_question(entry, order):
    if entry["what"] == "frame":
        return command_of(entry["text"]) == "get"
    if entry["what"] == "iwpriv":
        return "get_mib" in entry["arguments"][1:2]
    if entry["what"] != "ioctl":
        return False
    request, data = entry["request"], bytes.fromhex(entry["data"])
    if request in records.MIB_GET.values():
        return True
    # Zeros at the end are not recorded.
    return request in records.VENDOR_COMMAND.values() and \
        records.unpack_command(data.ljust(4, b"\0"), order) in READS


def command_of(text):
    try:
        message = json.loads(text)
    except ValueError:
        return None
    return message.get("command") if isinstance(message, dict) else None


def key(entry):
    return json.dumps(form(entry), sort_keys=True)


class Script:
    """Follows lumd through the entries of a recording. `clock`: real seconds."""

    def __init__(self, entries, order="<", clock=time.monotonic):
        self._entries = [dict(entry) for entry in entries]
        self._kinds = [kind(entry, order) for entry in self._entries]
        self._order = order
        self._leave_out_ends()
        self._pair_answers()
        self._acts = collections.defaultdict(collections.deque)     # places, by border
        self._questions = collections.defaultdict(list)             # places, by what is asked
        self._used = {}                                             # last place, by what is asked
        for place, entry in enumerate(self._entries):
            if self._kinds[place] == ACT:
                self._acts[border(entry)].append(place)
            elif self._kinds[place] == QUESTION:
                self._questions[key(entry)].append(place)
        self._done = [each not in (ACT, INPUT) for each in self._kinds]
        self._next = 0       # the first place that is not done
        self._reached = -1   # the last place at which answers may have changed
        self._ending = False
        self._clock = clock
        self._latest = (0.0, clock())  # the latest time of the recording that was reached, and when

    def _leave_out_ends(self):
        """From its signal on lumd's threads end one by one: how far each comes is chance."""
        ending = False
        for place, entry in enumerate(self._entries):
            if entry["border"] == "lumd":
                ending = entry["what"] == "stop"
            elif ending and entry["by"] == "lumd":
                self._kinds[place] = NOTE

    def _pair_answers(self):
        """Answers on the bus belong to their requests; only those of acts are inputs."""
        asked = {}
        for place, entry in enumerate(self._entries):
            if entry["border"] != "bus":
                continue
            if entry["what"] == "frame" and entry["by"] == "lumd":
                asked[entry["dst"], entry["src"], entry["seq"]] = place
            elif entry["what"] == "answer":
                request = asked.get((entry["src"], entry["dst"], entry["seq"]))
                entry["answers_place"] = request
                if request is None or self._kinds[request] == ACT:
                    continue
                self._kinds[place] = NOTE
                if self._kinds[request] == QUESTION:
                    self._entries[request].setdefault("answers", []).append(entry["text"])

    # What lumd does

    def did(self, entry):
        """The recorded entry for what lumd has just done: its answers are in it. Difference when
        it is not what comes next."""
        if entry["border"] == "lumd":
            self._ending = False
        elif self._ending:
            return NOTHING
        if kind(entry, self._order) == QUESTION:
            return self._answered(entry)
        places, stop = self._acts[border(entry)], self._next_stop()
        if not places or places[0] > stop:
            if self._is_last_moment(stop):
                return NOTHING
            raise Difference(f"the {border(entry)}, after all that was recorded there",
                             "nothing", shown(entry))
        recorded = self._entries[places[0]]
        if form(recorded) != form(entry):
            raise self._difference(places[0], entry)
        place = places.popleft()
        if recorded["border"] in CHANGES_ANSWERS:
            self._reached = max(self._reached, place)
        self._finish(place)
        return {**recorded, "place": place}

    def _answered(self, entry):
        places = self._questions.get(key(entry))
        if places is None:
            if self._is_last_moment(self._next_stop()):
                return NOTHING
            raise Difference(f"the {border(entry)}: a question that the recording does not have",
                             "nothing", shown(entry))
        place = self._choose(places, self._used.get(key(entry), -1))
        self._used[key(entry)] = place
        return {**self._entries[place], "place": place}

    def _next_stop(self):
        """The place of lumd's next end signal; where there is none, that of the recording's end."""
        for place in range(self._next, len(self._entries)):
            if self._is_stop(place) and not self._done[place]:
                return place
        return len(self._entries)

    def _is_stop(self, place):
        return self._entries[place]["border"] == "lumd" and self._entries[place]["what"] == "stop"

    def _is_last_moment(self, stop):
        """Whether lumd may have been ended before it came to what it does now."""
        if stop == len(self._entries):
            return False
        reached, when = self._latest
        return self._entries[stop]["t"] - reached - (self._clock() - when) < LAST_MOMENT

    def _choose(self, places, used):
        """The next one of those since the answers may have changed last; when there is none, or no
        more, the one before."""
        end = self._end_of_answers()
        here = [place for place in places if self._reached < place < end]
        fresh = [place for place in here if place > used]
        if fresh or here:
            return (fresh or here[-1:])[0]
        before = [place for place in places if place < end]
        return before[-1] if before else places[0]

    def _end_of_answers(self):
        """The next place at which answers may change."""
        for place in range(self._reached + 1, len(self._entries)):
            changes = self._kinds[place] == INPUT or \
                self._kinds[place] == ACT and self._entries[place]["border"] in CHANGES_ANSWERS
            if changes and not self._done[place]:
                return place
        return len(self._entries)

    def _finish(self, place):
        self._done[place] = True
        self._latest = max(self._latest, (self._entries[place]["t"], self._clock()))
        while self._next < len(self._done) and self._done[self._next]:
            self._next += 1

    def _difference(self, place, entry):
        recorded = self._entries[place]
        where = f"the {border(recorded)}, {recorded['t']:.1f} s into the recording"
        detail = first_difference(recorded, entry)
        return Difference(where + (f", at {detail}" if detail else ""), shown(recorded),
                          shown(entry))

    # What happens to lumd

    def next_input(self):
        """(place, entry) of what happens next, None when nothing more does."""
        for place in range(self._next, len(self._entries)):
            if self._kinds[place] == INPUT and not self._done[place]:
                return place, self._entries[place]
        return None

    def is_ready(self, place):
        """Whether lumd has done all that it had done before that."""
        return all(self._done[earlier] for earlier in range(self._next, place))

    def happened(self, place):
        self._ending = self._ending or self._is_stop(place)
        self._reached = max(self._reached, place)
        self._finish(place)

    def pause_before(self, place):
        """Real seconds from what came before to the entry at a place."""
        before = [entry["t"] for entry, each in zip(self._entries[:place], self._kinds)
                  if each in (ACT, INPUT)]
        return max(0.0, self._entries[place]["t"] - max(before, default=0.0))

    @property
    def is_over(self):
        return self._next == len(self._entries)

    def not_done(self, patience):
        """The Difference that the first act is that did not come."""
        place = self._next
        while self._kinds[place] != ACT or self._done[place]:
            place += 1
        entry = self._entries[place]
        return Difference(f"the {border(entry)}, {entry['t']:.1f} s into the recording",
                          shown(entry), f"nothing within {patience:.0f} s")

    def longest_pause(self):
        """Real seconds between two entries."""
        times = [entry["t"] for entry in self._entries]
        return max((later - earlier for earlier, later in zip(times, times[1:])), default=0.0)

    def count(self):
        """How many acts there are."""
        return self._kinds.count(ACT)


def shown(entry):
    """An act on a line."""
    members = {name: value for name, value in form(entry).items() if name not in ("border", "by")}
    what = members.pop("what")
    text = " ".join([what, *(f"{name}={value}" for name, value in members.items())])
    return text if len(text) <= SHOWN else text[:SHOWN] + "…"


def first_difference(recorded, now):
    """Where two messages differ first, as a path into their JSON; nothing when they have none."""
    try:
        return path_of_difference(json.loads(recorded["text"]), json.loads(now["text"]), "")
    except (KeyError, ValueError):
        return ""


def path_of_difference(recorded, now, path):
    if isinstance(recorded, dict) and isinstance(now, dict):
        for name in [*recorded, *(name for name in now if name not in recorded)]:
            if name not in recorded or name not in now or recorded[name] != now[name]:
                return path_of_difference(recorded.get(name, "nothing"), now.get(name, "nothing"),
                                          f"{path}.{name}".lstrip("."))
        return path or "the order of members"
    if isinstance(recorded, list) and isinstance(now, list):
        for index, pair in enumerate(zip(recorded, now)):
            if pair[0] != pair[1]:
                return path_of_difference(*pair, f"{path}[{index}]")
        return f"{path}: {len(recorded)} elements recorded, {len(now)} now"
    return f"{path}: {short(recorded)} recorded, {short(now)} now"


def short(value):
    text = json.dumps(value, ensure_ascii=False)
    return text if len(text) <= 60 else text[:60] + "…"
