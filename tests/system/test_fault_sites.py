"""Every call that the agent makes to the system and to its libraries fails at each of its call
sites, one after the other: what the agent tells of it, what becomes of what it was doing, how it
recovers.

A census finds the call sites: an agent of each mode does everything there is to do. Then each site
fails, in an agent at work or, when only the start or the end of an agent reaches it, in one of its
own. scripts/faults runs this and writes the outcomes down in docs/faults.md.
"""
import collections
import fcntl
import json
import os
import pathlib
import re
import signal
import time

import pytest

from lumdtest.faults import FaultTable, Symbols, fallible_calls, places_of
from lumdtest.lab import LabError, running_lab, scenarios
from lumdtest.operations import DONE, Operations
from lumdtest.silence import SILENT

pytestmark = pytest.mark.faults

SPEED = 60
START, END = "start", "end"
OPERATIONS = {
    "rrm": ["report", "survey", "vendor_survey", "channel_and_power", "neighbours",
            "fast_transition", "steering", "clients", "configuration", "log", "hostapd", "link",
            "bus"],
    "portal": ["relay", "burst", "connection", "bus_of_the_portal"],
    "wids": ["mac_list", "foreign_mac_list", "connection"],
}
LOCKS_CHECKED = "portal"
PROOF = {"rrm": "report", "portal": "relay", "wids": "mac_list"}  # that all is well
SHARDS = 8
PATIENCE, SHORT_PATIENCE = 20.0, 2.0  # real seconds
QUIET, QUIET_LIMIT = 0.15, 3.0
SMALL_QUARANTINE = "verify_asan_link_order=0:quarantine_size_mb=1"
OTHER_TRIES = 2
BUSY = 5000  # calls of one site within SHORT_PATIENCE: it is called again without a wait

ERRNO = collections.defaultdict(lambda: "ENOMEM", {
    **dict.fromkeys(("fopen", "fopen64", "open", "opendir", "socket", "eventfd", "popen"), "EMFILE"),
    **dict.fromkeys(("fgets", "fscanf", "fclose", "pclose", "close", "closedir", "fstat", "read",
                     "ferror", "ioctl", "fcntl", "setsockopt", "getsockopt", "getsockname",
                     "lws_write", "lws_service", "shutdown"), "EIO"),
    **dict.fromkeys(("unlink", "access", "rename"), "EACCES"),
    **dict.fromkeys(("write", "fwrite"), "ENOSPC"),
    **dict.fromkeys(("sendmsg", "send"), "EPIPE"),
    **dict.fromkeys(("recvmsg", "recv"), "ECONNRESET"),
    **dict.fromkeys(("pthread_create", "getrandom"), "EAGAIN"),
    **dict.fromkeys(("signal", "prctl"), "EINVAL"),
    "connect": "ECONNREFUSED", "usleep": "EINTR"})

# Where the agent ends itself.
ENDS = {("backtrace_symbols", "capture_backtrace")}

# Calls in the program that no operation reaches.
NOT_REACHED = {
    ("fwrite", "print_program_info"): "lumd --help begins no operation",
    ("json_object_array_put_idx", "json_writer::put"): "no message has an array of plain values",
    ("json_tokener_parse_ex", "cfgtree_parse_buffer"): "only a text that is one number leads here",
    ("poll", "msgbus::Connection::connect_to"): "only a broker with a full backlog leads here",
    ("select", "select_sleep"): "no worker waits for its timers this way",
}
# The last two are libwpa_client's.
OF_OTHER_RADIOS = re.compile(r"(nl80211|nl|hostapd|wpa_ctrl|os)_")
NO_SUCH_RADIO = "only a radio of mac80211 leads here, and the lab has none"

ROW = ("mode", "operation", "function", "place", "errno", "calls", "told", "effect", "recovery")
Row = collections.namedtuple("Row", ROW)
NEW_OBJECT = ("json_object_new_object", "json_writer::json_writer")


