"""Runs the benchmarks and prints their figures, each beside what it is measured against."""
import argparse
import contextlib
import json
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile
import time
from statistics import median

from labshow.handle import running_lab

TREE = pathlib.Path(__file__).resolve().parent.parent
BIN = pathlib.Path(os.environ["LUMD_BIN_DIR"])

# Benchmark, what it is compared with.
PAIRS = [
    ("lock_wrapper", "lock_plain"), ("lock_wrapper_recursive", "lock_plain_recursive"),
    ("queue_1_producer", None), ("queue_4_producers", None),
    ("thread_there_and_back", None),
    ("timers/7", None), ("timers/1000", None),
    ("subscribe_request", "subscribe_request_json_c"),
    ("fbt_info_5_MiB", "fbt_info_5_MiB_json_c"),
    ("scan_4680_entries", "scan_4680_entries_json_c"),
    ("overload_512_clients", None),
]
WAYS = ("up", "down", "both_up", "both_down")
FIGURES = [f"{way}_{size}" for size in ("1K", "64K") for way in WAYS]
DELAYS = [f"{way}_{part}" for way in ("up", "down") for part in ("p50", "p99")]
IDLE_SECONDS = 20.0
ROUNDS = 5
SERVICE_ALLOWS = {"use-tpc": 1, "use-dca": 1, "use-80211v": 1, "use-80211r": 0}
POWERS = range(10, 14)
LARGEST = 5 * 1024 * 1024


def line(name, value, *ratios):
    print(f"{name:34} {value:>14} " + "  ".join(f"{ratio:>12}" for ratio in ratios), flush=True)


def ratio(value, other):
    return f"{value / other:.2f}" if value and other else "-"


# ---- micro

def run_micro():
    """Medians of interleaved repetitions; CPU time, but real time where threads contend."""
    output = subprocess.run([BIN / "bench_micro", "--benchmark_format=json",
                             "--benchmark_repetitions=5", "--benchmark_min_time=0.1",
                             "--benchmark_enable_random_interleaving=true",
                             "--benchmark_report_aggregates_only=true"],
                            check=True, stdout=subprocess.PIPE).stdout
    times = {}
    for entry in json.loads(output)["benchmarks"]:
        name, *options = entry["run_name"].split("/")
        if options and options[0].isdigit():
            name += "/" + options[0]
        if entry["aggregate_name"] == "median":
            times[name] = entry["real_time" if "real_time" in options else "cpu_time"]
    print("\nMicro: nanoseconds a run, and how many times its reference's")
    for name, reference in PAIRS:
        line(name, f"{times[name]:.1f}", ratio(times[name], times.get(reference)))


# ---- relays

@contextlib.contextmanager
def program(*command, **options):
    process = subprocess.Popen([str(part) for part in command], **options)
    try:
        yield process
    finally:
        process.terminate()
        process.wait()


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(condition, what):
    deadline = time.monotonic() + 10
    while not condition():
        if time.monotonic() > deadline:
            sys.exit(f"bench: {what} does not come")
        time.sleep(0.02)


def relay(*arguments):
    return program(BIN / "bench_relay", *arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                   text=True)


def figures(process):
    values = {name: float(value) for name, value in map(str.split, process.stdout)}
    if process.wait() != 0:
        sys.exit("bench: the load has failed")
    return values


def port_of(process):
    return int(process.stdout.readline().split()[1])


@contextlib.contextmanager
def lumd_beside(load, folder, bus):
    config = folder / "lumd.conf"
    config.write_text(f"roam_service_url=ws://127.0.0.1:{port_of(load)}/bench\n"
                      "initial_connection_delay=1\nmax_connection_delay=1\nlog_level=1\n")
    with program(BIN / "lumd", "-f", config,
                 env={**os.environ, "MSGBUS_SOCKET": str(bus)}) as lumd:
        yield lumd.pid


@contextlib.contextmanager
def lumd_relay(folder, *options):
    """The load on lumd between a bus and a websocket, and the processes that carry it."""
    bus = folder / "bus"
    with program(BIN / "msgbusd", "-s", bus) as broker:
        wait_for(bus.exists, "the message bus")
        with relay("lumd", bus, *options) as load, lumd_beside(load, folder, bus) as lumd:
            yield load, [lumd, broker.pid]


@contextlib.contextmanager
def direct_relay(folder, *options):
    """The same without a broker: the load is lumd's neighbour on the bus."""
    bus = folder / "direct"
    with relay("direct", bus, *options) as load, lumd_beside(load, folder, bus) as lumd:
        yield load, [lumd]
    bus.unlink()


