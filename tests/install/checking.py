"""What all checks of the installed packages have in common."""
import asyncio
import os
import pathlib
import re
import subprocess

TREE = pathlib.Path(__file__).resolve().parents[2]
FILES_BEFORE = TREE / "files-before"
CHANGING = frozenset({
    "/dev", "/lost+found", "/proc", "/run", "/sys", "/tmp", str(TREE), "/var/cache", "/var/lib/apt",
    "/var/lib/dpkg", "/var/lib/systemd/random-seed", "/var/log/alternatives.log", "/var/log/apt",
    "/var/log/dpkg.log", "/var/log/journal", "/var/log/wtmp", "/var/tmp"})


class Failure(Exception):
    """What a check has found instead."""


class Checks(dict):
    """{name: function}, in the order in which they are carried out."""

    def __call__(self, name):
        def remember(function):
            self[name] = function
            return function
        return remember


def demand(condition, text):
    if not condition:
        raise Failure(text)


async def run(*command, status=0, **more):
    """The output of a command, which must end with that status. `more`: its environment."""
    child = await asyncio.create_subprocess_exec(
        *command, stdin=asyncio.subprocess.DEVNULL, stdout=asyncio.subprocess.PIPE,
        stderr=asyncio.subprocess.STDOUT,
        env={**os.environ, "DEBIAN_FRONTEND": "noninteractive", **more})
    output = (await child.communicate())[0].decode(errors="replace")
    demand(child.returncode == status,
           f"{' '.join(command)}: status {child.returncode}\n{output}")
    return output


async def demand_exposure(most):
    """`most`: {unit: the exposure that it may have}, as systemd-analyze measures it."""
    for unit, limit in most.items():
        output = await run("systemd-analyze", "security", "--no-pager", unit)
        level = float(re.search(r"Overall exposure level for \S+: ([0-9.]+)", output)[1])
        print(f"  {unit}: exposure {level}, at most {limit}", flush=True)
        demand(level <= limit, output)


def files_of(root):
    """Every path of a root but what changes by itself."""
    found = []
    for folder, folders, files in os.walk(root):
        inside = "/" + os.path.relpath(folder, root) if folder != str(root) else ""
        folders[:] = [name for name in folders if f"{inside}/{name}" not in CHANGING]
        found += [f"{inside}/{name}" for name in folders + files
                  if f"{inside}/{name}" not in CHANGING]
    return found


async def demand_no_trace(units):
    """Of packages that were purged: no file, and no unit that systemd knows."""
    before = set(FILES_BEFORE.read_text(encoding="utf-8").splitlines())
    left = sorted(set(files_of("/")) - before)
    demand(not left, "left over: " + " ".join(left))
    known = await run("systemctl", "list-units", "--all", "--plain", "--no-legend", *units)
    left = [line for line in known.splitlines() if "not-found" not in line]  # only named by others
    demand(not left, f"systemd still knows {left}")


def running_programs():
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            yield os.readlink(process / "exe").removesuffix(" (deleted)")
        except OSError:
            pass  # it has just ended, or is the kernel's


def announced():
    """hostapd's notify files for lumd."""
    return [name for name in os.listdir("/tmp") if name.startswith(".orvanta")]


def last_words():
    """The end of the system's log."""
    return subprocess.run(["journalctl", "-b", "-n", "60", "--no-pager", "-o", "short"],
                          capture_output=True, text=True, check=False).stdout.splitlines()
