"""Each message to the service, byte for byte: keys in their order, no blanks, every field."""
import pytest

from lumdtest.lab import CONFIG, ask, begin, service_texts

MAC = "00:11:22:33:44:50"
FACTORY = '"factory":{"board":"lab-ap","hw":"1.0","serial":"LAB0000001","mac":"' + MAC + '"}'
ANTENNA = '"antenna-configuration":{"antenna-gain":0,"cable-loss":0}'
VAPS = ['"vaps":[{"id":0,"ssid":"lab","mac":"00:11:22:33:44:51","802dot11k":1,"802dot11r":0}]',
        '"vaps":[{"id":0,"ssid":"lab","mac":"00:11:22:33:44:59","802dot11k":1,"802dot11r":0}]']
CHANNELS = ["1 2 3 4 5 6 7 8 9 10 11 12 13 ",
            "36 40 44 48 52 56 60 64 100 104 108 112 116 120 124 128 132 136 140 149 153 157 161 "
            "165 "]
IN_USE = ['"channel":6,"band":2,"bandwidth":20,"primary-channel":"none"',
          '"channel":36,"band":5,"bandwidth":80,"primary-channel":"none"']
CLIENTS = ['"assoclist":[{"mac":"02:00:00:00:01:01","ssid":"lab","rssi":-50}]', '"assoclist":[]']
NO_CLIENTS = ['"assoclist":[]', '"assoclist":[]']
SURVEY = ('"rf-environment":[[{"bssid":"0a:00:00:00:00:01","rssi":-70,"channel":1,"tx-power":20,'
          '"primary-channel":"none","bandwidth":20},{"bssid":"0a:00:00:00:00:02","rssi":-80,'
          '"channel":36,"tx-power":20,"primary-channel":"ll","bandwidth":80}]]')


def enabled(number, clients=None, dca=0):
    return (f'{{"id":{number},"status":1,"mac-offset":{8 * number},"radio-mac-count":8,'
            f'"locked-for-dca":{dca},"locked-for-tpc":0,"locked-for-balancer":1,'
            '"locked-for-80211v":0,"power":16,"power-max":20,"power-min":8,"eirp":16,'
            f'"eirp-max":30,"eirp-min":0,{ANTENNA},{IN_USE[number]},'
            f'"available-channels":"{CHANNELS[number]}",{VAPS[number]}'
            + ("," + clients[number] if clients else "") + "}")


def disabled(number):
    channel = '"channel":1,"band":2' if number == 0 else '"channel":36,"band":5'
    spec = IN_USE[number].partition('"bandwidth"')
    return (f'{{"id":{number},"status":0,"mac-offset":{8 * number},"radio-mac-count":8,'
            '"locked-for-dca":1,"locked-for-tpc":1,"locked-for-balancer":1,'
            '"locked-for-80211v":1,"power":16,"power-max":16,"power-min":11,"eirp":16,'
            f'"eirp-max":100,"eirp-min":0,{ANTENNA},{channel},{"".join(spec[1:])}}}')


def message(cmd, *members):
    return (f'{{"version":"2.4","service":"rrm","cmd":"{cmd}","ap-mac":"{MAC}","domain":"lab",'
            + ",".join(members) + "}")


def report(cmd, *radios, more=()):
    return message(cmd, '"radios":[' + ",".join(radios) + "]", *more)


@pytest.fixture(name="talk")
def conversation(start_lab):
    """A subscribed agent and every text that the service received from it."""
    lab = start_lab(start_lumd=False)
    texts = service_texts(lab)
    begin(lab)
    return lab, texts


def test_the_subscribe_request(talk):
    _, texts = talk
    assert texts == [message("subscribe-request", '"ap-mac-count":16', '"use-wildcard-80211r":1',
                             FACTORY, '"radios":[' + enabled(0, CLIENTS) + ","
                             + enabled(1, CLIENTS) + "]")]


def test_the_mode_response_without_clients_and_with_them_once_80211v_is_on(talk):
    lab, texts = talk
    ask(lab, {"cmd": "rrm-request-mode"}, "rrm-mode-response")
    assert texts[-1] == report("rrm-mode-response", enabled(0), enabled(1))
    lab.send({"cmd": "rrm-info", **CONFIG})
    ask(lab, {"cmd": "rrm-request-mode"}, "rrm-mode-response")
    assert texts[-1] == report("rrm-mode-response", enabled(0, CLIENTS), enabled(1, CLIENTS))


