"""Every call that the agent makes to the system and to its libraries fails once, at each of its
call sites: what the agent tells of it, what becomes of what it was doing, how it recovers.

A census finds the call sites: an agent in each mode does everything there is to do. Then each is
made to fail, in an agent at work or, for what happens at its start only, in one of its own. The
table of the outcomes is docs/faults.md; scripts/faults makes it.
"""
import collections
import fcntl
import json
import os
import pathlib
import re
import time

import pytest

from lumdtest.faults import FaultTable, Symbols, fallible_calls, places_of
from lumdtest.lab import LabError, running_lab, scenarios
from lumdtest.operations import DONE, Operations
from lumdtest.waiting import wait_until

pytestmark = pytest.mark.faults

SPEED = 60
START, END = "start", "end"
OPERATIONS = {
    "rrm": ["report", "survey", "vendor_survey", "channel_and_power", "neighbours",
            "fast_transition", "steering", "clients", "configuration", "large_messages",
            "hostapd", "link", "bus"],
    "portal": ["relay", "connection"],
    "wids": ["mac_list", "foreign_mac_list", "connection"],
}
PROOF = {"rrm": "report", "portal": "relay", "wids": "mac_list"}  # that all is well
SHARDS = 8
PATIENCE, SHORT_PATIENCE = 20.0, 2.0
ALIVE = "alive"
QUARANTINE = "verify_asan_link_order=0:quarantine_size_mb=1"

ERRNO = collections.defaultdict(lambda: "ENOMEM", {
    "fopen": "EMFILE", "fopen64": "EMFILE", "open": "EMFILE", "opendir": "EMFILE",
    "socket": "EMFILE", "eventfd": "EMFILE", "popen": "EMFILE", "connect": "ECONNREFUSED",
    "pthread_create": "EAGAIN", "poll": "ENOMEM", "select": "ENOMEM", "sendmsg": "EPIPE",
    "recvmsg": "ECONNRESET", "send": "EPIPE", "recv": "ECONNRESET", "unlink": "EACCES",
    "access": "EACCES", "rename": "EACCES", "usleep": "EINTR", "signal": "EINVAL",
    "prctl": "EINVAL", "getrandom": "EAGAIN", "write": "ENOSPC", "fwrite": "ENOSPC",
    **dict.fromkeys(("fgets", "fscanf", "fclose", "pclose", "close", "closedir", "fstat", "read",
                     "ferror", "ioctl", "fcntl", "setsockopt", "getsockopt", "getsockname",
                     "lws_write", "lws_service", "shutdown"), "EIO")})

Row = collections.namedtuple("Row", "function place operation errno calls told effect recovery")


class Agent:
    """An agent in its lab, with the table of its call sites."""

    def __init__(self, folder, mode, known=None):
        self.table, self.mode = FaultTable(folder / f"sites-{mode}", known), mode
        given = {**scenarios.load("office"), "scan": {"dwell": 0.01, "jitter": 0}}
        self._context = running_lab(given, mode=mode, speed=SPEED, start_lumd=False,
                                    config=["max_connection_delay=1"],
                                    environment={"LAB_FAULTS": str(self.table.path),
                                                 "ASAN_OPTIONS": QUARANTINE})
        self.lab = self._context.__enter__()
        self.operations = Operations(self.lab, PATIENCE)
        self._told = 0

    def begin(self):
        self.lab.start_lumd()
        self.await_start(PATIENCE)
        return self

    def await_start(self, patience):
        if self.mode == "rrm":
            self.lab.wait_subscribed(patience)
        else:
            self.lab.wait("connected", timeout=patience)
        self.do(PROOF[self.mode])

    @property
    def alive(self):
        return self.lab.lab.lumd.running

    @property
    def status(self):
        return self.lab.lab.lumd.status

    def do(self, operation, patience=PATIENCE):
        self.operations.patience = patience
        return self.operations.carry_out(operation)

    def told(self):
        """What was said since the last time: errors, warnings, and what of the rest speaks of a
        failure."""
        path = self.lab.lab.ap.root / "syslog"
        lines = path.read_text(errors="replace").splitlines() if path.exists() else []
        new, self._told = lines[self._told:], len(lines)
        return [self._plain(line) for line in new if speaks_of_failure(line)]

    def _plain(self, line):
        line = line.partition(" ")[2].replace(str(self.lab.lab.folder), "FOLDER")
        return re.sub(r"(<\w+):\d+>", r"\1>", line).strip()

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
        return re.match(r".*-debug> [12]:", text) is not None
    return severity in "01234" or re.search(
        r"^Error|\bcannot|[Cc]an't|[Ff]ail|has not restarted|lost|Disconnected", text) is not None


# --- the census ---


