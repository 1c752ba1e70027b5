#!/usr/bin/python3
"""What an operator meets with the packages on a machine with its own systemd. See scripts/install.

    checks.py --list         names every check
    checks.py --files ROOT   names every file of a root, but those that a system changes by itself
    checks.py                carries the checks out, in that machine: a line for each
"""
import asyncio
import grp
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import time
import traceback

import confined
from installed_lab import WAIT, InstalledLab, Unit
from labshow.messages import same_network
from labshow.rrm_console import RrmConsole
from labshow.show import Show
from labtalk.waiting import until
from tls import WRONG, Tls

TREE = pathlib.Path(__file__).resolve().parents[2]
FILES_BEFORE = TREE / "files-before"
UNITS = ("lumd.service", "msgbusd.service")
PROGRAMS = {"/usr/sbin/lumd", "/usr/sbin/msgbusd"}
PACKAGES = ("lumd", "msgbus", "libmsgbus1")
EXPOSURE = {"lumd.service": 3.0, "msgbusd.service": 2.0}  # at most
CHANGING = frozenset({
    "/dev", "/lost+found", "/proc", "/run", "/sys", "/tmp", str(TREE), "/var/cache", "/var/lib/apt",
    "/var/lib/dpkg", "/var/lib/systemd/random-seed", "/var/log/apt", "/var/log/dpkg.log",
    "/var/log/journal", "/var/log/wtmp", "/var/tmp"})
HIGHEST_24G = 14  # channel; the radio that hostapd serves is above
CHECKS = {}


class Failure(Exception):
    """What a check has found instead."""


def check(name):
    def remember(function):
        CHECKS[name] = function
        return function
    return remember


def demand(condition, text):
    if not condition:
        raise Failure(text)


