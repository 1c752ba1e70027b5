"""Start-up, choice of the mode, and the end by signal."""
import os
import pathlib
import re
import signal
import socket
import subprocess
import syslog
import time

import pytest

from lumdtest.agent import Agent
from lumdtest.lab import running_lab
from lumdtest.waiting import PATIENCE, wait_until

PORTAL_THREADS = ["lumd:ipc", "lumd:websock-ro"]  # the kernel keeps 15 bytes of a name
RRM_THREADS = ["lumd:ipc", "lumd:rrm", "lumd:websock-rr"]
WIDS_THREADS = ["lumd:websock-wi", "lumd:wids"]


@pytest.fixture
def run(programs, folder):
    """Runs lumd to its end."""
    def run_lumd(*arguments):
        return subprocess.run([programs.binary("lumd"), *map(str, arguments)], cwd=folder,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=PATIENCE)
    return run_lumd


@pytest.fixture
def config(folder):
    def write(*lines):
        path = folder / "lumd.conf"
        path.write_text("\n".join(lines) + "\n")
        return path
    return write


class Listener:
    """A service's port that only tells whether anybody came."""

    def __init__(self):
        self._socket = socket.create_server(("127.0.0.1", 0))
        self.port = self._socket.getsockname()[1]

    def close(self):
        self._socket.close()

    def visited(self):
        self._socket.settimeout(0)
        try:
            self._socket.accept()[0].close()
            return True
        except BlockingIOError:
            return False


@pytest.fixture
def other_port():
    listener = Listener()
    yield listener
    listener.close()


def thread_names(pid):
    tasks = pathlib.Path(f"/proc/{pid}/task").iterdir()
    return sorted((task / "comm").read_text().strip() for task in tasks)


def worker_threads(pid):
    """Threads that bear a worker's name; a sanitizer's own thread is called like its creator."""
    return [name for name in thread_names(pid) if name not in ("lumd", "lumd:main")]


def wait_threads(agent, names):
    pid = agent.process.pid
    wait_until(lambda: not agent.alive() or worker_threads(pid) == names, f"threads {names}")
    assert agent.alive(), agent.output_path.read_text()


# Without a service


def expect_silent_end(result):
    assert (result.returncode, result.stdout, result.stderr) == (0, b"", b"")


def expect_end_with(result, *lines):
    """A normal end, which tells on standard error what is wrong with the file."""
    assert (result.returncode, result.stdout) == (0, b"")
    assert result.stderr.decode().splitlines() == [f"lumd: {line}" for line in lines]


def test_without_any_option_it_ends_silently_with_status_0(run):
    expect_silent_end(run())


def test_without_a_service_url_it_ends_with_status_0_and_logs_nothing(run, config, folder):
    log = folder / "lumd.log"
    path = config("# no service", "log_level=15", f"log_file={log}", "loglevel=3")
    expect_end_with(run("-f", path), f"{path}:4: unknown key 'loglevel': ignored",
                    f"{path}: no mode is enabled")
    assert not log.exists()


def test_options_alone_enable_no_service(run):
    expect_silent_end(run("-d", "127.0.0.1", "-p", "/agent", "-P", "80"))


def test_a_url_without_a_port_enables_no_service_and_is_not_complained_of(run, config):
    path = config("orvanta_service_url=ws://127.0.0.1/agent")
    expect_end_with(run("-f", path), f"{path}: no mode is enabled")


def test_a_missing_configuration_file_is_a_normal_end(run, folder):
    path = folder / "nonexistent"
    expect_end_with(run("-f", path), f"{path}: No such file or directory")


def test_a_directory_as_configuration_file_is_a_normal_end(run, folder):
    expect_end_with(run("-f", folder), f"{folder}: Is a directory")


def test_help_alone_tells_the_usage_in_80_columns(run):
    result = run("--help")
    lines = result.stdout.decode().splitlines()
    assert (result.returncode, result.stderr) == (0, b"")
    assert lines[0] == "usage: lumd [-f FILE] [-d HOST] [-p PATH] [-P PORT]"
    assert max(map(len, lines)) < 80


def test_version_alone_tells_the_version(run):
    result = run("--version")
    assert (result.returncode, result.stderr) == (0, b"")
    assert re.fullmatch(rb"lumd \d+\.\d+\.\d+\n", result.stdout)


@pytest.mark.parametrize("arguments", [["-x"], ["-h"], ["--hel"], ["--help", "-f"],
                                       ["-f", "/dev/null", "--version"], ["-f"],
                                       ["-d", "host", "-z"]])
def test_an_unknown_option_ends_with_status_255(run, arguments):
    result = run(*arguments)
    assert (result.returncode, result.stdout) == (255, b"")


# Start-up