def test_a_changed_configuration(talk):
    lab, texts = talk
    since = lab.mark()
    lab.ap("config-set", path="/orvanta/dca", value="false")
    lab.wait("rrm-config-changed", since)
    assert texts[-1] == report("rrm-config-changed", enabled(0, dca=1), enabled(1, dca=1))


def test_a_changed_configuration_with_clients(talk):
    lab, texts = talk
    lab.send({"cmd": "rrm-info", **CONFIG})
    ask(lab, {"cmd": "rrm-request-mode"}, "rrm-mode-response")  # 802.11v is on
    lab.ap("station-remove", mac="02:00:00:00:01:01")
    lab.wait("rrm-client-disassoc")
    since = lab.mark()
    lab.ap("notify", name="config_updated")
    lab.wait("rrm-config-changed", since)
    assert texts[-1] == report("rrm-config-changed", enabled(0, NO_CLIENTS),
                               enabled(1, NO_CLIENTS))


@pytest.mark.parametrize("down", [(0,), (1,), (0, 1)])
def test_a_restart_of_hostapd_that_leaves_radios_down(talk, down):
    lab, texts = talk
    since = lab.mark()
    lab.ap("hostapd", action="stop")
    lab.wait("rrm-disassoc-all-clients", since)
    assert texts[-1] == message("rrm-disassoc-all-clients", FACTORY)
    for number in down:
        lab.ap("radio-set", ifname=f"wlan{number}", up=False)
    lab.ap("hostapd", action="start")
    lab.wait("rrm-config-changed", since)
    assert texts[-1] == report("rrm-config-changed",
                               *[disabled(number) if number in down else enabled(number)
                                 for number in (0, 1)])


def test_the_vendor_survey_s_result(talk):
    lab, texts = talk
    ask(lab, {"cmd": "rrm-update", "rrm-scan-channels": "1 36", "vexor-rrm-scanning": 1},
        "rrm-response")
    assert texts[-1] == report("rrm-response", enabled(0), enabled(1), more=[SURVEY])


def test_a_survey_that_finds_nobody(talk):
    lab, texts = talk
    ask(lab, {"cmd": "rrm-update", "rrm-scan-channels": "13 165"}, "rrm-response")
    assert texts[-1] == report("rrm-response", enabled(0), enabled(1),
                               more=['"rf-environment":[]'])


def test_the_unsubscribe_request(talk):
    lab, texts = talk
    since = lab.mark()
    lab.send({"version": "2.3", "cmd": "rrm-request-mode"}, broken=True)
    lab.wait("unsubscribe-request", since)
    assert texts[-1] == message("unsubscribe-request", FACTORY)


@pytest.mark.parametrize("trap, cmd, members", [
    ({"type": "auth", "client_info": {"using-802.11v": "YES"}}, "rrm-client-assoc",
     '"rssi":-61,"ssid":"lab","no-balance":0'),
    ({"type": "8021x-success"}, "rrm-client-assoc", '"rssi":-61,"ssid":"lab","no-balance":1'),
    ({"type": "reassoc"}, "rrm-client-disassoc", '"ssid":"lab"'),
    ({"type": "80211v-roam", "target_mac": "02:00:00:00:00:07"}, "rrm-sta-roam",
     '"ssid":"lab","target-mac":"02:00:00:00:00:07"'),
])
@pytest.mark.parametrize("dev, radio", [("wlan1-va2", '"radio":1,'), ("wlan1", "")])
def test_what_happened_to_a_client(talk, trap, cmd, members, dev, radio):
    lab, texts = talk
    lab.send({"cmd": "rrm-info", **CONFIG})
    ask(lab, {"cmd": "rrm-request-mode"}, "rrm-mode-response")
    since = lab.mark()
    lab.ap("trap", dev=dev, mac="02:00:00:00:00:05", rssi=-61, ssid="lab", **trap)
    lab.wait(cmd, since)
    assert texts[-1] == message(cmd, f'{radio}"sta-mac":"02:00:00:00:00:05"', members)
