"""The switched copy of the tree under build/mutate, and its build."""
import concurrent.futures
import dataclasses
import hashlib
import json
import pathlib
import re
import shlex
import shutil
import subprocess

from .fault import Fault
from .finder import Finder
from .schema import HEADER, Schema

ROOT = pathlib.Path(__file__).resolve().parents[2]
HOME = ROOT / "build/mutate"
COPY = HOME / "tree"
BUILD = HOME / "build"
SWITCH = HOME / "lumd_mutant.h"
ROOMS = ("process", "bus", "link", "driver", "service")
MORE_PROGRAMS = {"driver": ("test_nl80211",)}  # of unit tests, beside test_ROOM
PER_FILE = 2000  # numbers kept for each file, so that a change renumbers no other
SYSTEM_TARGETS = ["lumd", "msgbusd", "msgbusctl", "labkernel", "labclock", "callspy"]
ROUNDS = 12


def programs_of(room):
    """The unit test programs of a room."""
    return (f"test_{room}", *MORE_PROGRAMS.get(room, ()))


def write(path, content):
    """Leaves what is the same alone: it need not be built again."""
    path.parent.mkdir(parents=True, exist_ok=True)
    if not path.exists() or path.read_bytes() != content:
        path.write_bytes(content)


def tracked():
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, check=True,
                            capture_output=True, text=True).stdout.split()
    return [name for name in listed if (ROOT / name).is_file()]


def copy_rest():
    """Everything but src/'s code, which is written with its faults."""
    names = set(tracked())
    for name in names:
        path = COPY / name
        if is_code(name) and path.exists():
            continue
        write(path, (ROOT / name).read_bytes())
        shutil.copymode(ROOT / name, path)
    for path in COPY.rglob("*"):
        if path.is_file() and str(path.relative_to(COPY)) not in names:
            path.unlink()


def is_code(name):
    return name.startswith("src/") and name.endswith((".cpp", ".h"))


def configure(files):
    write(SWITCH, f"#define LUMD_MUTANTS {files * PER_FILE}\n{HEADER}".encode())
    options = ["-DCMAKE_BUILD_TYPE=None", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", "-DLUMD_UNITY_TESTS=ON",
               "-DCMAKE_C_FLAGS=-O0 -g0 -w", f"-DCMAKE_CXX_FLAGS=-O0 -g0 -w -include {SWITCH}"]
    if shutil.which("ccache"):
        options += [f"-DCMAKE_{language}_COMPILER_LAUNCHER=ccache" for language in ("C", "CXX")]
    subprocess.run(["cmake", "-S", COPY, "-B", BUILD, "-G", "Ninja", *options], check=True,
                   stdout=subprocess.DEVNULL)


@dataclasses.dataclass
class Unit:
    path: str  # of the source, from the root
    room: str
    tested: bool  # by its room's unit tests
    arguments: list
    headers: list


def included(name, seen):
    """src/'s headers that a file of it includes, in turn."""
    for header in re.findall(r'^#include "([^"]+)"', (ROOT / name).read_text(), re.MULTILINE):
        for folder in ("src", "src/platform-specific"):
            path = f"{folder}/{header}"
            if path not in seen and (ROOT / path).is_file():
                seen.append(path)
                included(path, seen)
    return seen


def units():
    """The translation units of src/, each with its room: the library it goes into."""
    found = []
    for entry in json.loads((BUILD / "compile_commands.json").read_text()):
        path = pathlib.Path(entry["file"])
        name = str(path.relative_to(COPY)) if path.is_relative_to(COPY) else ""
        if not is_code(name) or not (ROOT / name).is_file():
            continue
        library = re.search(r"CMakeFiles/(?:lumd_)?(\w+)\.dir/", entry["command"])[1]
        command = [word.replace(str(COPY), str(ROOT)) for word in shlex.split(entry["command"])]
        arguments = [word for at, word in enumerate(command)
                     if word.startswith(("-I", "-D", "-std")) or command[at - 1] == "-isystem"
                     or word == "-isystem"]
        tested = library in ROOMS
        found.append(Unit(name, library if tested else "process", tested, arguments,
                          included(name, [])))
    return sorted(found, key=lambda unit: (ROOMS.index(unit.room), unit.path))


def rooms_of(all_units):
    """File -> the rooms whose programs hold it, its own first."""
    rooms = {}
    for unit in sorted(all_units, key=lambda unit: not unit.tested):
        for name in [unit.path, *unit.headers]:
            known = rooms.setdefault(name, [])
            if unit.room not in known and (unit.tested or not known):
                known.append(unit.room)
    for unit in all_units:
        header = unit.path.replace(".cpp", ".h")
        if header in rooms:
            rooms[header].sort(key=lambda room, own=unit.room: room != own)
    return rooms


def digest(names):
    """Of the files and of what looks for faults in them."""
    sums = hashlib.sha256()
    for name in [*names, *sorted(map(str, pathlib.Path(__file__).parent.glob("f*.py")))]:
        sums.update((ROOT / name).read_bytes())
    return sums.hexdigest()


