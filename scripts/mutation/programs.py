"""The tests that judge a fault: which there are, what each reaches, and running them."""
import concurrent.futures
import dataclasses
import hashlib
import json
import mmap
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import tempfile
import time

from .tree import BUILD, HOME, ROOT

# Judges what its room's unit tests let pass: each mode from start to stop, and what only whole
# programs show.
SYSTEM_TESTS = [
    "test_messages.py::test_the_subscribe_request",
    "test_process.py::test_log_lines_bear_the_daemons_name",
    "test_process.py::test_version_alone_tells_the_version",
    "test_process.py::test_without_any_option_it_ends_silently_with_status_0",
    "test_process.py::test_the_process_is_set_up_in_order",
    "test_process.py::test_portal_mode_goes_before_all_others_and_makes_no_driver",
    "test_process.py::test_rrm_mode_goes_before_the_wids_mode",
    "test_process.py::test_wids_mode_has_no_bus_worker",
    "test_process.py::test_the_lock_checker_runs_when_its_variable_exists[1]",
    "test_process.py::test_sigterm_and_sigint_end_a_linked_agent_with_status_0[15]",
    "test_portal.py::test_a_status_request_is_answered_while_the_link_is_down",
    "test_link.py::test_a_link_closed_by_the_service_comes_back",
    "test_wids.py::test_a_list_with_our_name_in_any_letter_case_is_taken[lab-list]",
    "test_radio_management.py::test_a_commanded_channel_is_what_the_next_report_shows",
    "test_radio_management.py::test_clients_that_come_and_go_are_reported",
]
MEMORY = 4 << 30  # bytes of address space; a loop that never ends also never frees
SLACK = 4         # times as long as without a fault may a test take
GRACE = 4.0       # seconds on top


@dataclasses.dataclass
class Test:
    name: str
    seconds: float
    reached: frozenset


@dataclasses.dataclass
class Outcome:
    passed: bool
    seconds: float
    output: str
    timed_out: bool


def limit_of(seconds):
    """How long tests may take that take this long without a fault; more on a busy machine."""
    return (GRACE + SLACK * seconds) * max(1.0, os.getloadavg()[0] / os.cpu_count())


def own_namespaces():
    """A command prefix that gives a run processes and /tmp of its own, where that is allowed."""
    prefix = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc", "sh", "-c",
              # As a child of the shell: signals do not end a namespace's first process.
              'mount -t tmpfs tmpfs /tmp && "$@"; exit $?', "run"]
    if shutil.which("unshare") and subprocess.run([*prefix, "true"], capture_output=True,
                                                  check=False).returncode == 0:
        return prefix
    return []