class Agent:
    """An agent in its lab, with the table of its call sites. `known`: those of the census."""

    def __init__(self, folder, mode, known=None):
        self.table, self.mode = FaultTable(folder / f"sites-{mode}", known), mode
        given = {**scenarios.load("office"), "scan": {"dwell": 0.01, "jitter": 0}}
        environment = {"LAB_FAULTS": str(self.table.path), "ASAN_OPTIONS": SMALL_QUARANTINE}
        if mode == LOCKS_CHECKED:
            environment["VEXOR_LOCKDEP_DEBUG"] = "1"
        self._context = running_lab(given, mode=mode, speed=SPEED, start_lumd=False,
                                    config=["max_connection_delay=1"], environment=environment)
        self.lab = self._context.__enter__()
        self.operations = Operations(self.lab, PATIENCE)
        self._told = 0

    def begin(self):
        self.lab.start_lumd()
        if not self.comes_up(PATIENCE):
            raise LabError(self.lab.lab.explain("the agent did not start"))
        return self

    def comes_up(self, patience):
        limit = time.monotonic() + patience
        while self.alive and time.monotonic() < limit:
            if self.does(PROOF[self.mode], SHORT_PATIENCE) and \
                    (self.mode != "rrm" or self.lab.ap("status")["connected"]):
                return True
        return False

    @property
    def alive(self):
        return self.lab.lab.lumd.running

    @property
    def status(self):
        return self.lab.lab.lumd.status

    def do(self, operation, patience=PATIENCE):
        self.operations.patience = patience
        return self.operations.carry_out(operation)

    def does(self, operation, patience=PATIENCE):
        return self.alive and self.do(operation, patience) == DONE

    def settle(self):
        """Until nothing is on its way: no answer to an earlier question may be taken for one to
        the next."""
        limit = time.monotonic() + QUIET_LIMIT
        before = -1
        while time.monotonic() < limit and before != (now := self._said()):
            before = now
            time.sleep(QUIET)

    def _said(self):
        return sum(event["what"] != "ping" for event in self.lab.events())

    def told(self):
        """What was said since the last time: errors, warnings, and what of the rest speaks of a
        failure."""
        path = self.lab.lab.ap.root / "syslog"
        lines = path.read_text(errors="replace").splitlines() if path.exists() else []
        new, self._told = lines[self._told:], len(lines)
        return [self._plain(line) for line in new if speaks_of_failure(line)]

    def _plain(self, line):
        line = line.partition(" ")[2].replace(str(self.lab.lab.folder), "")
        return re.sub(r":\d+(?=[>/])", "", line).strip()

    def output(self):
        path = self.lab.lab.lumd.output
        return path.read_text(errors="replace") if path.exists() else ""

    def stop(self):
        status = self.lab.stop_lumd()
        self._context.__exit__(None, None, None)
        return status


def speaks_of_failure(line):
    severity, _, text = line.partition(" ")
    if "libwebsocket-debug>" in text:
        return re.search(r"-debug> [12]:", text) is not None
    return severity in "01234" or re.search(
        r"^Error|^No backtrace|_error:|\bcannot|[Cc]an't|[Ff]ail|has not restarted|lost|Disconnected from RRM",
        text) is not None


# --- the census ---


def census(folder):
    """The call sites, each with an operation of an agent at work that reaches it whenever it is
    carried out, or else the start or the end of an agent; what each operation tells of itself; and
    the table of each mode."""
    found, usual, content = {}, {}, {}
    for mode, operations in OPERATIONS.items():
        agent = Agent(folder, mode).begin()
        agent.settle()
        usual.setdefault(START, []).extend(agent.told())
        rounds = [{}, {}]
        for reached in rounds:
            for operation in operations:
                agent.told()
                before = agent.table.sites()
                assert agent.do(operation) == DONE, operation
                agent.settle()
                usual.setdefault(operation, []).extend(agent.told())
                reached[operation] = {
                    key for key, site in agent.table.sites().items()
                    if key not in before or site.calls > before[key].calls}
        at_work = set(agent.table.sites())
        assert agent.stop() == 0
        for choose in (set.intersection, set.union):  # an operation may not reach all each time
            for operation in operations:
                for key in choose(*(reached[operation] for reached in rounds)):
                    found.setdefault(key, (mode, operation))
        for key in agent.table.sites():
            found.setdefault(key, (mode, START if key in at_work else END))
        functions = {key: site.function for key, site in agent.table.sites().items()}
        content[mode] = {"table": agent.table.content().hex(), "functions": functions}
    sites = [{"key": key, "mode": mode, "operation": operation,
              "function": content[mode]["functions"][key]}
             for key, (mode, operation) in found.items()]
    return {"sites": sites, "usual": usual,
            "content": {mode: kept["table"] for mode, kept in content.items()}}