@contextlib.contextmanager
def mosquitto_relay(folder, *options):
    plain, websocket = free_port(), free_port()
    config = folder / "mosquitto.conf"
    config.write_text("allow_anonymous true\nset_tcp_nodelay true\nmax_queued_messages 0\n"
                      f"user {os.environ.get('USER', 'root')}\nlog_type none\n"
                      f"listener {plain} 127.0.0.1\n"
                      f"listener {websocket} 127.0.0.1\nprotocol websockets\n")
    command = shutil.which("mosquitto") or "/usr/sbin/mosquitto"
    with program(command, "-c", config, stderr=subprocess.DEVNULL) as broker:
        def listens(port):
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", port)) == 0
        wait_for(lambda: listens(plain) and listens(websocket), "mosquitto")
        with relay("mqtt", plain, websocket, *options) as load:
            yield load, [broker.pid]


RELAYS = {"lumd": lumd_relay, "mosquitto": mosquitto_relay}


def measure_relay(running, folder):
    with running(folder) as (load, _):
        return figures(load)


def measure_bare():
    with relay("bare") as load, program(BIN / "bench_bare_client", port_of(load)):
        return figures(load)


def print_relays(title, names, rounds):
    """Medians of the rounds: each ratio is one within its round."""
    print(f"\n{title}")
    line("", "lumd", "bare client", "mosquitto", "bare/mosq.")
    for name in names:
        def times(other, one="lumd"):
            return median([run[one][name] / run[other][name] for run in rounds])
        line(name, f"{median([one['lumd'][name] for one in rounds]):.0f}",
             f"{times('bare'):.2f}", f"{times('mosquitto'):.2f}",
             f"{times('mosquitto', 'bare'):.2f}")


def run_system(count):
    rounds = []
    with tempfile.TemporaryDirectory(prefix="lumd-bench-") as folder:
        for _ in range(count):
            rounds.append({**{name: measure_relay(running, pathlib.Path(folder))
                              for name, running in RELAYS.items()},
                           "bare": measure_bare()})
    print_relays(f"Portal: messages a second (up: bus to service), median of {count} rounds, and "
                 "how many times as many as", FIGURES, rounds)
    print_relays("Portal: microseconds at 1000 messages a second each way, and how many times "
                 "those of", DELAYS, rounds)


def run_direct(count):
    """What a bus without a broker would bring, beside the way there is."""
    relays = {"lumd": lumd_relay, "direct": direct_relay, "mosquitto": mosquitto_relay}
    with tempfile.TemporaryDirectory(prefix="lumd-bench-") as folder:
        rounds = [{name: measure_relay(running, pathlib.Path(folder))
                   for name, running in relays.items()} for _ in range(count)]
    print(f"\nPortal with no broker between: median of {count} rounds, and how many times")
    line("", "no broker", "lumd", "mosquitto", "lumd/mosq.")
    for name in FIGURES + DELAYS:
        def times(one, other):
            return f"{median([run[one][name] / run[other][name] for run in rounds]):.2f}"
        line(name, f"{median([one['direct'][name] for one in rounds]):.0f}",
             times("direct", "lumd"), times("direct", "mosquitto"), times("lumd", "mosquitto"))


# ---- what a message costs each thread on its way

def tasks(pid):
    """Name, milliseconds of CPU time and wake-ups of each thread."""
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        status = dict(entry.split(":\t", 1) for entry in
                      (task / "status").read_text().splitlines() if ":\t" in entry)
        yield (status["Name"], int((task / "schedstat").read_text().split()[0]) / 1e6,
               int(status["voluntary_ctxt_switches"]))


def spent(pids):
    return {(pid, name): (cpu, wakes) for pid in pids for name, cpu, wakes in tasks(pid)}


def costs(load, pids):
    """Of each load: microseconds and wake-ups a message of each thread and of the two ends."""
    result = {}
    before = {}
    for entry in load.stdout:
        event, name, *values = entry.split()
        if event == "begin":
            before = spent(pids)
        else:
            messages, nanoseconds, wakes = map(int, values)
            result[name] = {thread: ((cpu - before[pid, thread][0]) * 1e3 / messages,
                                     (count - before[pid, thread][1]) / messages)
                            for (pid, thread), (cpu, count) in spent(pids).items()}
            result[name]["the two ends"] = nanoseconds / 1e3 / messages, wakes / messages
        load.stdin.write("\n")
        load.stdin.flush()
    if load.wait() != 0:
        sys.exit("bench: the load has failed")
    return result