def test_the_process_is_set_up_in_order(programs, folder):
    path = folder / "calls"
    spy = {**os.environ, **programs.preloaded("libcallspy.so"), "CALL_SPY": str(path)}
    started = int(time.time())
    subprocess.run([programs.binary("lumd")], env=spy, timeout=PATIENCE, check=True)
    calls = path.read_text().splitlines()
    seeds = [call for call in calls if call.startswith("srand")]
    how = f"{syslog.LOG_PID} {syslog.LOG_DAEMON}"
    assert [call for call in calls if not call.startswith("mallopt -")] == [
        f"openlog lumd {how}",  # the log's own name, until it is told the daemon's
        "mallopt 1 0",  # M_MXFAST
        f"openlog LUMD {how}", *seeds, "prctl lumd:main", f"openlog LUMD {how}",
        f"signal {signal.SIGTERM:d}", f"signal {signal.SIGINT:d}"]
    assert len(seeds) == 1 and started <= int(seeds[0].split()[1]) <= time.time()


def test_until_the_configuration_is_read_signals_keep_their_default_action(programs, folder):
    path = folder / "lumd.conf"
    os.mkfifo(path)  # lumd waits there for somebody to write
    with subprocess.Popen([programs.binary("lumd"), "-f", path],
                          stdin=subprocess.DEVNULL) as lumd:
        try:
            wait_until(lambda: thread_names(lumd.pid) == ["lumd:main"], "the main thread's name")
            lumd.send_signal(signal.SIGTERM)
            assert lumd.wait(PATIENCE) == -signal.SIGTERM
        finally:
            lumd.kill()


# Signals


@pytest.mark.threads
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_sigterm_and_sigint_end_a_linked_agent_with_status_0(linked, number):
    agent, _ = linked
    agent.expect_clean_end(number)


@pytest.mark.threads
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_sigterm_and_sigint_end_an_agent_that_waits_for_its_link(make_agent, number):
    agent = make_agent(1)  # nobody listens there
    wait_threads(agent, PORTAL_THREADS)
    agent.expect_clean_end(number)


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGUSR1, signal.SIGQUIT])
def test_other_signals_keep_their_default_action(make_agent, number):
    agent = make_agent(1)
    wait_threads(agent, PORTAL_THREADS)
    assert agent.end(number) == -number


@pytest.mark.threads
@pytest.mark.parametrize("mode", ["rrm", "wids"])
def test_sigterm_ends_the_modes_with_radios_with_status_0(mode):
    with running_lab(mode=mode) as lab:
        if mode == "rrm":
            lab.wait_subscribed()
        else:
            wait_until(lambda: worker_threads(lab.lab.lumd.pid) == WIDS_THREADS, "the WIDS mode")
        assert lab.stop_lumd() == 0, lab.log_lines()


# The mode


def test_portal_mode_runs_the_link_on_the_main_thread(make_agent):
    agent = make_agent(1)
    wait_threads(agent, PORTAL_THREADS)
    main = pathlib.Path(f"/proc/{agent.process.pid}/task/{agent.process.pid}/comm")
    assert main.read_text().strip() == "lumd:websock-ro"


def test_portal_mode_goes_before_all_others_and_makes_no_driver(make_agent, service, other_port):
    # There is no bus here: making a driver would end the process.
    url = f"ws://127.0.0.1:{other_port.port}/agent"
    agent = make_agent(service.port, settings=[f"orvanta_service_url={url}",
                                               f"mac-list-service-url={url}"])
    assert service.accept().subprotocol == "websock-roaming"
    assert worker_threads(agent.process.pid) == PORTAL_THREADS
    assert not other_port.visited()


def test_rrm_mode_without_a_bus_ends_with_status_255(run, config):
    assert run("-f", config("orvanta_service_url=ws://127.0.0.1:1/agent")).returncode == 255


def test_rrm_mode_goes_before_the_wids_mode(other_port):
    url = f"mac-list-service-url=ws://127.0.0.1:{other_port.port}/agent"
    with running_lab(mode="rrm", config=[url]) as lab:
        lab.wait_subscribed()
        pid = lab.lab.lumd.pid
        assert worker_threads(pid) == RRM_THREADS
        assert pathlib.Path(f"/proc/{pid}/task/{pid}/comm").read_text().strip() == "lumd:rrm"
        assert not other_port.visited()


def test_wids_mode_has_no_bus_worker():
    with running_lab(mode="wids") as lab:
        pid = lab.lab.lumd.pid
        wait_until(lambda: worker_threads(pid) == WIDS_THREADS, "the WIDS mode")
        assert pathlib.Path(f"/proc/{pid}/task/{pid}/comm").read_text().strip() == "lumd:wids"


def test_services_before_a_rejected_url_still_run(programs, folder, config, service):
    path = config(f"roam_service_url=ws://127.0.0.1:{service.port}/agent",
                  "orvanta_service_url=wss://127.0.0.1:1/agent")
    with subprocess.Popen([programs.binary("lumd"), "-f", path], cwd=folder,
                          stdin=subprocess.DEVNULL) as lumd:
        try:
            assert service.accept().subprotocol == "websock-roaming"
        finally:
            lumd.send_signal(signal.SIGTERM)
    assert lumd.returncode == 0


