"""What a person at a terminal sees, or a machine reads."""
import contextlib
import json
import os
import sys
import textwrap

from labtalk import journal

BAR = 30  # characters of a progress bar
BOLD, RESET = "\x1b[1m", "\x1b[0m"
HANGING = "      "
REWRITE = "\r\x1b[K"


class Show:
    """Headings, tables and the conversation as it happens; with `machine` one JSON object a line,
    and only the events and the outcomes of commands."""

    def __init__(self, machine=False):
        self.machine = machine
        self.terminal = sys.stdout.isatty() and not machine
        self.colour = self.terminal and "NO_COLOR" not in os.environ
        self.busy = ""        # what is under way, for whoever shows it
        self.has_place_for_busy = False  # somebody does; otherwise it is a line of its own

    @property
    def width(self):
        """Columns of the terminal as it is now; None when there is none."""
        if not self.terminal:
            return None
        try:
            return os.get_terminal_size(sys.__stdout__.fileno()).columns or None
        except OSError:
            return None

    def heading(self, text):
        text = self._wrapped(text)
        self.text(f"\n{BOLD}{text}{RESET}" if self.colour else f"\n== {text}")

    def text(self, text):
        if not self.machine:
            self._line(text)

    def prose(self, text):
        """A text that goes on in the next line, after a word, where the terminal ends."""
        self.text("\n".join(self._wrapped(line, HANGING) for line in text.splitlines()))

    def _wrapped(self, line, indent=""):
        width = self.width
        return line if width is None else textwrap.fill(line, width, subsequent_indent=indent)

    def fitted(self, line):
        """A text that is cut where the terminal ends."""
        width = self.width
        self.text(line if width is None else journal.cut(" ".join(line.split()), width))

    def event(self, event):
        """A listener of the journal; when nobody reads any longer, others will tell."""
        with contextlib.suppress(BrokenPipeError):
            if self.machine:
                self._json(event)
            else:
                self._line(journal.line(event, self.colour, self.width))

    def outcome(self, outcome):
        if self.machine:
            self._json(outcome.as_json())
        elif outcome.text():
            self.prose(outcome.text())

    def progress(self, text, share):
        """What is under way; `share` of it (0 to 1) is done."""
        bar = "█" * round(min(share, 1.0) * BAR)
        self.busy = f"{text} │{bar:<{BAR}}│"
        if self.terminal and not self.has_place_for_busy:
            self._write(REWRITE + self.busy[:(self.width or len(self.busy) + 1) - 1])

    def end_progress(self):
        if self.busy and self.terminal and not self.has_place_for_busy:
            self._write(REWRITE)
        self.busy = ""

    def _json(self, value):
        self._line(json.dumps(value, ensure_ascii=False))

    def _line(self, text):
        """A whole line; one of progress, which is none, makes way for it."""
        torn = self.busy and self.terminal and not self.has_place_for_busy
        self._write(f"{REWRITE if torn else ''}{text}\n")

    @staticmethod
    def _write(text):
        sys.stdout.write(text)
        sys.stdout.flush()
