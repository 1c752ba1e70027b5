"""The init scripts of OpenWrt, run by a stand-in for its rc.common, UCI and procd."""
import os
import re
import shutil
import subprocess

import pytest

from lumdtest.mounts import own_mounts
from lumdtest.programs import ROOT

FILES = ROOT / "packaging/openwrt/files"
SHELLS = {"dash": ["sh"], "busybox": ["busybox", "ash"]}
EVERY_KEY = {
    "roam_service_url": "ws://a:1/a", "orvanta_service_url": "ws://b:2/b",
    "mac-list-service-url": "ws://c:3/c", "initial_connection_delay": "4",
    "max_connection_delay": "60", "ap_location": "building 7, \\ & $HOME", "mac-list-id": "list",
    "log_level": "7", "log_file": "/tmp/lumd.log"}


class Router:
    def __init__(self, folder, shell):
        self._shell, self._uci, self._var = shell, folder / "config", folder / "var"
        self._uci.mkdir()
        self._var.mkdir()
        shutil.copy(FILES / "lumd.config", self._uci / "lumd")
        self.logged = ""

    def configure(self, **options):
        lines = "".join(f"\toption {name} '{value}'\n" for name, value in options.items())
        (self._uci / "lumd").write_text(f"config lumd 'main'\n{lines}")

    def run(self, script, verb):
        """The lines of what procd is told."""
        result = subprocess.run(
            [*own_mounts({"/var": self._var}), *self._shell, ROOT / "tests/system/openwrt/rc.common",
             FILES / script, verb], capture_output=True, text=True, check=True,
            env=os.environ | {"UCI_FOLDER": str(self._uci)})
        self.logged = result.stderr
        return result.stdout.splitlines()

    def lumd_conf(self):
        path = self._var / "etc/lumd.conf"
        return path.read_text() if path.exists() else None


@pytest.fixture(params=SHELLS, name="router")
def router_with(request, tmp_path):
    shell = SHELLS[request.param]
    if not shutil.which(shell[0]):
        pytest.skip(f"no {shell[0]} here")
    if subprocess.run([*own_mounts({"/var": tmp_path}), "true"], check=False).returncode != 0:
        pytest.skip("no mount namespaces here")
    return Router(tmp_path, shell)


def test_every_key_of_lumd_conf_has_an_option(router):
    router.configure(**{key.replace("-", "_"): value for key, value in EVERY_KEY.items()})
    router.run("lumd.init", "start_service")
    assert router.logged == ""
    assert dict(line.split("=", 1) for line in router.lumd_conf().splitlines()) == EVERY_KEY
    page = (ROOT / "packaging/man/lumd.conf.5").read_text().replace("\\-", "-")
    assert set(re.findall(r"^\.TP\n\.B (\S+)$", page, re.M)) == set(EVERY_KEY)


def test_lumd_runs_with_the_translation_after_hostapd_was_announced(router):
    router.configure(orvanta_service_url="ws://b:2/b")
    told = router.run("lumd.init", "start_service")
    assert (told[0], told[-1]) == ("open", "close")
    assert ("command|/bin/sh|-c|/usr/libexec/lumd/hostapd-notify; "
            "exec /usr/sbin/lumd -f /var/etc/lumd.conf") in told
    assert {"respawn|3600|5|0", "term_timeout|30", "stderr|1"} <= set(told)


def test_lumd_is_begun_anew_when_its_translation_or_a_platform_file_differs(router):
    router.configure(orvanta_service_url="ws://b:2/b")
    told = router.run("lumd.init", "start_service")
    assert ("file|/var/etc/lumd.conf|/etc/lumd/factory.json|/etc/lumd/radios.json|"
            "/etc/lumd/antennas.json") in told
    assert router.run("lumd.init", "service_triggers") == ["trigger lumd"]


def test_a_later_translation_replaces_the_one_before(router):
    router.configure(orvanta_service_url="ws://b:2/b", log_level="7")
    router.run("lumd.init", "start_service")
    router.configure(orvanta_service_url="ws://b:2/other")
    router.run("lumd.init", "start_service")
    assert router.lumd_conf() == "orvanta_service_url=ws://b:2/other\n"


def test_as_shipped_lumd_is_not_started_and_says_why(router):
    assert router.run("lumd.init", "start_service") == []
    assert router.logged == "/etc/config/lumd: no service has a URL, not started\n"
    assert router.lumd_conf() is None


def test_a_disabled_lumd_is_not_started(router):
    router.configure(enabled="0", orvanta_service_url="ws://b:2/b")
    assert router.run("lumd.init", "start_service") == []
    assert router.logged == ""


def test_a_value_of_two_lines_sets_no_second_key(router):
    router.configure(orvanta_service_url="ws://b:2/b", ap_location="here\nlog_level=15")
    router.run("lumd.init", "start_service")
    assert router.lumd_conf() == "orvanta_service_url=ws://b:2/b\n"
    assert router.logged == "/etc/config/lumd: ap_location has two lines, ignored\n"


def test_the_broker_is_begun_anew_when_its_configuration_differs(router):
    told = router.run("msgbusd.init", "start_service")
    assert "command|/usr/sbin/msgbusd|-s|/var/run/msgbus.sock" in told
    assert "file|/etc/lumd/msgbusd.conf" in told
