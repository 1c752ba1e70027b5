#!/usr/bin/python3
"""A radio-management service in sixty lines: takes access points in, surveys the air once, moves the
2.4 GHz radio to the quietest channel and steers one client away from it.

    docs/service-example.py [PORT]    and, in lumd.conf, orvanta_service_url=ws://HOST:PORT/

Needs python3-websockets. What may be sent, and what comes back, is in docs/protocol.md.
"""
import asyncio
import json
import sys

import websockets

CHANNELS = (1, 6, 11)
CONFIG = {"use-dca": 1, "use-tpc": 1, "use-80211v": 1}


async def send(link, cmd, **members):
    await link.send(json.dumps({"version": "2.4", "service": "rrm", "cmd": cmd, **members}))


def quietest(environment):
    """The channel with the least power on it: decibels do not add, milliwatts do."""
    load = dict.fromkeys(CHANNELS, 0.0)
    for neighbour in (entry for each_pass in environment for entry in each_pass):
        if neighbour["channel"] in load:
            load[neighbour["channel"]] += 10 ** (neighbour["rssi"] / 10)
    return min(load, key=load.get)


async def subscribe(link, _message):
    await send(link, "subscribe-response", status="success", code=200, config=CONFIG)
    # A channel of each band, or the other band would be surveyed whole; blanks, no commas.
    await send(link, "rrm-update", **{"rrm-scan-channels": "1 6 11 36"})


async def decide(link, message):
    channel = quietest(message["rf-environment"])
    print(f"{message['ap-mac']}: channel {channel}", flush=True)
    radio = {"id": 0, "channel": channel, "bandwidth": 20}
    await send(link, "rrm-info", radios=[radio], **CONFIG)  # no answer: the next report tells
    if message["radios"][0].get("assoclist"):
        overloaded = {"id": 0, "roam-count": 1}
        await send(link, "rrm-sta-overload", radios=[overloaded], **{"ap-mac": message["ap-mac"]})


async def tell(_link, message):
    print(f"{message['ap-mac']}: {message['cmd']} {message.get('sta-mac', '')}", flush=True)


async def serve(link, _path=None):
    known = {"subscribe-request": subscribe, "rrm-response": decide}
    async for text in link:
        message = json.loads(text)
        await known.get(message["cmd"], tell)(link, message)


async def main(port):
    async with websockets.serve(serve, "", port, subprotocols=["websock-rrm"], max_size=None):
        await asyncio.Future()


if __name__ == "__main__":
    asyncio.run(main(int(sys.argv[1]) if len(sys.argv) > 1 else 8080))
