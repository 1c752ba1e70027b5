"""Neighbour lists at a real hostapd, through the real wpa_cli.

hostapd needs no radio here: its driver is "none", and one BSS is named like a VAP of the access
point. The agent's commands name hostapd's global socket by its place on the access point, so a
wpa_cli in front of the real one replaces that argument, and nothing else.

The stock hostapd knows no REMOVE_ALL_NEIGHBOR, which the access point's own one does: it answers
"UNKNOWN COMMAND", wpa_cli ends with status 0 all the same, and its list stays as it was.
"""
import os
import shutil
import subprocess

import pytest

from lumdtest.lab import CONFIG, radios, scenario
from lumdtest.programs import ROOT
from lumdtest.waiting import wait_until

WPA_CLI, HOSTAPD = shutil.which("wpa_cli"), shutil.which("hostapd")
VAP = "wlan1-va0"  # of a radio whose family reports neighbours through hostapd
NEIGHBOURS = [("00:11:22:33:50:51", 36, "af590000ff2409"), ("00:11:22:33:50:52", 149,
                                                            "af590000ff9509")]
IN_FRONT = """#!/bin/sh
# -g SOCKET ...
unset LD_PRELOAD
echo "$*" >>{folder}/commands
shift 2
exec {wpa_cli} -g {folder}/global "$@" >>{folder}/answers 2>&1
"""

pytestmark = pytest.mark.skipif(not WPA_CLI or not HOSTAPD, reason="hostapd is not installed")


class Hostapd:
    def __init__(self, folder):
        self.folder = folder
        settings = {"interface": VAP, "driver": "none", "ctrl_interface": folder / "control",
                    "ssid": "lab", "hw_mode": "g", "channel": 6, "rrm_neighbor_report": 1}
        (folder / "bss.conf").write_text("".join(f"{key}={value}\n"
                                                 for key, value in settings.items()))
        tools = folder / "tools"
        tools.mkdir()
        (tools / "wpa_cli").write_text(IN_FRONT.format(folder=folder, wpa_cli=WPA_CLI))
        (tools / "wpa_cli").chmod(0o755)
        self.path = f"{tools}:{ROOT / 'lab' / 'bin'}:{os.environ['PATH']}"
        with open(folder / "output", "wb") as output:
            self.process = subprocess.Popen(
                [HOSTAPD, "-g", folder / "global", folder / "bss.conf"], stdout=output,
                stderr=output, stdin=subprocess.DEVNULL)
        wait_until(lambda: "PONG" in self.ask("PING"), "hostapd answers")

    def ask(self, *command):
        assert self.process.poll() is None, (self.folder / "output").read_text()
        return subprocess.run([WPA_CLI, "-g", self.folder / "global", "raw", f"IFNAME={VAP}",
                               *command], capture_output=True, text=True, timeout=10).stdout

    def neighbours(self):
        return dict(line.split(" ", 1) for line in self.ask("SHOW_NEIGHBOR").splitlines()
                    if line.count(":") >= 5)

    def read(self, name):
        path = self.folder / name
        return path.read_text().splitlines() if path.exists() else []

    def stop(self):
        self.process.terminate()
        self.process.wait(10)


@pytest.fixture
def hostapd(folder):
    daemon = Hostapd(folder)
    yield daemon
    daemon.stop()


def record(mac, channel, ssid="lab"):
    return {"neighbour-mac": mac, "channel": channel, "priority": 3,
            "vaps": [{"ssid": ssid, "mac": mac}]}


def own_subelement(channel):
    return f"060302{channel:02x}00"


def test_hostapd_takes_and_lists_the_neighbours_that_the_service_sends(start_lab, hostapd):
    lab = start_lab(environment={"PATH": hostapd.path}, speed=1)
    before = hostapd.neighbours()  # its own entry
    lab.send({"cmd": "rrm-info", **CONFIG,
              "802dot11k": [record(mac, channel) for mac, channel, _ in NEIGHBOURS]})
    radios(lab)
    wait_until(lambda: len(hostapd.neighbours()) == len(before) + len(NEIGHBOURS),
               "all neighbours at hostapd")
    listed = hostapd.neighbours()
    for mac, channel, element in NEIGHBOURS:
        assert listed[mac] == \
            f"ssid={b'lab'.hex()} nr={mac.replace(':', '')}{element}{own_subelement(channel)}"
    assert [line for line in hostapd.read("commands") if "SET_NEIGHBOR" in line] == [
        f"-g /var/run/hostapd/global raw IFNAME={VAP} SET_NEIGHBOR {mac} ssid=6c6162 "
        f"nr={mac.replace(':', '')}{element}{own_subelement(channel)}"
        for mac, channel, element in NEIGHBOURS]
    assert hostapd.read("answers").count("OK") == len(NEIGHBOURS)


def test_every_list_replaces_the_one_before_at_the_driver_but_not_at_the_stock_hostapd(
        start_lab, hostapd):
    lab = start_lab(environment={"PATH": hostapd.path}, speed=1)
    (first, channel, _), (second, other_channel, _) = NEIGHBOURS
    lab.send({"cmd": "rrm-info", **CONFIG, "802dot11k": [record(first, channel)]})
    lab.send({"cmd": "rrm-info", **CONFIG, "802dot11k": [record(second, other_channel)]})
    radios(lab)  # all of it has been done
    wait_until(lambda: second in hostapd.neighbours(), "the second neighbour at hostapd")
    lines = {entry["list"]: entry["lines"] for entry in lab.ap("reports")
             if entry["ifname"] == VAP}
    assert [line.split()[1] for line in lines["standard"]] == [second]
    assert hostapd.read("commands").count(
        f"-g /var/run/hostapd/global raw IFNAME={VAP} REMOVE_ALL_NEIGHBOR") == 2
    assert hostapd.read("answers").count("UNKNOWN COMMAND") == 2
    assert first in hostapd.neighbours()
    assert "OK" in hostapd.ask("REMOVE_NEIGHBOR", first)
    assert first not in hostapd.neighbours()


def test_an_ssid_with_every_kind_of_byte_arrives_as_it_is(start_lab, hostapd):
    ssid = "a b;`'\"$(x)\\é"
    given = scenario()
    given["radios"][1]["vaps"][0]["ssid"] = ssid
    lab = start_lab(given, environment={"PATH": hostapd.path}, speed=1)
    mac, channel, _ = NEIGHBOURS[0]
    lab.send({"cmd": "rrm-info", **CONFIG, "802dot11k": [record(mac, channel, ssid)]})
    wait_until(lambda: mac in hostapd.neighbours(), "the neighbour at hostapd")
    assert hostapd.neighbours()[mac].startswith(f"ssid={ssid.encode().hex()} ")