class Runner:
    """Runs commands with a fault switched on, or with what they reach recorded."""

    def __init__(self):
        self.prefix = own_namespaces()

    def run(self, command, limit, fault=None, reached=None, environment=None, folder=ROOT):
        environment = {**os.environ, **(environment or {})}
        if fault is not None:
            environment["LUMD_MUTANT"] = str(fault)
        if reached is not None:
            environment["LUMD_MUTANT_REACHED"] = str(reached)
        started = time.monotonic()

        def limits():
            cpu = int(limit) + 1
            resource.setrlimit(resource.RLIMIT_CPU, (cpu, cpu))
            resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))

        with tempfile.TemporaryFile() as output:
            process = subprocess.Popen([*self.prefix, *map(str, command)], cwd=folder,
                                       env=environment, stdin=subprocess.DEVNULL, stdout=output,
                                       stderr=output, start_new_session=True, preexec_fn=limits)
            timed_out = False
            try:
                status = process.wait(limit)
            except subprocess.TimeoutExpired:
                timed_out, status = True, -1
            try:
                os.killpg(process.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            process.wait()
            output.seek(0)
            text = output.read().decode(errors="replace")
        return Outcome(status == 0, time.monotonic() - started, text, timed_out)


class ReachMap:
    """A file that the switched programs mark with what they ask for."""

    def __init__(self, size):
        handle, path = tempfile.mkstemp(prefix="reached-", dir=HOME)
        self.path = pathlib.Path(path)
        os.ftruncate(handle, size)
        self.map = mmap.mmap(handle, size)
        os.close(handle)

    def numbers(self):
        found = []
        at = self.map.find(b"\1")
        while at >= 0:
            found.append(at)
            at = self.map.find(b"\1", at + 1)
        return frozenset(found)

    def close(self):
        self.map.close()
        self.path.unlink()


class Tests:
    """One set of tests with what each reaches: kept until its programs change."""

    first_limit = 120.0  # seconds

    def __init__(self, name, runner, size, jobs):
        self.name = name
        self.runner = runner
        self.size = size
        self.tests = {}
        self.unfit = []  # fail without any fault
        kept = HOME / f"reached-{name}.json"
        state = hashlib.sha256(b"".join(path.read_bytes() for path in self.programs()))
        state.update(repr([self.names(), size]).encode())
        content = json.loads(kept.read_text()) if kept.exists() else {}
        if content.get("state") != state.hexdigest():
            self.measure(jobs)
            kept.write_text(json.dumps({
                "state": state.hexdigest(), "unfit": self.unfit,
                "tests": [[one.name, one.seconds, sorted(one.reached)]
                          for one in self.tests.values()]}))
        else:
            self.unfit = content["unfit"]
            self.tests = {name: Test(name, seconds, frozenset(reached))
                          for name, seconds, reached in content["tests"]}

    def measure(self, jobs):
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            for name, test in pool.map(self.measure_one, self.names()):
                if test is None:
                    self.unfit.append(name)
                else:
                    self.tests[name] = test

    def measure_one(self, name):
        reached = ReachMap(self.size)
        outcome = self.run_tests([name], self.first_limit, reached=reached.path)
        numbers = reached.numbers()
        reached.close()
        return name, Test(name, outcome.seconds, numbers) if outcome.passed else None

    def reaching(self, number):
        """The tests that come to where the fault is, the shortest first."""
        found = [test for test in self.tests.values() if number in test.reached]
        return sorted(found, key=lambda test: test.seconds)

    def notices(self, number):
        """The name of a test that fails with this fault and passes without; None if there is none.
        Tests run together for speed; a failure counts once the test has also failed alone."""
        left = self.reaching(number)
        while left:
            seconds = sum(test.seconds for test in left)
            outcome = self.run_tests([test.name for test in left], limit_of(seconds), number)
            if outcome.passed:
                return None
            by_name = {test.name: at for at, test in enumerate(left)}
            at = by_name.get(self.failed(outcome), 0)
            alone = outcome if len(left) == 1 and not outcome.timed_out and not self.repeat else \
                self.run_tests([left[at].name], limit_of(left[at].seconds), number)
            if not alone.passed:
                return left[at].name
            del left[at]
        return None


class UnitTests(Tests):
    """A GoogleTest program."""

    repeat = False

    def __init__(self, name, *arguments):
        self.program = BUILD / "bin" / name
        super().__init__(name, *arguments)

    def programs(self):
        return [self.program]

    def names(self):
        listed = subprocess.run([self.program, "--gtest_list_tests"], capture_output=True, text=True,
                                check=True).stdout
        names, suite = [], ""
        for line in listed.splitlines():
            name = line.split("#")[0].rstrip()
            if not line.startswith(" "):
                suite = name
            elif "DISABLED_" not in name:
                names.append(suite + name.strip())
        return [name for name in names if not name.startswith("Running main")]

    def run_tests(self, names, limit, fault=None, reached=None):
        # A shell that is told something else than it should be may leave files.
        return self.runner.run([self.program, "--gtest_fail_fast", "--gtest_filter=" + ":".join(names)],
                               limit, fault, reached, folder=HOME)

    def failed(self, outcome):
        """The test that was running last: what comes after the first failure is skipped."""
        failed = re.findall(r"^\[  FAILED  \] ([\w./]+)", outcome.output, re.MULTILINE)
        started = re.findall(r"^\[ RUN      \] ([\w./]+)", outcome.output, re.MULTILINE)
        return failed[0] if failed else started[-1] if started else ""


class SystemTests(Tests):
    """The fixed set over the whole agent. What fails must fail twice: these tests have a clock."""

    repeat = True

    def __init__(self, *arguments):
        super().__init__("system", *arguments)

    def programs(self):
        return [BUILD / "bin/lumd"]

    def names(self):
        return SYSTEM_TESTS

    def run_tests(self, names, limit, fault=None, reached=None):
        command = ["/usr/bin/python3", "-m", "pytest", "-x", "-v", "-p", "no:cacheprovider",
                   *(f"tests/system/{name}" for name in names)]
        return self.runner.run(command, limit, fault, reached,
                               {"LUMD_BIN_DIR": str(BUILD / "bin"),
                                "LUMD_LIB_DIR": str(BUILD / "lib")})

    def failed(self, outcome):
        names = re.findall(r"^tests/system/(\S+::\S+)", outcome.output, re.MULTILINE)
        return names[-1] if names else ""
