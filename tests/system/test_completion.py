"""What bash completes behind "msgbusctl"."""
import subprocess

import pytest

from lumdtest.programs import ROOT

SCRIPT = ROOT / "packaging/completion/msgbusctl"
VERBS = ["call", "list", "monitor", "names", "send"]
NAMES = ["guardd", "hubd", "lumd", "orvanta", "orvanta-events", "portal", "scand", "vaultd"]


@pytest.fixture
def complete(programs, folder):
    def complete(*words):
        """The choices for the last of these words behind the program's name."""
        line = [str(programs.binary("msgbusctl")), *words]
        lines = ['source "$1"; shift', 'COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))',
                 "_msgbusctl", 'printf "%s\\n" "${COMPREPLY[@]}"']
        result = subprocess.run(["bash", "-uc", "; ".join(lines), "bash", SCRIPT, *line],
                                capture_output=True, text=True, check=True, cwd=folder)
        assert result.stderr == ""
        return sorted(result.stdout.split())

    return complete


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
