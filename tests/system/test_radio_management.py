"""The RRM mode from end to end: lumd between the service and a virtual access point."""
import pytest

from lumdtest.lab import CONFIG, SPEED, ask, radios

NEIGHBOUR = {"neighbour-mac": "00:11:22:33:50:51", "channel": 11, "priority": 3,
             "vaps": [{"ssid": "office", "mac": "00:11:22:33:50:51"}]}


@pytest.fixture(name="start")
def office_starter(start_lab):
    """Starts offices whose first talk is over."""
    def start(scenario="office", subscribed=True, **options):
        lab = start_lab(scenario, start_lumd=subscribed, **options)
        if subscribed:
            lab.settle()
        return lab

    return start


def clients(lab):
    return {client["mac"]: client["rssi"] for radio in radios(lab)
            for client in radio["assoclist"]}


# Subscription


def test_the_subscription_tells_every_radio_vap_and_client(start):
    lab = start()
    request, = lab.events(what="subscribe-request")
    first, second = request["data"]["radios"]
    assert (first["channel"], first["bandwidth"], first["power"]) == (6, 20, 16)
    assert (second["channel"], second["bandwidth"], second["band"]) == (36, 80, 5)
    assert first["antenna-configuration"] == {"antenna-gain": 3, "cable-loss": 0}
    assert second["antenna-configuration"] == {"antenna-gain": 2, "cable-loss": -1}
    assert [(vap["id"], vap["ssid"], vap["802dot11k"], vap["802dot11r"])
            for vap in second["vaps"]] == [(0, "office", 1, 1), (2, "staff", 1, 1)]
    assert len(first["assoclist"]) == 6
    assert second["available-channels"].startswith("36 40 44 ")


def test_a_refusal_with_503_is_retried_and_another_one_is_final(start):
    lab = start("minimal", subscribed=False)
    lab.service("settings", subscribe_answers=[{"status": "error", "code": 503},
                                               {"status": "error", "code": 403}])
    lab.start_lumd()
    first = lab.wait("subscribe-request")
    second = lab.wait("subscribe-request", first["n"], timeout=60)
    lab.settle(quiet=200 / SPEED, limit=200 / SPEED)
    assert lab.events(second["n"], what="subscribe-request") == []


def test_an_unanswered_request_is_sent_again(start):
    lab = start("minimal", subscribed=False)
    lab.service("settings", subscribe_answers=[None, {"status": "success"}])
    lab.start_lumd()
    first = lab.wait("subscribe-request")
    lab.wait("subscribe-request", first["n"], timeout=60)
    lab.wait_subscribed()


def test_without_hostapd_the_request_waits_until_it_starts(start):
    lab = start("hostapd-down", subscribed=False)
    lab.start_lumd()
    lab.wait("connected")
    lab.settle()
    assert lab.events(what="subscribe-request") == []
    lab.ap("hostapd", action="start")
    lab.wait("subscribe-request")


def test_sentry_mode_subscribes_without_hostapd_and_with_both_radios_off(start):
    lab = start("wids-sentry")
    request, = lab.events(what="subscribe-request")
    assert [radio["status"] for radio in request["data"]["radios"]] == [0, 0]


def test_a_dropped_link_comes_back_and_subscribes_again(start):
    lab = start("minimal")
    since = lab.mark()
    lab.service("drop", hard=True)
    lab.wait("subscribe-request", since, timeout=60)
    lab.wait("subscribe-response", since)


def test_an_old_version_ends_the_subscription_for_good(start):
    lab = start("minimal")
    since = lab.mark()
    lab.send({"version": "2.3", "service": "rrm", "cmd": "rrm-request-mode"}, broken=True)
    lab.wait("unsubscribe-request", since)
    lab.wait("disconnected", since)
    lab.settle(quiet=100 / SPEED, limit=100 / SPEED)
    assert lab.events(since, what="connected") == []
    assert lab.events(since, what="rrm-mode-response") == []
    assert not lab.ap("file-exists", name="/tmp/.orvanta-connected")


def test_a_subscription_is_visible_as_a_file(start):
    lab = start("minimal")
    assert lab.ap("file-exists", name="/tmp/.orvanta-connected")
    assert lab.stop_lumd() == 0
    assert not lab.ap("file-exists", name="/tmp/.orvanta-connected")


# Configuration from the service


