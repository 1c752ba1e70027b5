"""What is typed at the prompt of ./run."""
import asyncio

import pytest

from labshow.console import Console, Refused
from labshow.process import LabError
from labshow.prompt import Prompt, split


class Notes:
    """What was shown, in one text."""

    def __init__(self):
        self.shown = ""
        self.outcomes = []

    def text(self, text):
        self.shown += text + "\n"

    heading = prose = text

    def outcome(self, outcome):
        self.outcomes.append(outcome)
        if outcome.text():
            self.text(outcome.text())


class Echo(Console):
    """Commands that tell what they were given."""

    async def pair(self, first, second="none"):
        """pair FIRST [SECOND]: two words"""
        self.show.text(f"<{first}> <{second}>")
        return [first, second]

    async def send(self, *words):
        """send TEXT: as it stands"""
        self.show.text(f"<{'> <'.join(words)}>")

    async def refuse(self):
        """refuse: what cannot be"""
        raise Refused("no such thing")

    async def fail(self):
        """fail: what should have been"""
        raise LabError("nothing came")

    async def stumble(self):
        """stumble: over a mistake of its own"""
        return len(5)

    async def dawdle(self):
        """dawdle: until told to end"""
        self.show.text("dawdling")
        await asyncio.Event().wait()

    def commands(self):
        return {"pair": self.pair, "send": self.send, "refuse": self.refuse, "fail": self.fail,
                "stumble": self.stumble, "dawdle": self.dawdle, "help": self.help}


def typed(line):
    """(whether another line may follow, what was shown but for the line itself)"""
    notes = Notes()
    more = asyncio.run(Prompt(notes).carry_out(line, Echo(None, notes)))
    return more, notes.shown.removeprefix(f"{line}\n") if line else notes.shown


def test_a_command_gets_its_words():
    assert typed("pair 1 'two words'") == (True, "<1> <two words>\n")
    assert typed("pair 1") == (True, "<1> <none>\n")


@pytest.mark.parametrize("line", ["pair", "pair 1 2 3"])
def test_with_the_wrong_number_of_words_a_command_is_explained_and_not_called(line):
    assert typed(line) == (True, "pair: it is typed pair FIRST [SECOND]: two words\n")


def test_a_mistake_of_the_lab_s_own_is_not_taken_for_one_of_whoever_types():
    with pytest.raises(TypeError):
        typed("stumble")


def test_what_is_refused_and_what_fails_is_told_and_the_session_goes_on():
    assert typed("refuse") == (True, "refuse: no such thing\n")
    assert typed("fail") == (True, "fail failed: nothing came\n")


def test_help_lists_what_there_is_or_explains_one_command():
    more, shown = typed("help")
    assert more and "  pair FIRST [SECOND]: two words\n" in shown and "quit" in shown
    assert typed("help fail")[1] == "  fail: what should have been\n"
    assert typed("help dance")[1] == "help: there is no command dance\n"


def test_an_unknown_command_is_told_with_the_nearest_one():
    assert typed("pear 1")[1] == "pear: unknown command; did you mean pair?\n"
    assert typed("dance")[1] == "dance: unknown command; help lists the commands\n"


def outcomes(*lines):
    """What a machine is told of each line, and how many count as failed."""
    notes = Notes()
    prompt = Prompt(notes)

    async def take():
        for line in lines:
            await prompt.carry_out(line, Echo(None, notes))

    asyncio.run(take())
    told = [outcome.as_json() for outcome in notes.outcomes]
    assert all(entry.pop("t") > 0 for entry in told)
    return told, prompt.failed


def test_every_command_has_an_outcome_and_those_that_are_not_done_are_counted():
    told, failed = outcomes("pair 1", "  ", "pear", "refuse", "fail", "pair", "pair 'x")
    assert [(entry["command"], entry["outcome"]) for entry in told] == [
        ("pair 1", "done"), ("pear", "unknown"), ("refuse", "refused"), ("fail", "failed"),
        ("pair", "refused"), ("pair 'x", "refused")]
    assert failed == 5


def test_an_outcome_has_what_was_found_out_or_why_it_is_none():
    told, _ = outcomes("pair 1", "refuse", "send x")
    assert told == [{"command": "pair 1", "outcome": "done", "result": ["1", "none"]},
                    {"command": "refuse", "outcome": "refused", "reason": "no such thing"},
                    {"command": "send x", "outcome": "done"}]


@pytest.mark.parametrize("line", ["quit", "exit", " quit ", "quit now", None])
def test_the_session_ends_when_it_is_told_to_and_with_its_input(line):
    assert typed(line) == (False, "")


@pytest.mark.parametrize("line", ["", "   "])
def test_an_empty_line_is_nothing(line):
    assert typed(line) == (True, "")


def test_a_quote_that_is_not_closed_is_told():
    assert typed("pair 'x") == (True, "pair: No closing quotation\n")


def test_a_message_to_send_keeps_its_quotes_and_blanks():
    assert split('send {"a":  "it\'s  so"} ') == ["send", '{"a":  "it\'s  so"}']
    assert split("send") == ["send"]


class Interrupted:
    """A prompt whose command dawdles when `act(prompt, typing)` happens to it."""

    def __init__(self, act):
        self.notes, self.act = Notes(), act
        self.prompt = Prompt(self.notes)

    def run(self):
        return asyncio.run(self._run())

    async def _run(self):
        typing = asyncio.ensure_future(self.prompt.carry_out("dawdle", Echo(None, self.notes)))
        while "dawdling" not in self.notes.shown:
            await asyncio.sleep(0)
        self.act(self.prompt, typing)
        return await asyncio.wait_for(typing, 10)


def test_an_interrupt_ends_the_command_under_way_and_not_the_session():
    interrupted = Interrupted(lambda prompt, typing: prompt.interrupt())
    assert interrupted.run() is True
    assert "dawdle: not waited for any longer" in interrupted.notes.shown


def test_a_second_interrupt_finds_no_command_and_is_left_to_the_session():
    told = []
    Interrupted(lambda prompt, typing: told.extend(prompt.interrupt() for _ in range(2))).run()
    assert told == [True, False]
    assert not Prompt(Notes()).interrupt()


@pytest.mark.parametrize("act", [
    lambda prompt, typing: typing.cancel(),
    lambda prompt, typing: (prompt.interrupt(), typing.cancel())])
def test_the_end_of_the_session_ends_the_command_with_it(act):
    with pytest.raises(asyncio.CancelledError):
        Interrupted(act).run()
