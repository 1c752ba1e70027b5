"""What bash completes behind the programs."""
import subprocess

import pytest

from lumdtest.programs import ROOT

SCRIPTS = ROOT / "packaging/completion"
VERBS = ["call", "list", "monitor", "names", "send"]
NAMES = ["guardd", "hubd", "lumd", "orvanta", "orvanta-events", "portal", "scand", "vaultd"]


def choices(program, *words, cwd):
    """The choices for the last of these words behind the program."""
    name = program.name
    lines = ['source "$1"; shift', 'COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))',
             f"_{name}", 'printf "%s\\n" "${COMPREPLY[@]}"']
    result = subprocess.run(["bash", "-uc", "; ".join(lines), "bash", SCRIPTS / name, program, *words],
                            capture_output=True, text=True, check=True, cwd=cwd)
    assert result.stderr == ""
    return sorted(result.stdout.split())


@pytest.fixture
def complete(programs, folder):
    return lambda *words: choices(programs.binary("msgbusctl"), *words, cwd=folder)


@pytest.mark.parametrize("program, options", [
    ("lumd", ["--help", "--version", "-P", "-d", "-f", "-p"]),
    ("msgbusd", ["-c", "-g", "-h", "-m", "-s"])])
def test_a_daemon_has_its_options(programs, folder, program, options):
    assert choices(programs.binary(program), "", cwd=folder) == options


def test_lumd_prints_its_usage_only_when_it_is_asked_for_nothing_else(programs, folder):
    assert choices(programs.binary("lumd"), "-f", "lumd.conf", "", cwd=folder) == [
        "-P", "-d", "-f", "-p"]


@pytest.mark.parametrize("program, option", [("lumd", "-f"), ("msgbusd", "-c"), ("msgbusd", "-s")])
def test_files_of_a_daemon_are_completed(programs, folder, program, option):
    (folder / "wanted.conf").touch()
    assert choices(programs.binary(program), option, "wan", cwd=folder) == ["wanted.conf"]


def test_a_group_of_the_socket_is_completed(programs, folder):
    assert "root" in choices(programs.binary("msgbusd"), "-g", "roo", cwd=folder)


@pytest.mark.parametrize("program, option", [("lumd", "-P"), ("lumd", "-p"), ("msgbusd", "-m")])
def test_numbers_and_paths_of_a_daemon_are_left_to_the_operator(programs, folder, program, option):
    assert choices(programs.binary(program), option, "", cwd=folder) == []


def test_verbs_come_first(complete):
    assert complete("") == VERBS
    assert complete("l") == ["list"]
    assert complete("-s", "/tmp/bus", "--json", "mo") == ["monitor"]
    assert complete("--socket", "=", "/tmp/bus", "c") == ["call"]


@pytest.mark.parametrize("words", [["send"], ["call"], ["call", "-t", "5"], ["send", "-m"], ["--as"],
                                   ["monitor", "--module"], ["monitor", "--module", "="]],
                         ids=" ".join)
def test_modules_are_completed_by_name(complete, words):
    assert complete(*words, "") == NAMES
    assert complete(*words, "orv") == ["orvanta", "orvanta-events"]


def test_a_bare_equals_sign_is_followed_by_every_choice(complete):
    assert complete("monitor", "--module", "=") == NAMES


def test_each_verb_has_its_options(complete):
    assert complete("list", "--") == ["--json", "--socket"]
    assert complete("monitor", "-") == ["--command", "--json", "--module", "--socket", "--write"]
    assert complete("call", "--t") == ["--timeout"]
    assert "--help" in complete("-")


def test_files_are_completed_where_files_are_wanted(complete, folder):
    (folder / "capture.json").touch()
    assert complete("monitor", "--write", "cap") == ["capture.json"]
    assert complete("-s", "cap") == ["capture.json"]


@pytest.mark.parametrize("words", [["send", "hubd"], ["list"], ["-t"], ["monitor", "--command"]],
                         ids=" ".join)
def test_where_nothing_is_known_nothing_is_proposed(complete, words):
    assert complete(*words, "") == []


def test_every_option_of_the_tool_is_known(complete, programs):
    shown = subprocess.run([programs.binary("msgbusctl"), "--help"], capture_output=True, text=True,
                           check=True).stdout
    options = {word.strip(",") for word in shown.split("Examples:")[0].split()
               if word.startswith("--")}
    assert set(complete("--")) == options
