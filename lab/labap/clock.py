"""Time as the lab counts it: `speed` times faster than real time.

A lab program that has liblabclock.so preloaded reads fast clocks already and keeps speed 1; a lab
inside a test process, whose own clocks are real, is given the speed of lumd's clock.
"""
import asyncio
import time


class LabClock:
    def __init__(self, speed=1.0):
        self.speed = speed
        self._start = time.monotonic()

    def now(self):
        """Seconds of lab time."""
        return self._start + (time.monotonic() - self._start) * self.speed

    async def sleep(self, seconds):
        await asyncio.sleep(seconds / self.speed)
