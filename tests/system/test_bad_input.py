"""Files that are not as they should be, and what is not there: a clear line, nothing lost."""
import subprocess

import pytest

from lumdtest.lab import running_lab
from lumdtest.waiting import PATIENCE, wait_until

SPEED = 8  # the bus has its seconds to answer also on a busy machine
KINDS = {"empty": "no JSON object", "binary": "no JSON object", "folder": "Is a directory",
         "loop": "Too many levels of symbolic links"}  # as good as without rights, for root also
WARNINGS = "log_level=3"


def spoil(path, kind):
    path.unlink(missing_ok=True)
    if kind == "empty":
        path.touch()
    elif kind == "binary":
        path.write_bytes(bytes(range(256)) * 40)
    elif kind == "folder":
        path.mkdir()
    else:
        path.symlink_to(path.name)


def lab_of(**options):
    return running_lab(speed=SPEED, start_lumd=False, **options)


def errors(lines):
    return [line.partition(" error: ")[2] for line in lines if " error: " in line]


@pytest.mark.parametrize("kind", KINDS)
def test_a_platform_file_that_cannot_be_used_is_told_and_lumd_does_its_work(kind):
    with lab_of(config=[WARNINGS]) as lab:
        paths = [lab.lab.folder / "platform" / name for name in ("factory.json", "radios.json")]
        for path in paths:
            spoil(path, kind)
        lab.start_lumd()
        lab.wait_subscribed()
        told = errors(lab.log_lines())
        assert {f"cannot use {path}: {KINDS[kind]}" for path in paths} <= set(told)
        assert lab.stop_lumd() == 0


@pytest.mark.parametrize("kind", ["empty", "binary", "folder"])
def test_pid_and_notify_files_count_whatever_they_hold(kind):
    with lab_of(config=[WARNINGS]) as lab:
        for name in ("var/run/hostapd.pid", "tmp/.orvanta_notify",
                     "tmp/.orvanta_notify_hostapd_started", "tmp/.orvanta_notify_config_updated"):
            spoil(lab.lab.ap.root / name, kind)
        lab.start_lumd()
        lab.wait_subscribed()
        assert lab.log_lines() == []
        assert lab.stop_lumd() == 0


@pytest.mark.parametrize("path, why", [
    ("/dev/full", "cannot write log file /dev/full: No space left on device"),
    ("/tmp", "cannot open log file /tmp: Is a directory"),
    ("/nonexistent/log", "cannot open log file /nonexistent/log: No such file or directory")])
def test_a_log_file_that_cannot_be_written_costs_no_line_of_the_log(path, why):
    with lab_of(mode="portal", config=[WARNINGS, f"log_file={path}", "unknown=1"]) as lab:
        lab.start_lumd()
        lab.wait("connected")
        assert lab.stop_lumd() == 0
        lines = (lab.lab.ap.root / "syslog").read_text().splitlines()
        assert [line.partition(" ")[2].rpartition(":")[2] for line in lines] == \
            [" ignored", why.rpartition(":")[2]]
        assert lines[1].endswith(why)


def test_without_a_folder_for_notify_files_the_link_is_made_all_the_same():
    with lab_of(config=[WARNINGS]) as lab:
        (lab.lab.ap.root / "tmp").rename(lab.lab.folder / "away")
        lab.start_lumd()
        lab.wait("connected")
        assert lab.lab.lumd.running
        assert lab.stop_lumd() == 0


@pytest.mark.parametrize("mode", ["rrm", "wids"])
def test_a_second_lumd_ends_and_the_first_goes_on(mode):
    with lab_of(mode=mode, config=[WARNINGS]) as lab:
        lab.start_lumd()
        lab.wait_subscribed() if mode == "rrm" else lab.wait("connected")
        command = [lab.lab.build.bin / "lumd", "-f", lab.lab.config_path]
        second = subprocess.run(command, env=lab.lab.lumd_environment(), timeout=PATIENCE,
                                check=False)
        assert second.returncode == 255
        assert errors(lab.log_lines())[0] == (
            f"msgbus: module 28 cannot join the bus at {lab.lab.bus_path}: the broker refused it: "
            "another process may have that place")
        assert lab.lab.lumd.running
        assert lab.stop_lumd() == 0


def test_a_second_portal_waits_for_the_place_of_the_first():
    with lab_of(mode="portal", config=[WARNINGS]) as lab:
        lab.start_lumd()
        lab.wait("connected")
        command = [lab.lab.build.bin / "lumd", "-f", lab.lab.config_path]
        with subprocess.Popen(command, env=lab.lab.lumd_environment()) as second:
            wait_until(lambda: errors(lab.log_lines()), "a line of the second")
            assert "another process may have that place" in errors(lab.log_lines())[0]
            second.terminate()
            assert second.wait(PATIENCE) == 0
        assert lab.lab.lumd.running
        assert lab.stop_lumd() == 0


def test_a_second_broker_ends_and_the_first_goes_on():
    with lab_of(mode="rrm") as lab:
        second = subprocess.run([lab.lab.build.bin / "msgbusd", "-s", lab.lab.bus_path],
                                capture_output=True, timeout=PATIENCE, check=False)
        assert (second.returncode, second.stderr.decode()) == \
            (1, f"msgbusd: {lab.lab.bus_path} is in use\n")
        lab.start_lumd()
        lab.wait_subscribed()
        assert lab.stop_lumd() == 0


def test_a_binary_configuration_file_is_told_in_few_lines(programs, folder):
    path = folder / "lumd.conf"
    spoil(path, "binary")
    result = subprocess.run([programs.binary("lumd"), "-f", path], capture_output=True,
                            timeout=PATIENCE, check=False)
    assert (result.returncode, result.stdout) == (0, b"")
    lines = result.stderr.decode(errors="replace").splitlines()
    assert 2 <= len(lines) < 25
    assert lines[-1] == f"lumd: {path}: no mode is enabled"
    assert b"\x1b" not in result.stderr
