"""What the modes beside RRM have to show: MAC lists that came, messages that were passed on."""
import collections

KEPT = 50            # lists and messages of a conversation
ADDRESSES = 200      # of one list
LONGEST_TEXT = 200   # characters of a message that was passed on
OUTCOMES = {"mac-list-received": "taken", "mac-list-rejected": "rejected"}
HANDED_ON, ASKED = "update-wids-mac-lists", "asked"
NAMELESS = "empty-name"  # what lumd calls it
OF_THE_LINK = frozenset({"connected", "disconnected", "dropped", "refused", "ping", "pong", "close"})
OWN_SERVICE = "internal-ipc"  # what lumd and the portal module say to each other, not passed on


class Follower:
    """Listens to one journal from its beginning. `key`: the member of the state that it fills in."""

    def __init__(self, journal):
        self._journal = journal
        self.kept = collections.deque(maxlen=KEPT)
        journal.follow(self._take)

    def close(self):
        self._journal.leave(self._take)


class MacLists(Follower):
    """Of the WIDS mode: each list with what became of it."""

    key = "lists"

    def _take(self, event):
        data = event["data"] if isinstance(event["data"], dict) else {}
        if event["from"] == "service" and data:
            self.kept.append({"n": event["n"], "t": event["t"],
                              "name": data.get("Name") or NAMELESS,
                              "white": _addresses(data, "white-list"),
                              "black": _addresses(data, "black-list"),
                              "outcome": None, "network-manager": None})
        elif event["from"] == "lumd" and event["what"] in OUTCOMES:
            self._mark("outcome", None, OUTCOMES[event["what"]], data.get("Name"))
        elif event["what"] == HANDED_ON:
            self._mark("network-manager", None, ASKED, data.get("Name"))
        elif event["what"] == f"{HANDED_ON}-response":
            self._mark("network-manager", ASKED, str(data.get("status")))

    def _mark(self, member, before, after, name=None):
        """Of the first where it is so: lumd does one list after the other."""
        for entry in self.kept:
            if entry[member] == before and name in (None, entry["name"]):
                entry[member] = after
                return

    def state(self):
        return {"seen": [dict(entry) for entry in self.kept]}


def _addresses(data, name):
    """None where the message has no such list."""
    found = data.get(name)
    return [str(entry) for entry in found[:ADDRESSES]] if isinstance(found, list) else None


class Relay(Follower):
    """Of the portal mode: what was passed on, either way."""

    key = "relay"

    def __init__(self, journal):
        self.counts = {"down": 0, "up": 0}
        super().__init__(journal)

    def _take(self, event):
        data = event["data"]
        if event["from"] != "lumd" or event["what"] in OF_THE_LINK or \
                isinstance(data, dict) and data.get("service") == OWN_SERVICE:
            return
        way = {"portal": "down", "service": "up"}.get(event["to"])
        if way is not None:
            self.counts[way] += 1
            self.kept.append({"n": event["n"], "t": event["t"], "way": way,
                              "text": _brief(data)})

    def state(self):
        return {**self.counts, "passed": list(self.kept)}


def _brief(data):
    if isinstance(data, dict):
        data = " ".join(f"{key}={value}" for key, value in data.items())
    return str(data)[:LONGEST_TEXT]


FOLLOWERS = {"wids": MacLists, "portal": Relay}


def follower(mode, journal):
    """Of a mode; None where the other views show all that there is."""
    return FOLLOWERS[mode](journal) if mode in FOLLOWERS else None


def state(of, about):
    """The mode's member of a state; `about`: what stands in no message."""
    return {} if of is None else {of.key: {**about, **of.state()}}
