"""Bounded waits with a clear message."""
import time

PATIENCE = 30.0  # seconds of real time; only a broken program lets a test wait that long


def wait_until(condition, what, timeout=PATIENCE):
    """The first true value of `condition()`."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"{what}: not within {timeout:g} s")
        time.sleep(0.01)
