"""Calls that fail at one of their call sites in a running lumd (lab/faults/faults.cpp)."""
import collections
import errno
import mmap
import re
import struct
import subprocess

FOR_EVER = 0xFFFFFFFF
SITES, HEAD, SITE = 2048, struct.Struct("=QIIiI"), struct.Struct("=QI36s")
PLACE_BITS = 28
PLACE_MASK = (1 << PLACE_BITS) - 1

Site = collections.namedtuple("Site", "key function calls")


class FaultTable:
    """The file that a lumd started with LAB_FAULTS shares with the test. `known`: the bytes of
    another run's, whose sites can then be armed before lumd starts."""

    def __init__(self, path, known=None):
        self.path = path
        with open(path, "wb") as file:
            file.write(bytes(HEAD.size) + (known[HEAD.size:] if known else
                                           bytes(SITES * SITE.size)))
        with open(path, "r+b") as file:
            self._memory = mmap.mmap(file.fileno(), 0)

    def content(self):
        return bytes(self._memory)

    def sites(self):
        """{key: Site} of every call site that was reached."""
        found = (SITE.unpack_from(self._memory, HEAD.size + i * SITE.size) for i in range(SITES))
        return {key: Site(key, name.rstrip(b"\0").decode(), calls)
                for key, calls, name in found if key}

    def arm(self, key, error, times=FOR_EVER):
        """From now on calls from that site fail with this errno ("EIO")."""
        self.disarm()
        HEAD.pack_into(self._memory, 0, 0, times, 0, getattr(errno, error), 0)
        self._memory[0:8] = struct.pack("=Q", key)

    def disarm(self):
        self._memory[0:8] = bytes(8)

    @property
    def failed(self):
        """How many calls have failed since arm()."""
        return HEAD.unpack_from(self._memory, 0)[2]


def places_of(key):
    """The offsets in the program of the call and of the call of the helper that made it; 0 where
    there is none: both for a call of libwebsockets."""
    return key & PLACE_MASK, key >> PLACE_BITS & PLACE_MASK


class Symbols:
    """Function names and files of places in a program."""

    def __init__(self, program):
        self.program, self._known = program, {0: ("", "")}

    def look_up(self, places):
        """{place: (function, file)}; a place is a return address."""
        new = sorted(set(places) - set(self._known))
        if new:
            command = ["addr2line", "-fCe", str(self.program), *(hex(place - 1) for place in new)]
            lines = subprocess.run(command, check=True, capture_output=True,
                                   text=True).stdout.splitlines()
            for place, name, where in zip(new, lines[::2], lines[1::2]):
                file = re.sub(r"^.*?/(src|platform)/", r"\1/", where).partition(":")[0]
                self._known[place] = (short(name), file)
        return {place: self._known[place] for place in places}


def short(name):
    """A function's name without its result, its parameters and those of its templates."""
    name = name.replace("(anonymous namespace)::", "").replace("operator()", "operator")
    depth, kept = 0, []
    for character in name.replace("->", ""):
        depth += character in "<("
        if depth == 0:
            kept.append(character)
        depth -= character in ">)"
    return "".join(kept).replace(" const", "").replace("[abi:cxx11]", "").split(" ")[-1]


def fallible_calls(program, library):
    """{place: function} of all calls in the program to functions that the library can fail."""
    names = subprocess.run(["nm", "-D", "--defined-only", str(library)], check=True,
                           capture_output=True, text=True).stdout.split()[2::3]
    wanted = set(names)
    code = subprocess.Popen(["objdump", "-d", "--no-show-raw-insn", str(program)],
                            stdout=subprocess.PIPE, text=True)
    found, called = {}, None
    for line in code.stdout:
        if called is not None and (match := re.match(r"\s+([0-9a-f]+):", line)):
            found[int(match[1], 16)] = called
        match = re.search(r"\bcall\s+[0-9a-f]+ <(\w+)@plt>", line)
        called = match[1] if match and match[1] in wanted else None
    assert code.wait() == 0
    return found
