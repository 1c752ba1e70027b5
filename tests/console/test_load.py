"""Many events, pages that are slow, links that are lost, many access points."""
import asyncio
import os
import threading
import time

from consoletest.view import PlayedView
from labconsole import feed
from labconsole.feed import Feed
from labconsole.source import Board

RATE = 2000        # events a second
SAMPLE_SECONDS = 10.0
TICK = 0.02
# ms in which the page does not answer. What it takes is printed; a machine that is busy otherwise takes
# its share of it, so only a page that is frozen fails here: one that drew every row would be.
LONGEST_TASK = 5000
OBSERVE = """
    window.tasks = [];
    new PerformanceObserver((list) => window.tasks.push(...list.getEntries().map(
        (entry) => entry.duration))).observe({entryTypes: ["longtask"]});"""
MESSAGE = {"ifname": "wlan0-va0", "station": "02:1a:2b:00:00:01", "rssi": -61,
           "text": "a content as long as those of a busy access point are"}


def play(console, view, seconds):
    """RATE events a second into the view, from the console's loop; how many."""
    async def playing():
        begun, count = time.monotonic(), 0
        while (passed := time.monotonic() - begun) < seconds:
            while count < passed * RATE:
                count += 1
                view.journal.add("lumd", ("driver", "service", "hubd")[count % 3], "played",
                                 {**MESSAGE, "number": count})
            await asyncio.sleep(TICK)
        return count
    return console.run(playing(), seconds + 60)


def test_page_takes_2000_events_a_second_and_stays_awake(played, page, record_property):
    """A sample; LUMD_CONSOLE_LOAD_SECONDS=60 takes a minute."""
    seconds = float(os.environ.get("LUMD_CONSOLE_LOAD_SECONDS", SAMPLE_SECONDS))
    view = PlayedView("busy")
    played.present([view], "busy")
    page.open(played, "talk")
    page.script(OBSERVE)
    count = play(played, view, seconds)
    page.until(lambda: page.script("return consolePage.store.last") == count, "all of them", 60)
    store = page.script("const {received, skipped, holes} = consolePage.store;"
                        "return {received, skipped, holes: holes.size}")
    tasks = page.script("return window.tasks")
    print(f"{count} events in {seconds:g} s: {store['received']} received, {store['skipped']} "
          f"skipped; {len(tasks)} long tasks, the longest {max(tasks, default=0):.0f} ms")
    assert store == {"received": count, "skipped": 0, "holes": 0}
    assert max(tasks, default=0) < LONGEST_TASK
    page.until_text("#talk .count", f" of {count}")  # the newest of them are kept


def test_page_that_sleeps_is_told_what_it_was_not_sent(played, page):
    """It takes nothing for a while, as one that a debugger has stopped."""
    view = PlayedView("busy")
    played.present([view], "busy")
    page.open(played, "talk")
    page.script("consolePage.link.acknowledge = () => {}")
    count = feed.WINDOW + feed.LIMIT + 5000

    async def many():
        for number in range(count):
            view.journal.add("lumd", "driver", "played", {"number": number})
            if number % 500 == 0:
                await asyncio.sleep(0.001)
    played.run(many())
    page.until(lambda: page.script("return consolePage.store.last") >= feed.WINDOW, "its window")
    page.script("delete consolePage.link.acknowledge;"
                "consolePage.link.acknowledge(consolePage.store.last, true)")
    page.until(lambda: page.script("return consolePage.store.last") == count, "the newest")
    received, skipped = page.script("return [consolePage.store.received, consolePage.store.skipped]")
    assert skipped > 0 and received + skipped == count
    assert page.script("return consolePage.store.counts.get('driver')") == count
    page.until_text("#talk .count", f"{skipped} skipped")
    behind = page.script("return [...consolePage.store.holes.keys()][0]")
    page.fill("[aria-label='Filter by text']", f"number={behind - 1}")
    page.until_text("#talk .rows", f"{skipped} skipped")


