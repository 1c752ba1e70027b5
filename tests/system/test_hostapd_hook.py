"""The hook that announces a running hostapd: alone in folders of its own, and to a real lumd."""
import os
import pathlib
import shutil
import subprocess

import pytest

from lumdtest.mounts import own_mounts

HOOK = pathlib.Path(__file__).parents[2] / "packaging/hooks/hostapd-notify"
STARTED, GENERAL = ".orvanta_notify_hostapd_started", ".orvanta_notify"
SHELLS = {"dash": ["sh"], "busybox": ["busybox", "ash"]}


@pytest.fixture(scope="module", autouse=True)
def allowed_to_mount(tmp_path_factory):
    folder = tmp_path_factory.mktemp("mounts")
    if subprocess.run([*own_mounts({"/tmp": folder}), "true"], check=False).returncode != 0:
        pytest.skip("no mount namespaces here")


class Place:
    """What the hook sees as /tmp and /run."""

    def __init__(self, folder, shell):
        self.tmp, self.run = folder / "tmp", folder / "run"
        self.tmp.mkdir()
        self.run.mkdir()
        self._shell = shell
        self.path = os.environ["PATH"]

    def hostapd_runs(self):
        (self.run / "hostapd.pid").write_text("4242\n")

    def hook(self):
        return subprocess.run([*own_mounts({"/run": self.run, "/tmp": self.tmp}), *self._shell, HOOK],
                              capture_output=True, text=True, check=False,
                              env={**os.environ, "PATH": self.path})

    def announced(self):
        return sorted(path.name for path in self.tmp.iterdir())


@pytest.fixture(params=SHELLS, name="place")
def place_with(request, tmp_path):
    shell = SHELLS[request.param]
    if not shutil.which(shell[0]):
        pytest.skip(f"no {shell[0]} here")
    return Place(tmp_path, shell)


def test_a_running_hostapd_is_announced(place):
    place.hostapd_runs()
    assert place.hook().returncode == 0
    assert place.announced() == [GENERAL, STARTED]


def test_without_hostapd_nothing_is_announced(place):
    assert place.hook().returncode == 0
    assert place.announced() == []


def test_the_announcement_of_a_hostapd_that_has_gone_is_taken_back(place):
    (place.tmp / STARTED).touch()
    place.hook()
    assert place.announced() == []


def test_a_hostapd_that_comes_while_the_hook_runs_stays_announced(tmp_path):
    place = Place(tmp_path, SHELLS["dash"])
    rm = place.run / "rm"
    rm.write_text(f"#!/bin/sh\necho 4242 >/run/hostapd.pid\n: >/tmp/{STARTED}\n: >/tmp/{GENERAL}\n"
                  'exec /bin/rm "$@"\n')
    rm.chmod(0o755)
    place.path = f"/run:{place.path}"
    assert place.hook().returncode == 0
    assert place.announced() == [GENERAL, STARTED]


def test_an_announcement_that_lumd_has_not_seen_yet_may_be_repeated(place):
    place.hostapd_runs()
    place.hook()
    assert place.hook().returncode == 0
    assert place.announced() == [GENERAL, STARTED]


def test_a_link_that_somebody_else_has_put_there_is_not_followed(place):
    place.hostapd_runs()
    (place.tmp / STARTED).symlink_to(place.tmp / "victim")
    result = place.hook()
    assert not (place.tmp / "victim").exists()
    assert (result.returncode, result.stderr) == (
        1, f"hostapd-notify: cannot make /tmp/{STARTED}\n")


def test_a_folder_that_cannot_be_written_gets_one_line(place):
    place.hostapd_runs()
    place.tmp = pathlib.Path("/proc/self")
    result = place.hook()
    assert (result.returncode, result.stderr) == (
        1, f"hostapd-notify: cannot make /tmp/{STARTED}\n")


def test_lumd_restarted_beside_a_running_hostapd_subscribes(start_lab):
    lab = start_lab()
    assert lab.stop_lumd() == 0
    files = lab.lab.ap.files
    since = lab.mark()
    folders = {"/run": files.path("/var/run"), "/tmp": files.path("/tmp")}
    subprocess.run([*own_mounts(folders), "sh", HOOK], check=True)
    lab.start_lumd()
    lab.wait("subscribe-request", since)