def test_what_is_wrong_with_the_file_is_told_once_on_standard_error_and_in_the_log(make_agent):
    lines = ["loglevel=3", "log_level 3", "mac-list-service-url=wss://host:1/x"]
    agent = make_agent(1, log_level=None, settings=["log_level=2", *lines])
    agent.wait_log("No link to")  # behind what was read at the start
    agent.stop()
    first = agent.config.read_text().splitlines().index(lines[0]) + 1
    told = [f"{agent.config}:{first}: unknown key 'loglevel': ignored",
            f"{agent.config}:{first + 1}: has no '=': ignored",
            f"{agent.config}:{first + 2}: scheme 'wss' is not usable: lumd reads the file no further"]
    assert [f"lumd: {line}" for line in told] == agent.output_path.read_text().splitlines()
    assert re.findall(r"warning: (\S+lumd.conf.*)", agent.log()) == told


# The delays before a connection


def test_the_initial_delay_grows_to_the_maximum(make_agent):
    agent = make_agent(1, speed=20, settings=["initial_connection_delay=2",
                                               "max_connection_delay=7"])
    agent.wait_log("Generate delay into", 3)
    ranges = re.findall(r"Generate delay into (\S+) range", agent.log())
    assert ranges[:3] == ["[1;3)", "[2;6)", "[3;10)"]


# Logging


def test_without_a_log_level_nothing_is_logged(broker, make_agent, service):
    agent = make_agent(service.port, log_level=0)
    service.accept()
    assert agent.log() == ""


def test_a_file_without_a_log_level_ends_the_logging_that_began_with_it(broker, make_agent,
                                                                       service):
    agent = make_agent(service.port, log_level=None)
    service.accept()
    assert agent.log() == ""


def test_log_lines_bear_the_daemons_name(make_agent, service):
    agent = make_agent(service.port, log_level="0x0F")
    service.accept()
    agent.wait_log("Try to establish connect with server")
    assert f" LUMD[{agent.process.pid}] debug: " in agent.log()


# The lock checker


@pytest.mark.threads
@pytest.mark.parametrize("value", ["1", "0", ""])
def test_the_lock_checker_runs_when_its_variable_exists(make_agent, service, monkeypatch, value):
    without = make_agent(service.port)
    service.accept()
    monkeypatch.setenv("VEXOR_LOCKDEP_DEBUG", value)
    agent = make_agent(service.port)
    service.accept()
    assert len(thread_names(agent.process.pid)) == len(thread_names(without.process.pid)) + 1
    agent.expect_clean_end()
    assert "Unbalanced unlock" not in agent.log()
    assert "Deadlock on lock" not in agent.log()


@pytest.fixture
def stuck_agent(programs, folder):
    """lumd in portal mode, whose link takes its lock and never releases it."""
    agent = Agent(programs, folder, folder / "bus", 1, environment={
        **programs.fast_clock(60, "libstuckcall.so"), "VEXOR_LOCKDEP_DEBUG": "1"}).start()
    yield agent
    if agent.alive():
        agent.end(signal.SIGKILL)


def function_names(program, frames):
    """Of those frames that are the program's own."""
    offsets = re.findall(rf"{program}\(\+(0x[0-9a-f]+)\)", "\n".join(frames))
    found = subprocess.run(["addr2line", "-C", "-f", "-e", program, *offsets], check=True,
                           capture_output=True, text=True)
    return found.stdout.splitlines()[::2]


LOCK = r"0x[0-9a-f]+(: |\()'ctx_mutex' by lumd:websock-ro"


def test_a_lock_held_for_two_minutes_ends_the_process_with_its_holder_in_the_log(stuck_agent,
                                                                                programs):
    assert stuck_agent.process.wait(PATIENCE) == -signal.SIGABRT
    log = stuck_agent.log()
    finding, head, lock, trace, *frames = log[log.index("Deadlock"):].splitlines()
    assert re.match(rf"Deadlock on lock {LOCK}\)$", finding)
    assert head.endswith("debug: Dump all locked mutexes:")
    assert re.search(rf"debug: \t{LOCK}$", lock)
    assert trace.endswith("debug: \t\tBacktrace:")
    names = function_names(programs.binary("lumd"), frames)
    assert "websock_worker::_connect()" in names and "main" in names


@pytest.mark.threads
def test_the_lock_checker_finds_nothing_in_a_busy_agent(broker, portal, service, make_agent,
                                                        monkeypatch):
    monkeypatch.setenv("VEXOR_LOCKDEP_DEBUG", "1")
    agent = make_agent(service.port)
    link = service.accept()
    texts = [f'{{"number":{i}}}' for i in range(200)]
    link.send_all(texts)
    wait_until(lambda: agent.log().count("Recieve final msg") >= len(texts), "all messages")
    link.close()
    service.accept()
    agent.expect_clean_end()