def test_a_commanded_channel_is_what_the_next_report_shows(start):
    lab = start()
    since = lab.mark()
    lab.send({"cmd": "rrm-info", **CONFIG, "radios": [
        {"id": 1, "channel": 44, "bandwidth": 40, "primary-channel": "LOWER"}]})
    update = lab.wait("update-orvanta", since)["data"]
    assert list(update["params"].items()) == [("auto-channel", "false"), ("channel", "44"),
                                              ("bandwidth", "40"), ("control-sideband", "lower")]
    report = lab.wait("rrm-config-changed", since)["data"]["radios"][1]
    assert (report["channel"], report["bandwidth"], report["primary-channel"]) == \
        (44, 40, "lower")


def test_power_is_changed_only_where_the_service_may(start):
    lab = start()
    since = lab.mark()
    lab.send({"cmd": "rrm-info", **CONFIG, "use-tpc": 0, "radios": [{"id": 0, "power": 9}]})
    lab.send({"cmd": "rrm-info", **CONFIG, "radios": [{"id": 0, "power": 10}]})
    assert lab.wait("update-orvanta", since)["data"]["params"] == {"tx-power": "10"}
    assert radios(lab)[0]["power"] == 10
    assert len(lab.events(since, what="update-orvanta")) == 1


@pytest.mark.parametrize("behaviour", [
    {"answer": "refuse"}, {"answer": "refuse", "reason": None}, {"answer": "garbage"},
    {"answer": "silent"}])
def test_a_hubd_that_does_not_comply_costs_nothing_but_the_change(start, behaviour):
    lab = start()
    lab.ap("daemon", name="hubd", **behaviour)
    since = lab.mark()
    lab.send({"cmd": "rrm-info", **CONFIG, "radios": [{"id": 0, "power": 10}]})
    lab.wait("update-orvanta", since)
    assert radios(lab)[0]["power"] == 16


def test_a_hubd_that_is_gone_is_noticed_at_once(start):
    lab = start()
    lab.ap("daemon", name="hubd", action="stop")
    lab.send({"cmd": "rrm-info", **CONFIG, "radios": [{"id": 0, "power": 10}]})
    assert radios(lab)[0]["power"] == 16
    assert any("no response (update_orvanta)" in line for line in lab.log_lines())


def test_neighbours_reach_the_driver_and_hostapd_of_the_vap_with_their_ssid(start):
    lab = start()
    on_5ghz = {**NEIGHBOUR, "channel": 52}
    lab.send({"cmd": "rrm-info", **CONFIG, "802dot11k": [NEIGHBOUR, on_5ghz]})
    radios(lab)
    reports = {(report["ifname"], report["list"]): report["lines"] for report in lab.ap("reports")}
    assert reports[("wlan0-va0", "standard")] == [
        'add 001122335051 0x0867 255 11 7 ssid "office" bssload 0 0']
    assert reports[("wlan1-va0", "standard")] == ["add 00:11:22:33:50:51 1728577536 0 52 0 3"]
    table = lab.ap("hostapd-neighbours")
    assert table["wlan1-va0"] == {"00:11:22:33:50:51": {
        "ssid": "office", "nr": "001122335051af590000ff34090603023400"}}
    assert not table.get("wlan1-va2")


def test_fast_transition_is_pushed_per_vap_and_withdrawn(start):
    lab = start()
    lab.send({"cmd": "rrm-info", **CONFIG, "use-80211r": 1})
    vap = {"vap_id": 2, "radio_id": 1, "mobility-domain": 7, "r0-key-holder-id": "r0",
           "r1-key-holder-id": "r1", "fbt-rrb-key": "key", "remotes": [
               {"remote-r1-kh-id": "aa", "remote-r0-kh-id": "bb", "remote-r1-kh-key": "cc"}]}
    update = ask(lab, {"cmd": "fbt-info", "fbt-reassoc-deadline": 500, "fbt-over-ds": 0,
                       "vaps": [vap, {**vap, "vap_id": 6}]}, "update-orvanta-fbt")
    assert set(update) == {"command", "wlan1-va2"}
    settings = update["wlan1-va2"]["ft-config"]
    assert (settings["ft-over-ds"], settings["reassociation-deadline"]) == ("false", 500)
    assert settings["mac"]["aa"] == {"name": "aa", "index": "0", "r0-kh-id": "bb",
                                     "r1-kh-id": "aa", "r0-kh-key": "key", "r1-kh-key": "cc"}
    lab.send({"cmd": "rrm-info", **CONFIG, "use-80211r": 0})
    reset = ask(lab, {"cmd": "fbt-info"}, "reset-orvanta-fbt")
    assert list(reset) == ["command"] + [f"wlan{radio}-va{vap}" for radio in range(2)
                                         for vap in range(7)]


