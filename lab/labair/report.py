"""The tour for a person at a terminal, or a machine."""
import asyncio
import dataclasses
import os

from labshow import tables
from labshow.outcome import Outcome
from labshow.show import Show

from .air import Air
from .tour import Tour

HEAD = ("asked", "on air", "seconds", "service")


async def show_tour(show: Show, programs: os.PathLike) -> int:
    """The exit status; what does not come raises LabError. `programs`: the folder of lumd's."""
    air = Air(programs=programs)
    tour = Tour(air, show.text, show.heading)
    try:
        await tour.run()
    finally:
        await asyncio.shield(air.stop())
    show.heading("what was asked, what the kernel, the clients and the frames show, what the "
                 "service saw")
    rows = [[row.asked, row.on_air, "-" if row.seconds is None else f"{row.seconds:.2f}",
             row.service] for row in tour.rows]
    show.text(tables.table(HEAD, rows, show.width))
    show.outcome(Outcome("air", result=[dataclasses.asdict(row) for row in tour.rows]))
    return 0