def census(folder):
    """[{key, function, mode, operation}] in the order in which the sites are reached: each with
    the first operation of an agent at work that reaches it, or its start or end."""
    found, content = {}, {}
    for mode, operations in OPERATIONS.items():
        agent = Agent(folder, mode).begin()
        at_start, before = set(agent.table.sites()), agent.table.sites()
        for operation in [*operations, *operations]:
            assert agent.do(operation) == DONE, operation
            after = agent.table.sites()
            for key, site in after.items():
                if key not in before or site.calls > before[key].calls:
                    found.setdefault(key, (site.function, mode, operation))
            before = after
        for key, site in before.items():
            if key in at_start:
                found.setdefault(key, (site.function, mode, START))
        assert agent.stop() == 0
        for key, site in agent.table.sites().items():
            found.setdefault(key, (site.function, mode, END))
        content[mode] = agent.table.content().hex()
    return {"sites": [{"key": key, "function": function, "mode": mode, "operation": operation}
                      for key, (function, mode, operation) in found.items()],
            "content": content}


@pytest.fixture(scope="session", name="sites")
def shared_census(tmp_path_factory):
    """The census, taken once for all processes of the run."""
    root = tmp_path_factory.getbasetemp().parent
    with open(root / "faults.lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        kept = root / "faults.json"
        if not kept.exists():
            folder = tmp_path_factory.mktemp("census")
            kept.write_text(json.dumps(census(folder)), encoding="ascii")
        return json.loads(kept.read_text(encoding="ascii"))


@pytest.fixture(scope="session", name="name_of")
def site_names(programs):
    """A site's function and place as text."""
    symbols = Symbols(programs.binary("lumd"))

    def name(key):
        place, helper = places_of(key)
        names = symbols.look_up([place, helper])
        if not place:
            return "libwebsockets"
        return f"{names[place][0]} ({names[helper][0]})" if helper else names[place][0]

    return name


@pytest.fixture(name="report")
def row_reporter(request):
    """Takes rows; they go to a file of $LUMD_FAULT_ROWS when that is set."""
    rows = []
    yield rows.append
    folder = os.environ.get("LUMD_FAULT_ROWS")
    if folder:
        name = re.sub(r"\W+", "-", request.node.name)
        pathlib.Path(folder, f"{name}.json").write_text(
            json.dumps([row._asdict() for row in rows]), encoding="utf-8")


# --- faults ---


def first_of(lines):
    return lines[0] if lines else ""


def fail_at_work(agent, site, place):
    """One fault in an agent at work."""
    error = ERRNO[site["function"]]
    agent.told()
    agent.table.arm(site["key"], error)
    effect = agent.do(site["operation"], SHORT_PATIENCE)
    agent.table.disarm()
    calls = agent.table.failed
    recovery = recover(agent, site["operation"])
    return Row(site["function"], place, site["operation"], error, calls,
               first_of(agent.told()), effect, recovery)


def recover(agent, operation):
    begun = time.monotonic()
    tries = 0
    while time.monotonic() < begun + PATIENCE:
        if not agent.alive:
            return f"ended with status {agent.status}"
        tries += 1
        if agent.do(operation, SHORT_PATIENCE) == DONE and \
                agent.do(PROOF[agent.mode], SHORT_PATIENCE) == DONE:
            return "at once" if tries == 1 else "soon"
    if agent.mode == "rrm" and agent.do("hostapd", PATIENCE) == DONE and \
            agent.do(operation, PATIENCE) == DONE:
        return "when hostapd restarts"
    return "never"


def chosen(sites, shard, mode, *operations):
    these = [site for site in sites["sites"] if site["mode"] == mode
             and site["operation"] in operations]
    return these[shard::SHARDS]


def check(row, agent, problems):
    print(row, flush=True)
    if row.calls == 0:
        problems.append(f"not reached again: {row}")
    if row.recovery == "never" or "status" in row.recovery:
        problems.append(f"{row}\n{agent.output()[-3000:]}")
        return False
    return True


def run_at_work(folder, sites, mode, shard, name_of, report):
    problems, agent = [], None
    for site in chosen(sites, shard, mode, *OPERATIONS[mode]):
        agent = agent or Agent(folder, mode, bytes.fromhex(sites["content"][mode])).begin()
        row = fail_at_work(agent, site, name_of(site["key"]))
        report(row)
        if not check(row, agent, problems):
            agent.stop()
            agent = None
    status = agent.stop() if agent else 0
    assert not problems, "\n".join(problems)
    assert status == 0


@pytest.mark.parametrize("shard", range(SHARDS))
def test_an_rrm_agent_at_work(folder, sites, shard, name_of, report):
    run_at_work(folder, sites, "rrm", shard, name_of, report)


@pytest.mark.parametrize("mode", ["portal", "wids"])
@pytest.mark.parametrize("shard", range(2))
def test_an_agent_of_another_mode_at_work(folder, sites, mode, shard, name_of, report):
    for part in range(shard, SHARDS, 2):
        run_at_work(folder, sites, mode, part, name_of, report)
