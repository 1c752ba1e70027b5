"""The tour for a person at a terminal, or a machine."""
import asyncio
import dataclasses
import os

from labshow import tables
from labshow.outcome import Outcome
from labshow.show import Show

from .air import Air
from .tour import Tour

TITLE = "real 802.11"
HEAD = ("asked", "on air", "seconds", "service")
STAYS = "the air stays as it is; Ctrl-C ends it"


async def show_tour(show: Show, programs: os.PathLike, page=None,
                    seconds: float | None = None) -> int:
    """The exit status; what does not come raises LabError. `programs`: the folder of lumd's. With a
    `page` (labconsole.desk) the access points are on it, and stay after the tour for so many
    seconds, None: until it is cancelled."""
    air = Air(programs=programs)
    views = []

    def begin(step):
        show.heading(step)
        for view in views:
            view.doing = step

    tour = Tour(air, show.text, begin)
    try:
        views += present(air, page) if page is not None else []
        await tour.run()
        tell(show, tour)
        for view in views:
            view.takes_commands, view.doing = True, ""
        if views:
            show.heading(STAYS)
            await asyncio.wait([asyncio.get_running_loop().create_future()], timeout=seconds)
    finally:
        if page is not None:
            page.clear()
        await asyncio.shield(air.stop())
    return 0


def present(air: Air, page) -> list:
    """The access points on the page."""
    from .airview import AirView  # it needs what the page needs
    views = [AirView(air, point) for point in air.points]
    page.present(views, TITLE)
    return views


def tell(show: Show, tour: Tour) -> None:
    """What the tour has seen, as a table."""
    show.heading("what was asked, what the kernel, the clients and the frames show, what the "
                 "service saw")
    rows = [[row.asked, row.on_air, "-" if row.seconds is None else f"{row.seconds:.2f}",
             row.service] for row in tour.rows]
    show.text(tables.table(HEAD, rows, show.width))
    show.outcome(Outcome("air", result=[dataclasses.asdict(row) for row in tour.rows]))
