"""The lab away from its tree: installed as a Python package, and each program by hand."""
import contextlib
import inspect
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys

import pytest

from labshow.handle import LabHandle, running_lab
from labshow.harness import Lab
from labshow.process import find_build
from labtalk import contract, resources
from labtalk.control import ControlClient
from labtalk.journal import Journal
from lumdtest.programs import ROOT
from lumdtest.service import unused_port
from lumdtest.waiting import wait_until

SOURCES = ["lab", "schemas", "platform/msgbus/include", "packaging/msgbusd.conf", "CMakeLists.txt"]
NO_LEAVINGS = shutil.ignore_patterns("__pycache__", "build", "*.egg-info")


@pytest.fixture(name="installed", scope="module")
def installed_package(tmp_path_factory):
    """The folder that pip has put it into. What it is made of is copied, so that the tree stays as
    it is."""
    tree = tmp_path_factory.mktemp("tree")
    for name in SOURCES:
        (tree / name).parent.mkdir(parents=True, exist_ok=True)
        if (ROOT / name).is_dir():
            shutil.copytree(ROOT / name, tree / name, symlinks=True, ignore=NO_LEAVINGS)
        else:
            shutil.copy(ROOT / name, tree / name)
    target = tmp_path_factory.mktemp("installed")
    subprocess.run([sys.executable, "-m", "pip", "install", "--quiet", "--no-build-isolation",
                    "--no-index", "--no-deps", "--target", target, tree / "lab"], check=True,
                   stdin=subprocess.DEVNULL, env={**os.environ, "PIP_ROOT_USER_ACTION": "ignore"})
    shutil.rmtree(tree)
    return target


def test_an_installed_lab_has_a_whole_conversation_without_the_tree(installed, folder):
    result = subprocess.run(
        [installed / "bin" / "lumd-lab", "--bin", find_build().bin, "--once", "--scenario",
         "hostapd-down", "--speed", "20"], check=False, cwd=folder, stdin=subprocess.DEVNULL,
        capture_output=True, text=True, env={**os.environ, "PYTHONPATH": str(installed),
                                             "TMPDIR": str(folder)})
    assert result.returncode == 0, result.stdout[-2000:] + result.stderr
    assert "subscribe-response" in result.stdout


def test_an_installed_lab_brings_the_files_that_it_needs(installed):
    code = "import labtalk.resources as r; print(*(r.resource(name) for name in r.PLACES))"
    listing = subprocess.run([sys.executable, "-c", code], check=True, capture_output=True,
                             text=True, env={**os.environ, "PYTHONPATH": str(installed)}).stdout
    assert len(listing.split()) == len(resources.PLACES)
    for path in listing.split():
        assert path.startswith(str(installed)) and os.path.exists(path)
    assert os.access(installed / "labtalk" / "data" / "bin" / "wpa_cli", os.X_OK)
    page = pathlib.Path("labconsole") / "page"
    assert {path.name for path in (installed / page).iterdir()} == \
        {path.name for path in (ROOT / "lab" / page).iterdir()}
    version = re.search(r"lumd VERSION ([\d.]+)", (ROOT / "CMakeLists.txt").read_text()).group(1)
    assert (installed / f"lumd_lab-{version}.dist-info").exists()


@pytest.mark.parametrize("program", ["lumd-lab", "lumd-lab-ap", "lumd-lab-service"])
def test_an_installed_lab_has_its_programs(installed, program):
    result = subprocess.run([installed / "bin" / program, "--help"], check=True, text=True,
                            capture_output=True,
                            env={**os.environ, "PYTHONPATH": str(installed)})
    assert "usage:" in result.stdout


@pytest.mark.parametrize("part", [running_lab, LabHandle, Lab, Journal, ControlClient,
                                  contract.complaints, contract.messages])
def test_what_others_may_call_is_typed_and_documented(part):
    functions = [part] if not inspect.isclass(part) else [
        function for name, function in vars(part).items()
        if inspect.isfunction(function) and not name.startswith("_")]
    for function in [inspect.unwrap(each) for each in functions]:
        parameters = list(inspect.signature(function).parameters.values())
        named = [each for each in parameters if each.name != "self"
                 and each.kind is not inspect.Parameter.VAR_KEYWORD]
        assert all(each.annotation is not inspect.Parameter.empty for each in named), function
        assert function.__doc__, function


class Shell:
    """The lines of a document, typed one after the other."""

    def __init__(self, folder):
        self._shell = subprocess.Popen(
            ["bash", "--norc", "-s"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, text=True,
            cwd=ROOT, stderr=open(folder / "errors", "w", encoding="utf-8"),
            start_new_session=True, env={**os.environ, "ASAN_OPTIONS": "verify_asan_link_order=0"})

    def type(self, line):
        self._shell.stdin.write(line + "\n")
        self._shell.stdin.flush()

    def end(self):
        """Everything that was started ends by what a person would type, or else is ended."""
        self.type("wait %4; kill %1 %2 %3; wait")
        self._shell.stdin.close()
        try:
            self._shell.wait(timeout=30)
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(self._shell.pid, signal.SIGKILL)


def lines_by_hand(folder, port):
    """What docs/lab.md says, with other places."""
    build = find_build()
    text = (ROOT / "docs" / "lab.md").read_text()
    section = text[text.index("## By hand"):text.index("## Scenarios")]
    block = "\n".join(line[4:] for line in section.splitlines() if line.startswith("    "))
    for old, new in (("\\\n", ""), ("/tmp/lab", folder), ("$PWD/build/release/lib", build.lib),
                     ("build/release/bin", build.bin), ("8080", port)):
        assert str(old) in block
        block = block.replace(str(old), str(new))
    return block.replace("lab/service --port", f"lab/service --control {folder}/service.sock "
                                               "--port").splitlines()


@pytest.mark.skipif(os.getuid() != 0, reason="the bus is root's without a policy")
def test_the_lab_by_hand_works_as_the_document_says(folder):
    export, mkdir, broker, ap, service, config, lumd = lines_by_hand(folder, unused_port())
    shell = Shell(folder)
    try:
        for line in (export, mkdir):
            shell.type(line)
        for line, socket in ((broker, "bus.sock"), (ap, "root/control.sock"),
                             (service, "service.sock")):
            shell.type(line)
            wait_until(lambda socket=socket: answers(folder / socket), f"{socket} is there")
        shell.type(config)
        shell.type(lumd + " &")
        with ControlClient(str(folder / "service.sock")) as client:
            asked = client.call("wait-event", what="subscribe-response", timeout=20)
            assert asked is not None, (folder / "errors").read_text()
            assert client.call("complaints") == []
        shell.type("kill %4")
    finally:
        shell.end()
    errors = (folder / "errors").read_text().splitlines()
    assert [line for line in errors if not line.startswith("listening on ws://")] == []


def answers(path):
    """Whether somebody listens there."""
    try:
        ControlClient(str(path)).close()
    except OSError:
        return False
    return True


def test_the_schemas_of_an_installed_lab_are_those_of_the_tree(installed):
    for path in contract.FOLDER.glob("*.json"):
        copy = installed / "labtalk" / "data" / "schemas" / path.name
        assert json.loads(copy.read_text()) == json.loads(path.read_text())
