"""What an operator meets with lumd-apd: from the bare machine on, by the lines of its page."""
import os
import pathlib
import re
import shutil

from access_point import VAP, JournalOf, kernel, stations, status_of_page, word
from checking import (TREE, Checks, announced, demand, demand_exposure,
                      demand_no_trace, run, running_programs)
from installed_lab import WAIT, Unit
from labair.station import frequency
from labtalk.waiting import until

UNITS = ("msgbusd.service", "apd-hostapd.service", "apd.service", "lumd.service")
PROGRAMS = {"/usr/sbin/apd", "/usr/sbin/hostapd"}
EXPOSURE = {"apd.service": 3.0, "apd-hostapd.service": 3.5}  # at most
SETTINGS = pathlib.Path("/etc/lumd/apd.json")
HOSTAPD, APD = Unit("apd-hostapd.service"), Unit("apd.service")
check = Checks()
check_rebooted = Checks()  # after the machine's next boot


@check("the page's lines make a bare machine an access point that lumd manages")
async def follow_page(point):
    await run("dpkg", "--purge", "hostapd")
    shutil.rmtree("/etc/hostapd", ignore_errors=True)  # with the lab's settings
    await point.start()
    await point.follow_recipe()
    await point.wait_up()
    here, channel = kernel()[VAP], int(word(r"/channel (\d+)"))
    demand((here["type"], here["frequency"]) == ("AP", frequency(channel)), f"the kernel has {here}")
    base = word('"mac": "([^"]+)"')
    demand(here["address"] == f"{base[:-2]}{int(base[-2:], 16) + 1:02x}", f"{here} of {base}")
    country = word(r"/country (\S+)")
    rules = await run("iw", "reg", "get")
    demand(f"country {country}:" in rules, rules)
    await point.demand_subscribed()


@check("apctl tells what the page shows, then of the client that joins")
async def join(point):
    status = await run("apctl", "status")
    demand(re.fullmatch(status_of_page(), status), f"apctl says\n{status}")
    await point.client.start()
    await point.client.wait_joined()
    ssid = word(r"/vap/ssid (\S+)")
    status = await run("apctl", "status")
    demand(f'{VAP}: "{ssid}", 1 stations' in status, f"apctl says\n{status}")
    told = await point.heard("rrm-client-assoc", data={"sta-mac": point.client.address})
    demand(told["ssid"] == ssid, f"lumd tells {told}")


@check("units of the access point are confined as systemd-analyze measures it")
async def exposure(_point):
    await demand_exposure(EXPOSURE)


async def demand_stays(point, change):
    """The client has one association before and after what `change` does to apd."""
    before, apd = stations()[point.client.address]["connected"], APD.pid
    since = point.journal.count
    await change()
    await wait_apd(apd)
    here = stations().get(point.client.address)
    demand(here is not None and here["connected"] >= before, f"the client was put off: {here}")
    demand(not [event for event in point.journal.events[since:]
                if event["what"] in ("rrm-client-disassoc", "rrm-sta-roam")], "lumd tells its end")


async def wait_apd(before):
    """Until another apd than the process before has hostapd, and the radio."""
    async def serves():
        return APD.pid not in (0, before) and \
            "wlan0: up" in (await run("sh", "-c", "apctl status || true"))
    demand(await until(serves, WAIT), "apd has not the access point")


@check("a restart of apd leaves the client connected")
async def restart_apd(point):
    await demand_stays(point, lambda: run("systemctl", "restart", "apd"))
    demand(await point.client.joined(), "the client has gone")


@check("the access point comes back after a restart and a kill of its hostapd")
async def end_hostapd(point):
    for end in (lambda: run("systemctl", "restart", "apd-hostapd"),
                lambda: run("systemctl", "kill", "-s", "KILL", "apd-hostapd")):
        before, since = HOSTAPD.pid, point.journal.count
        await end()
        demand(await until(lambda: HOSTAPD.pid not in (0, before), WAIT), "hostapd does not run")
        await point.heard("rrm-config-changed", since)
        await point.client.wait_joined()


@check("settings that are not there or cannot be used are a line in the journal")
async def wrong_settings(point):
    good = SETTINGS.read_text(encoding="utf-8")
    for wrong, line in (("{", "cannot use /etc/lumd/apd.json: no JSON object"),
                        (good.replace('"6"', '"999"'), "is not a number from 1 to 177"),
                        (None, "there is no /etc/lumd/apd.json")):
        if wrong is None:
            SETTINGS.unlink()
        else:
            SETTINGS.write_text(wrong, encoding="utf-8")
        journal = JournalOf("apd")
        await run("systemctl", "restart", "apd")
        await journal.once(line)
        if wrong is not None:
            demand(await point.client.joined(), "the client has gone")
    demand(await until(lambda: VAP not in kernel(), WAIT), "the access point is still there")
    SETTINGS.write_text(good, encoding="utf-8")
    await run("systemctl", "reload", "apd")
    await point.client.wait_joined()


@check("an upgrade leaves the settings, hostapd and the client as they were")
async def upgrade(point):
    settings, hostapd = SETTINGS.read_bytes(), HOSTAPD.pid
    package, = (TREE / "upgrade").glob("lumd-apd_*.deb")
    await demand_stays(point, lambda: run("dpkg", "--install", str(package)))
    demand(SETTINGS.read_bytes() == settings, "the settings are others")
    demand(HOSTAPD.pid == hostapd, "hostapd was restarted")


@check_rebooted("the next boot starts all in its order")
async def boot(point):
    await point.start()
    await point.wait_up()
    await point.demand_subscribed()
    started = {unit: int(await run("systemctl", "show", "--value", "-p",
                                   "ExecMainStartTimestampMonotonic", unit)) for unit in UNITS}
    demand(0 < started["msgbusd.service"] < started["apd.service"] < started["lumd.service"] and
           0 < started["apd-hostapd.service"] < started["apd.service"], f"not in order: {started}")
    await point.client.start()
    await point.client.wait_joined()


@check_rebooted("without the package hostapd each unit says so in a line")
async def without_hostapd(_point):
    await run("dpkg", "--force-depends", "--purge", "hostapd")
    for unit, line in (("apd-hostapd", "to locate executable"),
                       ("apd", "hostapd is not there")):
        journal = JournalOf(unit)
        await run("systemctl", "restart", unit)
        await journal.once(line)


@check_rebooted("lumd-apd removed and purged without a trace")
async def purge(_point):
    await run("dpkg", "--remove", "lumd-apd")
    left = sorted(PROGRAMS.intersection(running_programs()))
    demand(not left, f"{left} still run")
    demand(SETTINGS.exists(), "the settings have gone")
    await run("dpkg", "--purge", "lumd-apd", "lumd", "msgbus", "iw", "wireless-regdb")
    await run("systemctl", "unmask", "hostapd")  # its package has masked it
    await demand_no_trace(UNITS)
    left = announced() + [name for name in os.listdir("/run") if "apd" in name]
    demand(not left, f"left over: {left}")
