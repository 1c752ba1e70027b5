"""docs/service-example.py against the real agent, and its messages against the schemas."""
import asyncio
import importlib.util
import json
import os
import subprocess
import sys

import pytest

from labtalk import contract
from lumdtest.lab import scenario
from lumdtest.programs import ROOT
from lumdtest.service import unused_port
from lumdtest.waiting import wait_until

EXAMPLE = ROOT / "docs" / "service-example.py"
CLIENT = "02:00:00:00:01:01"
NEIGHBOURS = [{"bssid": f"0a:00:00:00:00:{number:02x}", "channel": channel, "signal": signal}
              for number, (channel, signal) in enumerate([(1, -50), (6, -80), (6, -45), (11, -80)])]


@pytest.fixture(name="example")
def running_example(tmp_path):
    """(port, output) of the example's process."""
    port, output = unused_port(), tmp_path / "example.out"
    with open(output, "wb") as file:
        process = subprocess.Popen([sys.executable, EXAMPLE, str(port)], stdout=file, stderr=file,
                                   env={**os.environ, "PYTHONUNBUFFERED": "1"})
    yield port, output
    process.terminate()
    process.wait()


def test_the_example_subscribes_surveys_chooses_a_channel_and_steers(start_lab, example):
    port, output = example
    lab = start_lab(scenario(neighbours=NEIGHBOURS), start_lumd=False)
    config = lab.lab.config_path
    config.write_text(config.read_text().replace(f":{lab.lab.service.port}/", f":{port}/"))
    lab.start_lumd()
    change = lab.wait("update-orvanta", timeout=60)["data"]
    assert (change["ifname"], change["params"]["channel"]) == ("wlan0", "11")
    lab.wait("bss-transition", data={"station": CLIENT})
    wait_until(lambda: f"rrm-sta-roam {CLIENT}" in output.read_text(), "the client has gone")
    assert "00:11:22:33:44:50: channel 11" in output.read_text()


class Link:
    """What the example sends."""

    def __init__(self):
        self.messages = []

    async def send(self, text):
        self.messages.append(json.loads(text))


@pytest.mark.parametrize("handler, message", [("subscribe", "subscribe-request"),
                                              ("decide", "rrm-response")])
def test_what_the_example_sends_is_as_the_schemas_want_it(handler, message):
    specification = importlib.util.spec_from_file_location("example", EXAMPLE)
    example = importlib.util.module_from_spec(specification)
    specification.loader.exec_module(example)
    recorded = json.loads((contract.FOLDER / "examples" / "rrm-from-lumd.json").read_text())
    link = Link()
    asyncio.run(getattr(example, handler)(link, recorded[message][0]))
    assert link.messages
    assert [contract.complaints("rrm-to-lumd", sent) for sent in link.messages] == \
        [[]] * len(link.messages)
