"""Programs of the build, and the child processes that they become."""
import asyncio
import collections
import ctypes
import os
import pathlib
import shlex
import signal

from labtalk.resources import IS_INSTALLED, TREE

# Where packages put the programs and the preload libraries.
PACKAGED_PROGRAMS, PACKAGED_LIBRARIES = pathlib.Path("/usr/sbin"), pathlib.Path("/usr/lib/lumd-lab")
PR_SET_PDEATHSIG = 1
ELF_DATA, ELF_LITTLE_ENDIAN = 5, 1  # elf(5): e_ident[EI_DATA], ELFDATA2LSB
STOP_PATIENCE = 10.0  # real seconds until SIGKILL

Build = collections.namedtuple("Build", "bin lib emulator", defaults=((),))


class LabError(Exception):
    """What did not happen, and what happened instead."""


def find_build(preset="release"):
    """Where the programs and the preload libraries are: $LUMD_BIN_DIR and $LUMD_LIB_DIR, or the
    folders of a preset, of an installed lab those of packages. $LUMD_EMULATOR is the command that runs programs of another machine."""
    build = TREE / "build" / preset
    programs, libraries = (PACKAGED_PROGRAMS, PACKAGED_LIBRARIES) if IS_INSTALLED else \
        (build / "bin", build / "lib")
    return Build(pathlib.Path(os.environ.get("LUMD_BIN_DIR", programs)),
                 pathlib.Path(os.environ.get("LUMD_LIB_DIR", libraries)),
                 tuple(shlex.split(os.environ.get("LUMD_EMULATOR", ""))))


def byte_order(program):
    """"<" or ">" as an ELF file says it."""
    with open(program, "rb") as file:
        return "<" if file.read(ELF_DATA + 1)[ELF_DATA] == ELF_LITTLE_ENDIAN else ">"


_libc = ctypes.CDLL(None)


def _die_with_parent():
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)


class Process:
    """A child program in a session of its own; its output goes to a file."""

    def __init__(self, name, output):
        self.name, self.output = name, pathlib.Path(output)
        self._child = None

    async def start(self, command, environment):
        with open(self.output, "ab") as output:
            self._child = await asyncio.create_subprocess_exec(
                *map(str, command), env=environment, stdin=asyncio.subprocess.DEVNULL,
                stdout=output, stderr=output, start_new_session=True,
                preexec_fn=_die_with_parent)

    @property
    def pid(self):
        return self._child.pid if self._child is not None else None

    @property
    def running(self):
        return self._child is not None and self._child.returncode is None

    @property
    def status(self):
        return self._child.returncode if self._child is not None else None

    def signal(self, number):
        if self.running:
            self._child.send_signal(number)

    async def wait(self, timeout=STOP_PATIENCE):
        """The exit status (negative: the signal); LabError when it does not end."""
        try:
            return await asyncio.wait_for(self._child.wait(), timeout)
        except asyncio.TimeoutError:
            raise LabError(f"{self.name} did not end within {timeout:g} s") from None

    async def stop(self):
        """SIGTERM, then SIGKILL; the exit status."""
        if self._child is None:
            return None
        self.signal(signal.SIGTERM)
        try:
            return await self.wait()
        except LabError:
            self.signal(signal.SIGKILL)
            return await self._child.wait()
