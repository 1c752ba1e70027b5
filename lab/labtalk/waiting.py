"""A bounded wait for what no event tells."""
import asyncio
import inspect

PAUSE = 0.02  # seconds between two looks


async def until(condition, timeout=10.0):
    """Waits until `condition()`, plain or async, is true; False when it did not become so."""
    deadline = asyncio.get_running_loop().time() + timeout
    while True:
        met = condition()
        if inspect.isawaitable(met):
            met = await met
        if met:
            return True
        if asyncio.get_running_loop().time() > deadline:
            return False
        await asyncio.sleep(PAUSE)