def test_page_that_takes_nothing_costs_no_memory():
    """A feed holds neither events nor states for it."""
    async def main():
        view, sent = PlayedView("busy"), []
        never = asyncio.Event()

        async def send(message):
            sent.append(message)
            await never.wait()
        slow = Feed(Board(), view, send)
        work = asyncio.ensure_future(slow.run())
        for number in range(3 * feed.LIMIT):
            view.journal.add("lumd", "driver", "played", None)
            if number % 1000 == 0:
                await asyncio.sleep(0)
        await asyncio.sleep(0.5)
        work.cancel()
        slow.close()
        return sent, view.journal.listeners
    sent, listeners = asyncio.run(main())
    assert len(sent) <= 2 and not listeners


def test_page_finds_a_lab_again_that_was_restarted(played, page):
    """Another process at the same address, as ./run --port makes it."""
    view = PlayedView("first")
    played.present([view], "first")
    view.journal.add("lumd", "service", "before", None)
    page.open(played, "talk")
    page.until_text("#talk .rows", "before")
    port = played.server.port
    played.stop()
    page.until_text("#status", "No link to the lab")
    from conftest import LiveConsole
    again = LiveConsole(played.run, port)
    again.start()
    try:
        other = PlayedView("second")
        again.present([other], "second")
        other.journal.add("lumd", "service", "after", None)
        page.until_text("#title", "second")
        page.until(lambda: "after" in page.text("#talk .rows") and
                   "before" not in page.text("#talk .rows"), "the other conversation")
    finally:
        again.stop()
    page.driver.get_log("browser")


def test_lost_link_loses_no_event(played, page):
    view = PlayedView("steady")
    played.present([view], "steady")
    page.open(played, "talk")
    stop = threading.Event()

    def add():
        while not stop.is_set():
            played.loop.call_soon_threadsafe(view.journal.add, "lumd", "driver", "played", None)
            time.sleep(0.005)
    adding = threading.Thread(target=add)
    adding.start()
    try:
        for _ in range(3):
            before = page.until(lambda: page.script("return consolePage.store.last"), "events")
            page.script("consolePage.link.socket.close()")
            page.until(lambda: page.script("return consolePage.store.last") > before + 100, "more")
    finally:
        stop.set()
        adding.join()
    page.until(lambda: page.script("return consolePage.store.last") == view.journal.count, "all")
    first = page.script("return consolePage.store.events[0][0]")
    received, skipped = page.script("return [consolePage.store.received, consolePage.store.skipped]")
    assert (first, received, skipped) == (1, view.journal.count, 0)


def test_scenario_that_is_exchanged_takes_the_pages_along(played, page):
    played.present([PlayedView("one")], "one")
    page.open(played)
    page.until_text("#title", "one")
    played.clear()
    page.until_text("#status", "no lab is running")
    played.present([PlayedView("two")], "two")
    page.until_text("#title", "two")
    page.until_text("#status", "connected, subscribed")


def test_200_access_points_stay_fluid(played, page):
    views = [PlayedView(f"ap-{number:03d}") for number in range(200)]
    played.present(views, "200 access points")
    page.open(played, "fleet")
    page.until_text(".totals", "200 access points: 200 connected, 200 subscribed, 2400 clients")
    page.script(OBSERVE)

    async def busy():
        for _ in range(100):
            for view in views:
                view.journal.add("lumd", "service", "played", None)
            await asyncio.sleep(0.05)
        views[77].link = {**views[77].link, "state": "no link", "connected": False}
    played.run(busy())
    page.until_text(".totals", "199 connected", "20000 events")
    tasks = page.script("return window.tasks")
    print(f"200 access points: {len(tasks)} long tasks, the longest {max(tasks, default=0):.0f} ms")
    assert max(tasks, default=0) < LONGEST_TASK
    page.press("#only-trouble")
    page.until(lambda: [tile.text.split()[0] for tile in page.all(".tile:not([hidden])")] ==
               ["ap-077"], "the one with trouble")
    page.press("[data-view-number='77']")
    page.until_text("#status", "no link")
    page.go("talk")
    page.until_text("#talk .count", "100 of 100")
