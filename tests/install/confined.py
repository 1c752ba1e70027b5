#!/usr/bin/python3
"""What the kernel allows to a program in lumd's place: systemd runs this as lumd's unit runs lumd.

The radio is a simulated one with the standard's wireless ioctls; pktgen's entry below /proc/net,
which only root may write, stands in for those of the access point's radio drivers.
"""
import fcntl
import json
import os
import pathlib
import socket
import stat
import struct
import subprocess

SIOCGIFFLAGS, SIOCSIFFLAGS, SIOCSIWSCAN = 0x8913, 0x8914, 0x8B18
IFF_UP = 1
RADIO = b"wlan0"
NOBODY = 65534
STRANGERS = pathlib.Path("/tmp/.of-a-stranger")
NODE = pathlib.Path("/tmp/.a-device")
ANSWER = pathlib.Path("/tmp/.confined")
INSTALLED = pathlib.Path("/lib/systemd/system/lumd.service")
PROBE = pathlib.Path("/run/systemd/system/probe.service")


def interface_flags(change):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        answer = fcntl.ioctl(control, SIOCGIFFLAGS, struct.pack("16sH14x", RADIO, 0))
        flags = change(struct.unpack("16sH14x", answer)[1])
        fcntl.ioctl(control, SIOCSIFFLAGS, struct.pack("16sH14x", RADIO, flags))


def switch_radio():
    interface_flags(lambda flags: flags & ~IFF_UP)
    interface_flags(lambda flags: flags | IFF_UP)


def scan():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        fcntl.ioctl(control, SIOCSIWSCAN, struct.pack("16s16x", RADIO))


def write(path, text=""):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)


def make_and_remove(path):
    write(path)
    os.unlink(path)


def mount():
    subprocess.run(["mount", "-t", "tmpfs", "none", "/mnt"], check=True, stderr=subprocess.DEVNULL)
    subprocess.run(["umount", "/mnt"], check=True)


def make_node():
    os.mknod(NODE, stat.S_IFCHR | 0o600, os.makedev(1, 3))
    NODE.unlink()


NEEDED = {
    "switch a radio": switch_radio,
    "have a radio scan": scan,
    "write below /proc/net": lambda: write("/proc/net/pktgen/pgctrl", "reset\n"),
    "write a file in /tmp": lambda: make_and_remove("/tmp/.own"),
    "remove another's file in /tmp": STRANGERS.unlink,
    "write a log": lambda: make_and_remove("/var/log/probe.log"),
}
NOT_NEEDED = {
    "write below /etc": lambda: make_and_remove("/etc/probe"),
    "write below /usr": lambda: make_and_remove("/usr/probe"),
    "write below /run": lambda: make_and_remove("/run/probe"),
    "write below /proc/sys": lambda: write("/proc/sys/kernel/domainname", "probe\n"),
    "mount": mount,
    "hear every packet": lambda: socket.socket(socket.AF_PACKET, socket.SOCK_RAW).close(),
    "make a device": make_node,
}
CONFINED = {**dict.fromkeys(NEEDED, True), **dict.fromkeys(NOT_NEEDED, False)}
BARE = {**dict.fromkeys(NEEDED, True), **dict.fromkeys(NOT_NEEDED, True)}


def succeeds(action):
    try:
        action()
    except (OSError, subprocess.CalledProcessError):
        return False
    return True


def unit(confined):
    """lumd's own unit, or one that confines nothing, with this program in lumd's place."""
    lines = INSTALLED.read_text(encoding="utf-8").splitlines() if confined else ["[Service]"]
    lines = [line for line in lines if not line.startswith(("Exec", "Restart", "[Install]",
                                                            "WantedBy"))]
    lines += ["Type=oneshot", f"ExecStart=/usr/bin/python3 {__file__}"]
    return "\n".join(lines) + "\n"


async def look(confined, run):
    """{action: whether it is allowed}; `run`: carries out a command."""
    ANSWER.unlink(missing_ok=True)
    STRANGERS.touch()
    os.chown(STRANGERS, NOBODY, NOBODY)
    PROBE.write_text(unit(confined), encoding="utf-8")
    await run("systemctl", "daemon-reload")
    await run("systemctl", "start", PROBE.name)
    return json.loads(ANSWER.read_text(encoding="utf-8"))


if __name__ == "__main__":
    found = {name: succeeds(action) for name, action in (NEEDED | NOT_NEEDED).items()}
    ANSWER.write_text(json.dumps(found), encoding="utf-8")
