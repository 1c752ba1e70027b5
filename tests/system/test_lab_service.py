"""The lab's service: what it makes of an access point's messages, and how it answers."""
import asyncio
import json

import pytest
import websockets

from labservice.model import ApModel
from labservice.server import Service, ServiceError
from labshow import tables
from labtalk import contract
from labtalk.waiting import until


RADIO = {
    "id": 0, "status": 1, "mac-offset": 0, "radio-mac-count": 8, "locked-for-dca": 0,
    "locked-for-tpc": 0, "locked-for-balancer": 1, "locked-for-80211v": 0, "power": 16,
    "power-max": 20, "power-min": 8, "eirp": 19, "eirp-max": 23, "eirp-min": 5,
    "antenna-configuration": {"antenna-gain": 3, "cable-loss": 0}, "channel": 6, "band": 2,
    "bandwidth": 20, "primary-channel": "none", "available-channels": "1 6 11 ",
    "vaps": [{"id": 0, "ssid": "lab", "mac": "00:11:22:33:44:51", "802dot11k": 1,
              "802dot11r": 0}],
    "assoclist": [{"mac": "02:00:00:00:01:01", "ssid": "lab", "rssi": -50}],
}
IDLE = {key: value for key, value in {**RADIO, "id": 1, "status": 0}.items()
        if key not in ("available-channels", "vaps", "assoclist")}
SUBSCRIBE = {
    "version": "2.4", "service": "rrm", "cmd": "subscribe-request", "ap-mac": "00:11:22:33:44:50",
    "domain": "lab", "ap-mac-count": 16, "use-wildcard-80211r": 1,
    "factory": {"board": "b", "hw": "h", "serial": "s", "mac": "00:11:22:33:44:50"},
    "radios": [RADIO, IDLE],
}


def complaints(message):
    return contract.complaints("rrm-from-lumd", message)


def test_a_message_as_it_should_be_draws_no_complaint():
    assert complaints(SUBSCRIBE) == []


@pytest.mark.parametrize("change, complaint", [
    ({"version": "2.3"}, "version: "), ({"cmd": "what"}, "unknown command 'what'"),
    ({"domain": 5}, "domain: 5 is not of type"), ({"extra": 1}, "'extra' was unexpected"),
    ({"radios": [{**RADIO, "status": 0}, IDLE]}, "radios[0].vaps: "),
    ({"radios": [RADIO, {**IDLE, "status": 1}]}, "radios[1]: 'vaps' is a required property"),
    ({"radios": [RADIO, {**IDLE, "id": 0}]}, "radios[1].id: 1 was expected"),
    ({"radios": [RADIO, {**IDLE, "bandwidth": 30}]}, "radios[1].bandwidth: 30 is not one of"),
    ({"radios": [{**RADIO, "vaps": [{"id": 0}]}, IDLE]}, "radios[0].vaps[0]: 'ssid' is a"),
])
def test_the_service_complains_about(change, complaint):
    assert any(complaint in text for text in complaints({**SUBSCRIBE, **change}))


def test_the_service_complains_about_keys_out_of_order():
    turned = dict(reversed(SUBSCRIBE.items()))
    assert any("out of order" in text for text in complaints(turned))
    turned = {**SUBSCRIBE, "radios": [RADIO, dict(reversed(IDLE.items()))]}
    assert any("radios[1]: members are out of order" in text for text in complaints(turned))


def test_the_service_knows_each_client_until_it_leaves():
    ap = ApModel("00:11:22:33:44:50")
    ap.learn(SUBSCRIBE)
    ap.learn({"cmd": "rrm-client-assoc", "radio": 0, "sta-mac": "02:00:00:00:00:09", "rssi": -70,
              "ssid": "lab", "no-balance": 0})
    ap.learn({"cmd": "rrm-client-disassoc", "radio": 0, "sta-mac": "02:00:00:00:01:01",
              "ssid": "lab"})
    assert list(ap.clients) == ["02:00:00:00:00:09"]
    assert "02:00:00:00:00:09" in tables.overview(ap)


@pytest.mark.parametrize("radios", [
    None, "none", [None], [{"assoclist": None}],
    [{"id": 0, "status": 1, "assoclist": [{"mac": "02:00:00:00:01:01"}, {"rssi": -50}, 7]}]])
def test_the_service_learns_what_it_can_from_half_a_message(radios):
    ap = ApModel("00:11:22:33:44:50")
    ap.learn({**SUBSCRIBE, "radios": radios})
    assert set(ap.clients) <= {"02:00:00:00:01:01"}
    ap.learn(SUBSCRIBE)
    assert ap.clients["02:00:00:00:01:01"]["rssi"] == -50


def test_the_service_answers_a_subscription_and_counts_complaints():
    texts = []

    async def talk():
        service = Service()
        service.subscribe_answers = [{"status": "error", "code": 503}, {"status": "success"}]
        service.readers.append(texts.append)
        await service.start()
        url = f"ws://127.0.0.1:{service.port}/agent"
        async with websockets.connect(url, subprotocols=["websock-rrm"]) as link:
            await link.send(json.dumps(SUBSCRIBE))
            first = json.loads(await asyncio.wait_for(link.recv(), 10))
            await link.send(json.dumps({**SUBSCRIBE, "version": "1.0"}))
            second = json.loads(await asyncio.wait_for(link.recv(), 10))
        await service.stop()
        return first, second, service

    first, second, service = asyncio.run(talk())
    assert (first["status"], first["code"]) == ("error", 503)
    assert list(second)[:5] == ["version", "service", "cmd", "ap-mac", "status"]
    assert service.ap().mac == "00:11:22:33:44:50"
    assert [found["cmd"] for found in service.checker.found] == ["subscribe-request"]
    assert texts[0] == json.dumps(SUBSCRIBE)


def test_the_service_refuses_to_send_to_an_access_point_that_has_just_gone():
    async def talk():
        service = Service()
        await service.start()
        url = f"ws://127.0.0.1:{service.port}/agent"
        async with websockets.connect(url, subprotocols=["websock-rrm"]):
            assert await until(lambda: service.links)
            link = service.links[0]
            link.abort()
            await link.wait_closed()
            with pytest.raises(ServiceError, match="gone"):
                await service.send({"cmd": "rrm-info"}, link)
        await service.stop()

    asyncio.run(talk())
