#!/usr/bin/python3
"""What an operator meets with the packages on a machine with its own systemd. See scripts/install.

    checks.py --list PART... names every check of these parts: packages, access-point
    checks.py --files ROOT   names every file of a root, but those that a system changes by itself
    checks.py                carries the checks out, in that machine: a line for each
"""
import asyncio
import grp
import os
import pathlib
import signal
import socket
import sys
import time
import traceback

import access_point_checks
import confined
from access_point import OpenAccessPoint
from checking import (TREE, Checks, Failure, announced, demand, demand_exposure, demand_no_trace,
                      files_of, last_words, run, running_programs)
from installed_lab import WAIT, InstalledLab, Unit
from labshow.messages import same_network
from labshow.rrm_console import RrmConsole
from labshow.show import Show
from labtalk.waiting import until
from tls import WRONG, Tls

UNITS = ("lumd.service", "msgbusd.service")
PROGRAMS = {"/usr/sbin/lumd", "/usr/sbin/msgbusd"}
PACKAGES = ("lumd", "msgbus", "libmsgbus1")
EXPOSURE = {"lumd.service": 3.0, "msgbusd.service": 2.0}  # at most
REBOOTED = TREE / "rebooted"
BOOT = 0.0  # time.monotonic(), nearly
HIGHEST_24G = 14  # channel; the radio that hostapd serves is above
check = Checks()


@check("subscribed after boot")
async def after_boot(lab):
    await lab.wait_subscribed()
    await lab.settle()
    for unit in UNITS:
        demand(Unit(unit).running, f"{unit} does not run")


@check("units are confined as systemd-analyze measures it")
async def exposure(_lab):
    await demand_exposure(EXPOSURE)


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
    packages = [str(path) for name in PACKAGES for path in (TREE / "upgrade").glob(f"{name}_*")]
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
    await demand_no_trace(UNITS)
    left = announced() + [name for name in os.listdir("/run") if "msgbus" in name]
    demand(not left, f"left over: {left}")
    demand("lumd" not in {entry.gr_name for entry in grp.getgrall()}, "the group is still there")


def tell_systemd(text):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as notify:
        notify.connect(os.environ["NOTIFY_SOCKET"])
        notify.send(text.encode())


async def carry_out(checks, machine, started=None):
    """`started`: of the first one, where that was before now."""
    for name, function in checks.items():
        started = time.monotonic() if started is None else started
        try:
            await function(machine)
        except Exception as error:  # whatever it is, it is this check's
            if not isinstance(error, Failure):
                traceback.print_exc()
            print(f"FAILED {name}: {error}", *last_words(), sep="\n", flush=True)
        else:
            print(f"ok {name} ({time.monotonic() - started:.0f} s)", flush=True)
        started = None


async def check_packages():
    """With the vendor's radios."""
    lab = InstalledLab()
    await lab.start()
    tell_systemd("READY=1")
    await carry_out(check, lab)


async def check_access_point():
    """With the kernel's radios, from the bare machine on, and again after its next boot."""
    tell_systemd("READY=1")
    point = OpenAccessPoint()
    if REBOOTED.exists():
        await carry_out(access_point_checks.check_rebooted, point, started=BOOT)
        return
    await carry_out(access_point_checks.check, point)
    await point.client.stop()
    REBOOTED.touch()
    await run("systemctl", "reboot", "--force")
    await asyncio.sleep(WAIT)  # the machine does not wait for it


PARTS = {
    "packages": (check_packages, (check,)),
    "access-point": (check_access_point,
                     (access_point_checks.check, access_point_checks.check_rebooted))}


def main():
    if sys.argv[1:2] == ["--list"]:
        for part in sys.argv[2:]:
            if part not in PARTS:
                sys.exit(f"checks: {part} is none of {', '.join(PARTS)}")
            for checks in PARTS[part][1]:
                print(*checks, sep="\n")
    elif sys.argv[1:2] == ["--files"]:
        print(*files_of(sys.argv[2]), sep="\n")
    else:
        asyncio.run(PARTS[(TREE / "part").read_text().strip()][0]())


if __name__ == "__main__":
    main()
