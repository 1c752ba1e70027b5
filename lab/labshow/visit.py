"""What an access point lives through in front of somebody else's service, in a minute."""
from labtalk.waiting import until

from .process import LabError

QUIET = 2.0                # real seconds without a word
LIMIT = 150.0              # seconds of lumd's clock for a service to come to rest; a survey is 75
CONNECTED_LIMIT = 30.0     # the same, for a link
SUBSCRIBED_LIMIT = 40.0    # 30, and what an answer may be late to be told
REPORT_LIMIT = 15.0
CLIENT, WEAK_DBM = "02:1a:2b:ff:00:01", -88
ATTEMPT_ENDS = frozenset({"connected", "unreachable", "refused", "disconnected"})


async def visit(lab):
    """A link, a subscription, a client that comes and goes, hostapd that restarts, a network that
    fails; between them the service has the time that it takes. Ends early when it takes nobody."""
    await arrive(lab)
    if lab.mode != "rrm":
        await calm(lab)
        await lose_the_link(lab)
        await calm(lab)
        return
    if not await subscribed(lab, 0):
        return
    await calm(lab)
    await client_comes_and_goes(lab)
    await hostapd_restarts(lab)
    since = await lose_the_link(lab)
    if await subscribed(lab, since):
        await calm(lab)


async def arrive(lab):
    """Until the link is up; LabError when the first attempt fails."""
    limit = CONNECTED_LIMIT / lab.speed
    event = await lab.journal.wait(0, limit, lambda event: event["what"] in ATTEMPT_ENDS)
    if event is None:
        raise LabError(lab.explain(f"lumd has not called within {limit:g} s"))
    if event["what"] == "unreachable":
        raise LabError(f"no service at {lab.endpoint}: {event['data']['reason']}")
    if event["what"] == "refused":
        raise LabError(f"{lab.endpoint} is no websocket that lumd takes: "
                       f"{event['data']['answer']}")
    if event["what"] == "disconnected":
        how = "closed the connection" if event["from"] == "service" else "did not answer"
        raise LabError(f"{lab.endpoint} {how}: no websocket came about")


async def subscribed(lab, since):
    """Whether the service has taken the access point in; lumd asks once hostapd runs."""
    asked = await lab.journal.wait(since, SUBSCRIBED_LIMIT / lab.speed, what="subscribe-request")
    if asked is None:
        return False
    await lab.journal.wait(asked["n"], SUBSCRIBED_LIMIT / lab.speed, what="subscribe-response")
    return lab.service.known.subscribed


async def calm(lab):
    """Until no survey is under way and nothing is said."""
    for _ in range(int(LIMIT / lab.speed / QUIET) + 1):
        before = lab.mark()
        await until(lambda: False, QUIET)
        if before == lab.mark() and not lab.service.rules.survey_under_way:
            return


async def client_comes_and_goes(lab):
    vaps = [vap.ifname for radio in lab.ap.air.radios for vap in radio.vaps]
    if not vaps:
        return
    lab.ap.station_add(vaps[0], mac=CLIENT, rssi=WEAK_DBM)
    await calm(lab)
    if lab.ap.air.locate(CLIENT)[0] is not None:  # it may have been steered away
        lab.ap.clients.remove(CLIENT)
        await calm(lab)


async def hostapd_restarts(lab):
    since, limit = lab.mark(), REPORT_LIMIT / lab.speed
    await lab.ap.hostapd_command("stop")
    await lab.journal.wait(since, limit, what="rrm-disassoc-all-clients")
    since = lab.mark()
    await lab.ap.hostapd_command("start")
    await lab.journal.wait(since, limit, predicate=lambda event: event["what"] in
                           ("rrm-config-changed", "subscribe-request"))
    await calm(lab)


async def lose_the_link(lab):
    """Where the conversation was then; LabError when the service does not take lumd back."""
    since = lab.mark()
    await lab.service.drop()
    if await lab.journal.wait(since, CONNECTED_LIMIT / lab.speed, what="connected") is None:
        raise LabError(lab.explain(f"{lab.endpoint} did not take lumd back"))
    return since
