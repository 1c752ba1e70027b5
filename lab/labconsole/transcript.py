"""What a command shows, for a page: the part of labshow.show.Show that commands use."""


class Transcript:
    """Keeps texts and headings; progress goes to `tell(text, share)` at once."""

    width = None      # of a line: the page has its own
    terminal = machine = False
    busy = ""

    def __init__(self, tell=lambda text, share: None):
        self.lines, self._tell = [], tell

    def heading(self, text):
        self.lines.append({"heading": text})

    def text(self, text):
        self.lines.append({"text": text})

    prose = fitted = text

    def progress(self, text, share):
        self._tell(text, min(share, 1.0))

    def end_progress(self):
        pass