# Surveys


def test_the_generic_survey_takes_five_passes_over_the_channels(start):
    lab = start()
    since = lab.mark()
    survey = ask(lab, {"cmd": "rrm-update", "rrm-scan-channels": "1 6 36"}, "rrm-response",
                 timeout=60)
    assert len(survey["rf-environment"]) == 5
    assert {entry["channel"] for entry in survey["rf-environment"][0]} == {1, 6, 36}
    assert len(lab.events(since, what="scan-start", data={"ifname": "wlan0"})) == 5
    lab.settle()
    assert lab.ap("locks") == []


def test_the_vendor_survey_measures_the_lowest_channel_of_each_radio(start):
    lab = start()
    survey = ask(lab, {"cmd": "rrm-update", "vexor-rrm-scanning": 1, "rrm-scan-delay": 2,
                       "rrm-scan-channels": "11 6 100 149"}, "rrm-response", timeout=60)
    table, = survey["rf-environment"]
    assert {entry["channel"] for entry in table} == {6, 100}
    known = {entry["bssid"]: entry["tx-power"] for entry in lab.lab.scenario["neighbours"]}
    assert all(entry["tx-power"] == known[entry["bssid"]] for entry in table)


def test_a_command_waits_for_the_survey_and_a_request_for_radios_ends_it(start):
    lab = start()
    since = lab.mark()
    lab.send({"cmd": "rrm-update", "rrm-scan-channels": "1 6 11 36 40 44 48"})
    lab.wait("scan-start", since)
    lab.send({"cmd": "rrm-info", **CONFIG, "radios": [{"id": 0, "power": 10}]})
    assert radios(lab)[0]["power"] == 16, "asked before the command is carried out"
    lab.wait("update-orvanta", since)
    lab.settle(quiet=30 / SPEED, limit=30 / SPEED)
    # Answer and command leave on different threads, so nothing is said of which arrives first.
    order = [event["what"] for event in lab.events(since)
             if event["what"] in ("scan-stop", "rrm-mode-response", "update-orvanta",
                                  "rrm-response")]
    assert order.index("scan-stop") < order.index("rrm-mode-response")
    assert order.index("scan-stop") < order.index("update-orvanta")
    assert "rrm-response" not in order


@pytest.mark.parametrize("fault", [
    {"call": "vendor", "name": "VEXOR_CMD_CUSTOM_SCAN_RESULTS", "errno": "EIO"},
    {"call": "vendor", "name": "VEXOR_CMD_CUSTOM_SCAN_RESULTS", "count": 0},
    {"call": "vendor", "name": "VEXOR_CMD_CUSTOM_SCAN_RESULTS", "count": -1},
    {"call": "vendor", "name": "VEXOR_CMD_CUSTOM_SCAN", "errno": "EBUSY"},
])
def test_a_driver_that_fails_a_survey_leaves_lumd_alive_and_answering(start, fault):
    lab = start()
    lab.ap("fault-add", rule=fault)
    survey = ask(lab, {"cmd": "rrm-update", "rrm-scan-channels": "1 36"}, "rrm-response",
                 timeout=60)
    assert isinstance(survey["rf-environment"], list)
    assert len(radios(lab)) == 2


# Clients and steering


def test_clients_that_come_and_go_are_reported(start):
    lab = start()
    since = lab.mark()
    lab.ap("station-add", vap="wlan1-va2", mac="02:00:00:00:00:07", rssi=-64)
    came = lab.wait("rrm-client-assoc", since)["data"]
    assert (came["radio"], came["sta-mac"], came["rssi"], came["no-balance"]) == \
        (1, "02:00:00:00:00:07", -64, 0)
    lab.ap("station-remove", mac="02:00:00:00:00:07")
    assert lab.wait("rrm-client-disassoc", since)["data"]["ssid"] == "staff"


