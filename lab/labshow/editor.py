"""Command lines from a terminal: edited, completed, remembered, and never torn by what happens.

The line being typed and the state of the lab below it stay at the bottom of the terminal while the
conversation passes above them. Needs python3-prompt-toolkit; `available` tells whether it is there.
"""
import asyncio
import contextlib
import os
import pathlib
import signal
import sys

try:
    import prompt_toolkit
    from prompt_toolkit.completion import Completer, Completion
    from prompt_toolkit.history import FileHistory, InMemoryHistory
    from prompt_toolkit.key_binding import KeyBindings
    from prompt_toolkit.patch_stdout import patch_stdout
except ImportError:
    prompt_toolkit, Completer = None, object

REFRESH = 0.5  # real seconds between two looks at the state
HISTORY = pathlib.Path("lumd-lab") / "history"  # below $XDG_STATE_HOME


def available(show):
    """Whether there is somebody at a terminal that can do it."""
    return prompt_toolkit is not None and show.terminal and sys.stdin.isatty() and \
        os.environ.get("TERM", "dumb") != "dumb"


def history():
    """Of all sessions of this user, or of this one when there is no place for more."""
    state = pathlib.Path(os.environ.get("XDG_STATE_HOME") or
                         pathlib.Path.home() / ".local" / "state")
    path = state / HISTORY
    try:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.touch()
    except OSError:
        return InMemoryHistory()
    return FileHistory(str(path))


class Words(Completer):
    """Completes the last word of a line with what may stand there."""

    def __init__(self, choices):
        self.choices = choices

    def get_completions(self, document, _event):
        line = document.text_before_cursor
        words = line.split()
        begun = words.pop() if words and not line[-1].isspace() else ""
        for choice in self.choices(words):
            if choice.startswith(begun):
                end = "" if choice.endswith("=") else " "
                yield Completion(choice + end, start_position=-len(begun), display=choice)


class Editor:
    """Lines in the order in which they were typed; the next one may be typed while a command runs.

    `choices(words)`: what may follow these words. `state()`: the line at the bottom. `is_busy()`:
    whether Ctrl-C would end a command.
    """

    stays = False  # whether a typed line is still to be seen when it is carried out

    def __init__(self, show, choices, state, is_busy):
        self.show, self._is_busy = show, is_busy
        self._session = prompt_toolkit.PromptSession(
            "lab> ", history=history(), completer=Words(choices), complete_while_typing=False,
            bottom_toolbar=state, refresh_interval=REFRESH, key_bindings=self._bindings())
        self._session.app.erase_when_done = True  # it is shown again when it is carried out
        self._queue = asyncio.Queue()
        self._typing = None
        self._output = contextlib.ExitStack()

    def _bindings(self):
        bindings = KeyBindings()

        @bindings.add("c-c")
        def interrupt(event):
            """Clears the line when there is nothing else to end."""
            if event.current_buffer.text and not self._is_busy():
                event.current_buffer.reset()
            else:
                os.kill(os.getpid(), signal.SIGINT)

        return bindings

    async def __aenter__(self):
        self._output.enter_context(patch_stdout(raw=True))
        self.show.has_place_for_busy = True
        return self

    async def __aexit__(self, *_):
        if self._typing is not None:
            self._typing.cancel()
            await asyncio.gather(self._typing, return_exceptions=True)
        self.show.has_place_for_busy = False
        self._output.close()

    async def _type(self):
        """Until the end of the input, which is None in the queue."""
        line = ""
        while line is not None:
            try:
                line = await self._session.prompt_async(handle_sigint=False)
            except EOFError:
                line = None
            self._queue.put_nowait(line)

    async def next(self):
        """The next line; None at the end of the input."""
        if self._typing is None:
            self._typing = asyncio.ensure_future(self._type())
        line = asyncio.ensure_future(self._queue.get())
        try:
            await asyncio.wait([line, self._typing], return_when=asyncio.FIRST_COMPLETED)
            if not line.done():
                self._typing.result()  # raises what ended it, unless it has left a line
            return await line
        finally:
            line.cancel()