async def run(*command, status=0):
    """The output of a command, which must end with that status."""
    child = await asyncio.create_subprocess_exec(
        *command, stdin=asyncio.subprocess.DEVNULL, stdout=asyncio.subprocess.PIPE,
        stderr=asyncio.subprocess.STDOUT, env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"})
    output = (await child.communicate())[0].decode(errors="replace")
    demand(child.returncode == status,
           f"{' '.join(command)}: status {child.returncode}\n{output}")
    return output


def files_of(root):
    """Every path of a root but what changes by itself."""
    found = []
    for folder, folders, files in os.walk(root):
        inside = "/" + os.path.relpath(folder, root) if folder != str(root) else ""
        folders[:] = [name for name in folders if f"{inside}/{name}" not in CHANGING]
        found += [f"{inside}/{name}" for name in folders + files
                  if f"{inside}/{name}" not in CHANGING]
    return found


@check("subscribed after boot")
async def after_boot(lab):
    await lab.wait_subscribed()
    await lab.settle()
    for unit in UNITS:
        demand(Unit(unit).running, f"{unit} does not run")


@check("units are confined as systemd-analyze measures it")
async def exposure(_lab):
    for unit, most in EXPOSURE.items():
        output = await run("systemd-analyze", "security", "--no-pager", unit)
        level = float(re.search(r"Overall exposure level for \S+: ([0-9.]+)", output)[1])
        print(f"  {unit}: exposure {level}, at most {most}", flush=True)
        demand(level <= most, output)


@check("what lumd needs of a kernel is allowed to it, and nothing else")
async def confinement(_lab):
    for is_confined, expected in ((False, confined.BARE), (True, confined.CONFINED)):
        found = await confined.look(is_confined, run)
        wrong = [name for name in expected if found.get(name) != expected[name]]
        demand(not wrong, f"{'confined' if is_confined else 'bare'}: not as expected: {wrong}")


@check("over TLS a wrong certificate ends in a line that says so")
async def wrong_certificates(lab):
    since = lab.mark()
    async with Tls(run) as tls:
        for certificate in WRONG:
            demand(await tls.refused(certificate), f"nothing is said of {certificate}")
        demand(not lab.journal.since(since, what="connected"), "lumd is connected all the same")


class Conversation(RrmConsole):
    """Something of everything that goes over the link."""

    def script(self):
        return ["channel wlan0 1 20", "scan 1 36", "client add wlan0-va0 02:1a:2b:00:00:77 -88",
                "steer wlan0 1", "status"]


@check("a conversation over TLS")
async def conversation(lab):
    since = lab.mark()
    async with Tls(run) as tls:
        await tls.serve("service")
        await lab.wait_again("subscribe-request", since)
        await Conversation(lab, Show(machine=True)).conversation()
        demand(not lab.checker.found, f"not as the schemas want it: {lab.checker.found[:1]}")
        since = lab.mark()
    await lab.wait_again("subscribe-request", since)


@check("neighbours reach a real hostapd through its wpa_cli")
async def neighbours(lab):
    lab.real_wpa_cli()
    known = same_network(lab.ap.air)[1:]
    await lab.service.send({"cmd": "rrm-info", "use-tpc": 1, "use-dca": 1, "use-80211v": 1,
                            "use-80211r": 0, "802dot11k": known})

    async def listed():
        table = await run("wpa_cli", "-g", "/run/hostapd/global", "raw", "IFNAME=wlan1-va0",
                          "SHOW_NEIGHBOR")
        return all(entry["neighbour-mac"] in table for entry in known
                   if entry["channel"] > HIGHEST_24G)
    demand(await until(listed, WAIT), "hostapd does not know the neighbours")


@check("subscribed after a restart of lumd")
async def restart(lab):
    since = lab.mark()
    await run("systemctl", "restart", "lumd")
    await lab.wait_again("subscribe-request", since)


@check("subscribed after lumd was killed")
async def killed(lab):
    since, before = lab.mark(), lab.lumd.pid
    os.kill(before, signal.SIGKILL)
    await lab.wait_again("subscribe-request", since)
    demand(lab.lumd.pid not in (0, before), "it was not started again")


@check("subscribed after a restart of hostapd")
async def hostapd(lab):
    since = lab.mark()
    await run("systemctl", "stop", "hostapd")
    await lab.wait("rrm-disassoc-all-clients", since)
    since = lab.mark()
    await run("systemctl", "start", "hostapd")
    await lab.wait_again("rrm-config-changed", since)
    since = lab.mark()
    await run("systemctl", "restart", "hostapd")
    await lab.wait_again("rrm-config-changed", since)


@check("subscribed after the message bus was killed")
async def bus(lab):
    since = lab.mark()
    await run("systemctl", "kill", "-s", "KILL", "msgbusd")
    await lab.wait("started", since, **{"from": "vaultd"})
    since = lab.mark()
    await lab.service.send({"cmd": "rrm-request-mode"})
    await lab.wait_again("rrm-mode-response", since)


@check("subscribed after an upgrade, with the configuration as it was")
async def upgrade(lab):
    since, before = lab.mark(), lab.lumd.pid
    configuration = pathlib.Path("/etc/lumd/lumd.conf").read_bytes()
    packages = sorted(map(str, (TREE / "upgrade").iterdir()))
    await run("dpkg", "--install", *packages)
    await lab.wait_again("subscribe-request", since)
    demand(lab.lumd.pid != before, "lumd was not restarted")
    for package in PACKAGES:
        version = await run("dpkg-query", "-W", "-f", "${Version}", package)
        demand(version.endswith("+upgrade"), f"{package} is {version}")
    demand(pathlib.Path("/etc/lumd/lumd.conf").read_bytes() == configuration, "not as it was")


@check("removed: nothing runs, the configuration stays, hostapd lives on")
async def remove(lab):
    demand(PROGRAMS.issubset(running_programs()), "not both programs run before")
    since = lab.mark()
    await run("dpkg", "--remove", *PACKAGES)
    await lab.wait("disconnected", since)
    left = sorted(PROGRAMS.intersection(running_programs()))
    demand(not left, f"{left} still run")
    demand(pathlib.Path("/etc/lumd/lumd.conf").exists(), "the configuration has gone")
    demand(Unit("hostapd.service").running, "hostapd does not run")
    await run("systemctl", "restart", "hostapd")
    demand(not announced(), f"hostapd's start still leaves {announced()}")


@check("purged without a trace")
async def purge(lab):
    await run("dpkg", "--purge", "lumd", "msgbus")  # the library has left nothing to purge
    lab.clear_away()
    before = set(FILES_BEFORE.read_text(encoding="utf-8").splitlines())
    left = sorted(set(files_of("/")) - before)
    demand(not left, "left over: " + " ".join(left))
    left = announced() + [name for name in os.listdir("/run") if "msgbus" in name]
    demand(not left, f"left over: {left}")
    demand("lumd" not in {entry.gr_name for entry in grp.getgrall()}, "the group is still there")
    units = await run("systemctl", "list-units", "--all", "--plain", "--no-legend", *UNITS)
    left = [line for line in units.splitlines() if "not-found" not in line]  # only named by others
    demand(not left, f"systemd still knows {left}")


def running_programs():
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            yield os.readlink(process / "exe").removesuffix(" (deleted)")
        except OSError:
            pass  # it has just ended, or is the kernel's


def announced():
    return [name for name in os.listdir("/tmp") if name.startswith(".orvanta")]


def tell_systemd(text):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notify:
        notify.connect(os.environ["NOTIFY_SOCKET"])
        notify.send(text.encode())


async def carry_out():
    lab = InstalledLab()
    await lab.start()
    tell_systemd("READY=1")
    for name, function in CHECKS.items():
        started = time.monotonic()
        try:
            await function(lab)
        except Exception as error:  # whatever it is, it is this check's
            if not isinstance(error, Failure):
                traceback.print_exc()
            print(f"FAILED {name}: {error}", *last_words(), sep="\n", flush=True)
        else:
            print(f"ok {name} ({time.monotonic() - started:.0f} s)", flush=True)


def last_words():
    """The end of the system's log."""
    return subprocess.run(["journalctl", "-b", "-n", "60", "--no-pager", "-o", "short"],
                          capture_output=True, text=True, check=False).stdout.splitlines()


def main():
    if sys.argv[1:] == ["--list"]:
        print(*CHECKS, sep="\n")
    elif sys.argv[1:2] == ["--files"]:
        print(*files_of(sys.argv[2]), sep="\n")
    else:
        asyncio.run(carry_out())


if __name__ == "__main__":
    main()
