"""What a person at a terminal sees."""
import sys


class Show:
    """What a person sees: headings, tables, and the conversation as it happens."""

    def __init__(self, machine=False):
        self.colour = sys.stdout.isatty() and not machine
        self.machine = machine

    def heading(self, text):
        if not self.machine:
            print(f"\n\x1b[1m{text}\x1b[0m" if self.colour else f"\n== {text}", flush=True)

    def text(self, text):
        if not self.machine:
            print(text, flush=True)

    def progress(self, text):
        if self.colour:
            print(f"\r\x1b[K{text}", end="", flush=True)

    def end_progress(self):
        if self.colour:
            print("\r\x1b[K", end="", flush=True)