class Census:
    def __init__(self, kept, symbols):
        self.sites, self._usual = kept["sites"], kept["usual"]
        self._content, self._symbols = kept["content"], symbols

    def content(self, mode):
        return bytes.fromhex(self._content[mode])

    def part(self, number, mode, *operations):
        """One of SHARDS parts of the sites, those of one operation behind each other."""
        return [site for site in self.sites if site["mode"] == mode
                and site["operation"] in operations][number::SHARDS]

    def place(self, key):
        """Where a site is, as text."""
        place, helper = places_of(key)
        names = self._symbols.look_up([place, helper])
        if not place:
            return "libwebsockets"
        return f"{names[place][0]} < {names[helper][0]}" if helper else names[place][0]

    def unusual(self, operation, lines):
        usual = set(self._usual.get(operation, []))
        return [line for line in lines if line not in usual]


@pytest.fixture(scope="session", name="census")
def shared_census(tmp_path_factory, programs):
    """Taken once for all processes of the run."""
    root = tmp_path_factory.getbasetemp().parent
    symbols = Symbols(programs.binary("lumd"))
    with open(root / "faults.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        kept = root / f"faults-{os.environ.get('PYTEST_XDIST_TESTRUNUID', os.getpid())}.json"
        if not kept.exists():
            kept.write_text(json.dumps(census(tmp_path_factory.mktemp("census"))),
                            encoding="ascii")
        return Census(json.loads(kept.read_text(encoding="ascii")), symbols)


@pytest.fixture(name="outcomes")
def outcome_keeper(request):
    """Rows and what is wrong with them. The rows go to a file of $LUMD_FAULT_ROWS."""
    outcomes = Outcomes()
    yield outcomes
    folder = os.environ.get("LUMD_FAULT_ROWS")
    if folder:
        name = re.sub(r"\W+", "-", request.node.name)
        pathlib.Path(folder, f"{name}.json").write_text(
            json.dumps([row._asdict() for row in outcomes.rows]), encoding="utf-8")


class Outcomes:
    def __init__(self):
        self.rows, self.problems = [], []

    def add(self, row, agent):
        print(row, flush=True)
        self.rows.append(row)
        if row.calls == 0:
            self.problems.append(f"not reached: {row}")
        elif row.recovery == "never":
            self.problems.append(f"{row}\n{agent.output()[-3000:]}")
        elif row.effect != DONE and not row.told and (row.function, row.place) not in SILENT:
            self.problems.append(f"silent: {row}")

    def check(self):
        assert not self.problems, "\n".join(self.problems)


# --- faults in an agent at work ---


def fail_at_work(agent, site, census_):
    error, operation = ERRNO[site["function"]], site["operation"]
    agent.settle()
    agent.told()
    agent.table.arm(site["key"], error)
    effect = agent.do(operation, SHORT_PATIENCE)
    for _ in range(OTHER_TRIES):  # not every link ends with a Close frame, for example
        if agent.alive and agent.table.failed == 0:
            effect = agent.do(operation, SHORT_PATIENCE)
    agent.table.disarm()
    calls, place = agent.table.failed, census_.place(site["key"])
    told = census_.unusual(operation, agent.told())
    if not agent.alive and (site["function"], place) in ENDS:
        effect, recovery = f"status {agent.status}", start_again(agent)
    else:
        recovery = recover(agent, operation)
    return Row(site["mode"], operation, site["function"], place, error, calls,
               told[0] if told else "", effect + (", busy" if calls > BUSY else ""), recovery)


def start_again(agent):
    agent.lab.start_lumd()
    return "at its next start" if agent.comes_up(PATIENCE) else "never"


def recover(agent, operation):
    begun, tries = time.monotonic(), 0
    while agent.alive and time.monotonic() < begun + PATIENCE:
        tries += 1
        if agent.does(operation, SHORT_PATIENCE) and agent.does(PROOF[agent.mode], SHORT_PATIENCE):
            return "at once" if tries == 1 else "soon"
    if agent.alive and agent.mode == "rrm":
        agent.lab.ap("hostapd", action="stop")
        agent.lab.ap("hostapd", action="start")
        if any(agent.does(operation) for _ in range(3)):
            return "when hostapd restarts"
    return "never"


@pytest.mark.parametrize("part", range(SHARDS))
@pytest.mark.parametrize("mode", OPERATIONS)
def test_a_call_fails_in_an_agent_at_work(folder, census, outcomes, mode, part):
    agent = None
    for site in census.part(part, mode, *OPERATIONS[mode]):
        agent = agent or Agent(folder, mode, census.content(mode)).begin()
        row = fail_at_work(agent, site, census)
        outcomes.add(row, agent)
        if row.recovery == "never":
            agent.stop()
            agent = None
    status = agent.stop() if agent else 0
    outcomes.check()
    assert status == 0


def test_a_message_whose_header_has_no_memory_goes_out_as_null(folder, census):
    agent = Agent(folder, "rrm", census.content("rrm")).begin()
    answers = []
    for site in census.sites:
        if (site["function"], census.place(site["key"])) != NEW_OBJECT:
            continue
        agent.settle()
        since = agent.lab.mark()
        agent.table.arm(site["key"], "ENOMEM")
        agent.lab.send({"cmd": "rrm-request-mode"})
        answers.append(agent.lab.run(agent.lab.lab.journal.wait(since, PATIENCE, is_report)))
        agent.table.disarm()
    assert agent.stop() == 0
    assert None not in answers, "nothing went out"
    # The constructors of a header and of what lies in a message.
    assert sorted(answer["what"] for answer in answers) == ["message", "rrm-mode-response"]
    assert [answer["data"] for answer in answers if answer["what"] == "message"] == ["null"]


def is_report(event):
    return event["from"] == "lumd" and event["to"] == "service" and event["what"] != "ping"


# --- faults at the start and at the end ---


def fail_at_start(agent, site, census_):
    error = ERRNO[site["function"]]
    agent.table.arm(site["key"], error)
    up = False
    for _ in range(1 + OTHER_TRIES):  # a busy machine may keep the fast clock's bus from answering
        if agent.table.failed == 0 and not agent.alive:
            agent.lab.start_lumd()
            up = agent.comes_up(SHORT_PATIENCE * 2)
    status = agent.status
    agent.table.disarm()
    effect = DONE if up else "waits" if status is None else f"status {status}"
    told = census_.unusual(START, agent.told())
    if status is None:
        recovery = "at once" if agent.comes_up(PATIENCE) else "never"
    else:
        recovery = start_again(agent)
    return Row(site["mode"], START, site["function"], census_.place(site["key"]), error,
               agent.table.failed, told[0] if told else "", effect, recovery)


@pytest.mark.parametrize("part", range(SHARDS))
@pytest.mark.parametrize("mode", OPERATIONS)
def test_a_call_fails_while_an_agent_starts(folder, census, outcomes, mode, part):
    for site in census.part(part, mode, START):
        agent = Agent(folder, mode, census.content(mode))
        row = fail_at_start(agent, site, census)
        outcomes.add(row, agent)
        status = agent.stop()
        # Without the handler the signal that is to end the agent does so at once.
        assert status == 0 or row.function == "signal" and status == -signal.SIGTERM
    outcomes.check()


@pytest.mark.parametrize("mode", OPERATIONS)
def test_a_call_fails_while_an_agent_ends(folder, census, outcomes, mode):
    for part in range(SHARDS):
        for site in census.part(part, mode, END):
            agent = Agent(folder, mode, census.content(mode)).begin()
            agent.told()
            error = ERRNO[site["function"]]
            agent.table.arm(site["key"], error)
            status = agent.lab.stop_lumd()
            told = agent.told()
            outcomes.add(Row(mode, END, site["function"], census.place(site["key"]), error,
                             agent.table.failed, told[0] if told else "",
                             DONE if status == 0 else f"status {status}", "at once"), agent)
            agent.stop()
    outcomes.check()


# --- calls that nothing reaches ---


def why_not_reached(row):
    _, place = row
    return NOT_REACHED.get(row) or (NO_SUCH_RADIO if OF_OTHER_RADIOS.match(place) else "")


def test_every_call_in_the_program_is_reached_or_known_not_to_be(census, outcomes, programs):
    reached = {places_of(site["key"])[0] for site in census.sites}
    library = programs.lib / "liblabfaults.so"
    calls = {place: function for place, function in
             fallible_calls(programs.binary("lumd"), library).items() if place not in reached}
    unknown = set()
    for place, function in calls.items():
        name = census.place(place)
        row = (function, name)
        outcomes.rows.append(Row("", "", function, name, "", 0, "", "not reached",
                                 why_not_reached(row)))
        if not why_not_reached(row):
            unknown.add(row)
    assert not unknown, "\n".join(map(str, sorted(unknown)))