def test_the_weakest_clients_are_asked_first_and_who_moves_is_gone(start):
    lab = start()
    since = lab.mark()
    lab.send({"cmd": "rrm-sta-overload", "ap-mac": "00:11:22:33:44:50",
              "radios": [{"id": 0, "roam-count": 2}], "802dot11k": [NEIGHBOUR]})
    roam = lab.wait("rrm-sta-roam", since)["data"]
    assert roam["target-mac"] == "00:11:22:33:50:51"
    asked = [event["data"]["station"] for event in lab.events(since, what="bss-transition")]
    assert asked == ["02:1a:2b:00:00:04", "02:1a:2b:00:00:03"]
    lab.settle()
    assert "02:1a:2b:00:00:04" not in clients(lab)
    assert "02:1a:2b:00:00:03" in clients(lab)


def test_who_has_refused_once_and_who_knows_no_80211v_are_not_asked(start):
    lab = start()
    overload = {"cmd": "rrm-sta-overload", "ap-mac": "00:11:22:33:44:50",
                "radios": [{"id": 0, "roam-count": 99}]}
    lab.ap("station-set", mac="02:1a:2b:00:00:03", given={"roam-attempt": True})
    since = lab.mark()
    lab.send(overload)
    lab.settle()
    asked = {event["data"]["station"] for event in lab.events(since, what="bss-transition")}
    assert asked == {f"02:1a:2b:00:00:{n:02x}" for n in (1, 2, 4, 5)}


def test_a_fading_client_is_reported_weaker(start):
    lab = start()
    before = clients(lab)["02:1a:2b:00:00:07"]
    lab.ap("station-set", mac="02:1a:2b:00:00:07", given={"rssi": -70})
    assert before == -44
    assert clients(lab)["02:1a:2b:00:00:07"] == -70


@pytest.mark.parametrize("fault", [{"errno": "EIO"}, {"count": 0}, {"count": -1},
                                   {"count": 1000000}, {"delay": 5}])
def test_a_driver_that_lies_about_its_clients_leaves_lumd_alive(start, fault):
    lab = start()
    lab.ap("fault-add", rule={"call": "vendor", "name": "VEXOR_CMD_GET_ASSOC_STAS",
                              "times": 3, **fault})
    assert len(radios(lab)) == 2
    lab.ap("fault-clear")
    assert len(clients(lab)) == 12


# hostapd, the store and the files


def test_a_restart_of_hostapd_is_told_and_survived(start):
    lab = start()
    since = lab.mark()
    lab.ap("hostapd", action="stop")
    lab.wait("rrm-disassoc-all-clients", since)
    lab.ap("hostapd", action="start")
    report = lab.wait("rrm-config-changed", since)["data"]
    assert [radio["status"] for radio in report["radios"]] == [1, 1]


def test_a_hostapd_that_stays_away_makes_lumd_withdraw_its_settings(start):
    lab = start()
    lab.send({"cmd": "rrm-info", **CONFIG, "radios": [{"id": 0, "channel": 11}]})
    assert radios(lab)[0]["channel"] == 11
    since = lab.mark()
    lab.ap("hostapd", action="stop")
    lab.wait("reset-orvanta", since, timeout=60, data={"ifname": "wlan0"})
    lab.wait("reset-orvanta", since, timeout=60, data={"ifname": "wlan1"})
    lab.settle()
    assert lab.ap("status")["radios"][0]["channel"] == 6


def test_a_changed_configuration_is_reported_when_the_notify_file_says_so(start):
    lab = start()
    since = lab.mark()
    lab.ap("config-set", path="/orvanta/dca", value="false")
    report = lab.wait("rrm-config-changed", since)["data"]
    assert [radio["locked-for-dca"] for radio in report["radios"]] == [1, 1]


@pytest.mark.parametrize("behaviour", [{"answer": "garbage", "times": 5},
                                       {"answer": "refuse"}])
def test_a_store_that_answers_nonsense_is_survived(start, behaviour):
    lab = start(subscribed=False)
    lab.ap("daemon", name="vaultd", **behaviour)
    lab.start_lumd()
    request = lab.wait("subscribe-request", timeout=60)
    assert len(request["data"]["radios"]) == 2


def test_an_interface_that_disappears_is_reported_as_down(start):
    lab = start("minimal")
    since = lab.mark()
    lab.ap("hostapd", action="stop")
    lab.wait("rrm-disassoc-all-clients", since)
    lab.ap("radio-set", ifname="wlan1", up=False)
    lab.ap("hostapd", action="start")
    report = lab.wait("rrm-config-changed", since)["data"]
    assert [radio["status"] for radio in report["radios"]] == [1, 0]