def run_threads(count):
    rounds = {name: [] for name in RELAYS}
    with tempfile.TemporaryDirectory(prefix="lumd-bench-") as folder:
        for _ in range(count):
            for name, running in RELAYS.items():
                with running(pathlib.Path(folder), "threads") as (load, pids):
                    rounds[name].append(costs(load, pids))
    print("\nPortal: microseconds of CPU time and wake-ups a message (up: bus to service), median "
          f"of {count} rounds")
    for way in rounds["lumd"][0]:
        for name, measured in rounds.items():
            for thread in measured[0][way]:
                line(f"{way} {name}: {thread}",
                     *(f"{median([one[way][thread][i] for one in measured]):.2f}" for i in (0, 1)))


# ---- from one event to the next, in the office scenario in real time

def milliseconds_to(lab, first, what):
    return (lab.wait(what, first["n"])["t"] - first["t"]) * 1000


def change_power(lab, power):
    since = lab.mark()
    lab.send({"cmd": "rrm-info", **SERVICE_ALLOWS, "radios": [{"id": 0, "power": power}]})
    told = milliseconds_to(lab, lab.wait("rrm-info", since), "update-orvanta")
    lab.wait("update-orvanta-response", since)
    return told


def run_events(count):
    link_up, told = [], []
    for _ in range(count):
        with running_lab("office", mode="rrm", config=["log_level=1"]) as lab:
            link_up.append(milliseconds_to(lab, lab.wait("connected"), "subscribe-request"))
            lab.wait_subscribed()
            for power in POWERS:
                lab.settle()  # what follows a change takes longer than the change
                told.append(change_power(lab, power))
    print(f"\nMilliseconds, median and longest of {len(link_up)} and {len(told)}")
    line("link up to subscribe request", f"{median(link_up):.1f}", f"{max(link_up):.1f}")
    line("rrm-info to the frame at hubd", f"{median(told):.1f}", f"{max(told):.1f}")


# ---- idle

def totals(pid):
    return [sum(column) for column in list(zip(*tasks(pid)))[1:]]


def smaps(pid):
    """KiB of each kind."""
    values = {}
    for entry in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines()[1:]:
        name, value = entry.split(":")
        values[name] = int(value.split()[0])
    return values


def memory(pid):
    """Resident and private KiB."""
    values = smaps(pid)
    return values["Rss"], values["Private_Clean"] + values["Private_Dirty"]


def send_largest(lab, mode):
    vap = {"ap-mac": "00:00:00:00:00:00", "pad": "x" * 1000}
    count = LARGEST // len(json.dumps(vap))
    lab.send({"cmd": "fbt-info" if mode == "rrm" else "unknown", "vaps": [vap] * count})


def cost(pid, seconds):
    """Milliseconds of CPU time a minute and wake-ups a second."""
    before = totals(pid)
    time.sleep(seconds)
    cpu, wakes = [after - first for after, first in zip(totals(pid), before)]
    return cpu * 60 / seconds, wakes / seconds


def run_idle(seconds):
    print(f"\nIdle over {seconds:g} s: ms of CPU time a minute, how many times that of as many "
          "threads that only wait,\nwake-ups a second, KiB resident and private, private after a "
          "message of 5 MiB")
    for mode, workers in (("rrm", 3), ("portal", 2), ("wids", 2)):
        with running_lab("office", mode=mode, config=["log_level=1"]) as lab, \
                program(BIN / "bench_waits", workers) as waits:
            lab.wait_subscribed() if mode == "rrm" else lab.wait("connected")
            lab.settle()
            pid = lab.lab.lumd.pid
            cpu, wakes = cost(pid, seconds)
            least, _ = cost(waits.pid, seconds)
            resident, private = memory(pid)
            send_largest(lab, mode)
            time.sleep(3)
            line(mode, f"{cpu:.1f}", ratio(cpu, least), f"{wakes:.1f}", resident, private,
                 memory(pid)[1])


def main():
    parser = argparse.ArgumentParser(prog="bench/run")
    parser.add_argument("parts", nargs="*", choices=[*PARTS, []])
    parser.add_argument("--quick", action="store_true", help="fewer rounds, a shorter idle sample")
    options = parser.parse_args()
    for part in options.parts or PARTS:
        PARTS[part](options.quick)


PARTS = {
    "micro": lambda quick: run_micro(),
    "system": lambda quick: run_system(1 if quick else ROUNDS),
    "direct": lambda quick: run_direct(1 if quick else ROUNDS),
    "threads": lambda quick: run_threads(1 if quick else ROUNDS),
    "events": lambda quick: run_events(1 if quick else ROUNDS),
    "idle": lambda quick: run_idle(5.0 if quick else IDLE_SECONDS),
}

if __name__ == "__main__":
    main()