def search(unit, names):
    """The faults of these files of a unit; kept from the last run while nothing changed."""
    kept = HOME / "found" / (unit.path.replace("/", "-") + ".json")
    state = digest([unit.path, *unit.headers]) + " ".join(names)
    if kept.exists():
        content = json.loads(kept.read_text())
        if content["state"] == state:
            return [Fault(**one) for one in content["faults"]]
    wanted = {str(ROOT / name): name for name in [unit.path, *unit.headers]}
    found = [fault for fault in Finder(str(ROOT / unit.path), unit.arguments, wanted).find()
             if fault.file in names]
    kept.parent.mkdir(exist_ok=True)
    kept.write_text(json.dumps({"state": state,
                                "faults": [dataclasses.asdict(one) for one in found]}))
    return found


def find_all(jobs):
    """Every fault of src/, numbered; the rooms of each file; the files that unit tests hold."""
    all_units = units()
    rooms = rooms_of(all_units)
    claimed = set()
    work = []
    for unit in all_units:
        names = [name for name in [unit.path, *unit.headers] if name not in claimed]
        claimed.update(names)
        work.append((unit, names))
    with concurrent.futures.ProcessPoolExecutor(jobs) as pool:
        found = pool.map(search, *zip(*work))
        by_file = {}
        for fault in (fault for faults in found for fault in faults):
            by_file.setdefault(fault.file, []).append(fault)
    for base, name in enumerate(sorted(rooms)):
        faults = by_file.get(name, [])
        if len(faults) > PER_FILE:
            raise SystemExit(f"mutate: {name} has more than {PER_FILE} faults")
        for offset, fault in enumerate(faults):
            fault.number = base * PER_FILE + offset
            fault.room = rooms[name][0]
    tested = {name for unit in all_units if unit.tested for name in [unit.path, *unit.headers]}
    return by_file, rooms, tested


class SwitchedTree:
    """The copy with every fault in it. Faults the compiler refuses there are left out: `refused`."""

    def __init__(self, jobs, say):
        self.jobs = jobs
        self.say = say
        HOME.mkdir(parents=True, exist_ok=True)
        copy_rest()
        configure(sum(map(is_code, tracked())) + 8)
        self.by_file, self.rooms, self.tested = find_all(jobs)
        self.refused = []
        self.schemas = {}
        self.memory = HOME / "refused.json"

    @property
    def faults(self):
        """All that can be judged."""
        gone = {fault.number for fault in self.refused}
        return [fault for name in sorted(self.by_file) for fault in self.by_file[name]
                if fault.number not in gone and fault.form != "always"]

    def write(self):
        gone = {fault.number for fault in self.refused}
        for name in filter(is_code, tracked()):
            kept = [one for one in self.by_file.get(name, []) if one.number not in gone]
            self.schemas[name] = Schema((ROOT / name).read_bytes(), kept)
            write(COPY / name, bytes(self.schemas[name].text))

    def needed(self, names):
        """The rooms whose tests judge the faults of these files and rooms, all if none is named."""
        found = {room for file, rooms in self.rooms.items() for room in rooms
                 if not names or file in names or rooms[0] in names}
        return [room for room in ROOMS if room in found]

    def recall(self):
        """What was refused last time, so that one build is enough."""
        known = set(json.loads(self.memory.read_text())) if self.memory.exists() else set()
        self.refused = [fault for faults in self.by_file.values() for fault in faults
                        if f"{fault.key} @{fault.line}" in known]

    def build(self, rooms, with_system):
        """Builds the unit tests of these rooms, and the agent if system tests are to judge too."""
        targets = [name for room in rooms for name in programs_of(room)]
        targets += SYSTEM_TARGETS if with_system else []
        self.recall()
        for _ in range(ROUNDS):
            self.write()
            done = subprocess.run(["cmake", "--build", BUILD, "-j", str(self.jobs), "--target",
                                   *targets, "--", "-k", "0"], capture_output=True, text=True,
                                  errors="replace")
            (HOME / "build.log").write_text(done.stdout + done.stderr)
            if done.returncode == 0:
                known = json.loads(self.memory.read_text()) if self.memory.exists() else []
                known = {*known, *(f"{one.key} @{one.line}" for one in self.refused)}
                self.memory.write_text(json.dumps(sorted(known)))
                return
            refused = self.blamed(done.stdout)
            if not refused:
                break
            self.say(f"{len(refused)} faults do not compile behind a switch; left out")
            self.refused += refused
        raise SystemExit(f"mutate: the switched copy does not build, see {HOME / 'build.log'}")

    def blamed(self, output):
        """The faults that the compiler's errors point at; the nearest note where an error does not."""
        gone = {fault.number for fault in self.refused}
        found = {}
        place = re.compile(rf"\b{COPY.name}/(src/\S+?):(\d+):(\d+): ")
        pending = False
        for line in output.splitlines():
            pending = pending or " error: " in line
            match = place.search(line)
            if not pending or not match or match[1] not in self.schemas:
                continue
            faults = self.schemas[match[1]].at(int(match[2]), int(match[3]))
            new = {one.number: one for one in faults if one.number not in gone}
            if new:
                found.update(new)
                pending = False
        return list(found.values())
