"""Time as the lab counts it: `speed` times faster than real time.

A lab program that has liblabclock.so preloaded reads fast clocks already and keeps speed 1; a lab
inside a test process, whose own clocks are real, is given the speed of lumd's clock.
"""
import asyncio
import mmap
import struct
import time

# What liblabclock.so maps: the number of changes, odd during one; the speed; the real time since
# which it holds and what the fast clocks had gained by then, both in ns.
SHARED, CHANGES = "IIdqq", "I"


class LabClock:
    """`shared`: a file through which programs of that byte order follow set_speed()
    (LAB_CLOCK_FILE)."""

    def __init__(self, speed=1.0, shared=None, order="="):
        self.speed = speed
        self._start = self._since = time.monotonic_ns()
        self._elapsed = 0.0
        self._changes, self._memory = 0, None
        if shared is not None:
            size = struct.calcsize(order + SHARED)
            shared.write_bytes(bytes(size))
            with open(shared, "r+b") as file:
                self._memory = mmap.mmap(file.fileno(), size)
            self._order = order
            self._tell()

    def _gained(self):
        return self._elapsed + (time.monotonic_ns() - self._since) * self.speed

    def now(self):
        """Seconds of lab time."""
        return (self._start + self._gained()) / 1e9

    async def sleep(self, seconds):
        """A change of speed does not reach a sleep that has begun."""
        await asyncio.sleep(seconds / self.speed)

    def set_speed(self, speed):
        """From now on; for the programs as well when the clock is shared."""
        real = time.monotonic_ns()
        self._elapsed += (real - self._since) * self.speed
        self._since, self.speed = real, speed
        if self._memory is not None:
            self._tell()

    def _tell(self):
        self._changes += 2
        begun, done = self._changes - 1, self._changes
        struct.pack_into(self._order + CHANGES, self._memory, 0, begun)
        struct.pack_into(self._order + SHARED, self._memory, 0, begun, 0, self.speed, self._since,
                         int(self._elapsed))
        struct.pack_into(self._order + CHANGES, self._memory, 0, done)
