#!/usr/bin/python3
"""Access points out of the image, in front of a service. See scripts/oci.

    checks.py BUNDLE                the checks: a line for each, and their count
    checks.py BUNDLE N SECONDS      what N pods cost, measured for so long
"""
import asyncio
import os
import pathlib
import re
import sys
import time

from labservice.server import Service
from pods import Pod

WAIT = 60.0  # seconds
NUMBERS = (0, 300)
START = 10.0  # seconds until a pod is at rest
CHECKS = []
KIB_PER_MIB = 1024


def check(function):
    CHECKS.append(function)
    return function


class Cluster:
    """A service and the pods in front of it."""

    def __init__(self, bundle, numbers):
        self.service = Service()
        self.bundle, self.numbers, self.pods = bundle, numbers, []

    async def __aenter__(self):
        await self.service.start()
        where = {"LUMD_SERVICE": f"ws://127.0.0.1:{self.service.port}{self.service.path}"}
        for number in self.numbers:
            pod = Pod(self.bundle, number, where)
            await pod.start()
            self.pods.append(pod)
        return self

    async def __aexit__(self, *_error):
        for pod in self.pods:
            await pod.stop()
        await self.service.stop()

    async def subscribed(self, since=0):
        """{serial number: MAC} of as many as there are pods, after event `since`."""
        found = {}
        deadline = time.monotonic() + WAIT
        while len(found) < len(self.pods):
            event = await self.service.journal.wait(since, deadline - time.monotonic(),
                                                    what="subscribe-request")
            assert event is not None, f"only {sorted(found)} within {WAIT:g} s"
            since = event["n"]
            found[event["data"]["factory"]["serial"]] = event["data"]["ap-mac"]
        return found


def program(process):
    """The name of what runs in a process."""
    return (process / "exe").readlink().name


@check
async def each_pod_is_an_access_point_of_its_own(cluster):
    assert await cluster.subscribed() == {"OFC0001234": "00:11:22:33:44:50",
                                          "OFC0001534": "00:11:22:33:69:d0"}
    assert not cluster.service.checker.found


@check
async def a_pod_has_no_rights(cluster):
    for pod in cluster.pods:
        processes = pod.processes()
        names = {program(process) for process in processes}
        assert {"lumd", "msgbusd"} <= names, names
        for process in processes:
            status = (process / "status").read_text()
            told = dict(line.split(":\t", 1) for line in status.splitlines())
            assert set(told["Uid"].split()) == {"65534"}, status
            assert (int(told["CapEff"], 16), int(told["CapBnd"], 16)) == (0, 0), status
            assert told["NoNewPrivs"] == "1", status


@check
async def pods_come_back_to_a_service_that_was_away(cluster):
    since = cluster.service.journal.count
    await cluster.service.silence()
    await asyncio.sleep(1)
    await cluster.service.listen()
    assert len(await cluster.subscribed(since)) == len(cluster.pods)


@check
async def a_pod_that_is_ended_says_so_with_status_0(cluster):
    for pod in cluster.pods:
        status, output = await pod.stop()
        assert status == 0, output


@check
async def what_is_missing_is_said(cluster):
    for environment, number, text in (({"LUMD_SERVICE": ""}, 1, "LUMD_SERVICE="),
                                      ({}, "x", "nor does lumd-fleet-x end in -NUMBER")):
        pod = Pod(cluster.bundle, number, environment)
        await pod.start()
        status, output = await pod.ended()
        assert (status, text in output) == (2, True), output


async def carry_out(bundle):
    begun, failed = time.monotonic(), 0
    async with Cluster(bundle, NUMBERS) as cluster:
        for function in CHECKS:
            name, started = function.__name__.replace("_", " "), time.monotonic()
            try:
                await function(cluster)
            except Exception as error:  # whatever it is, it is this check's
                failed += 1
                print(f"FAILED {name}: {error}", *(pod.output for pod in cluster.pods), sep="\n",
                      flush=True)
            else:
                print(f"ok {name} ({time.monotonic() - started:.1f} s)", flush=True)
    print(f"{len(CHECKS) - failed} passed, {failed} failed in {time.monotonic() - begun:.2f}s")
    return 1 if failed else 0


def cost(pod):
    """{process name: (PSS in KiB, private KiB, CPU seconds)}; programs of one name added up."""
    costs = {}
    for process in pod.processes():
        name = program(process)
        rollup = dict(re.findall(r"^(\w+): +(\d+) kB", (process / "smaps_rollup").read_text(),
                                 re.MULTILINE))
        times = (process / "stat").read_text().rpartition(")")[2].split()
        seconds = (int(times[11]) + int(times[12])) / os.sysconf("SC_CLK_TCK")  # proc(5): utime, stime
        private = int(rollup["Private_Clean"]) + int(rollup["Private_Dirty"])
        before = costs.get(name, (0, 0, 0))
        costs[name] = tuple(map(sum, zip(before, (int(rollup["Pss"]), private, seconds))))
    return costs


async def measure(bundle, count, seconds):
    async with Cluster(bundle, range(count)) as cluster:
        begun = time.monotonic()
        await cluster.subscribed()
        print(f"{count} pods subscribed after {time.monotonic() - begun:.1f} s")
        await asyncio.sleep(START)
        before = [cost(pod) for pod in cluster.pods]
        started = sum(seconds for pod in before for _, _, seconds in pod.values()) / count
        print(f"CPU seconds of a start: {started:.2f}")
        await asyncio.sleep(seconds)
        after = [cost(pod) for pod in cluster.pods]
    print("| process | PSS MiB | private MiB | CPU ms a minute |\n|---|---|---|---|")
    for name in after[0]:
        pss, private = (sum(pod[name][part] for pod in after) / count / KIB_PER_MIB
                        for part in (0, 1))
        cpu = sum(now[name][2] - then[name][2] for then, now in zip(before, after)) / count
        print(f"| `{name}` | {pss:.1f} | {private:.1f} | {cpu * 60000 / seconds:.0f} |")


if __name__ == "__main__":
    folder = pathlib.Path(sys.argv[1]).resolve()
    if sys.argv[2:]:
        asyncio.run(measure(folder, int(sys.argv[2]), float(sys.argv[3])))
    else:
        sys.exit(asyncio.run(carry_out(folder)))
