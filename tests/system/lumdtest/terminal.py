"""A program at a terminal of its own."""
import codecs
import fcntl
import os
import pty
import re
import select
import struct
import subprocess
import termios
import time

ESCAPES = re.compile(r"\x1b(\[[0-9;?]*[A-Za-z]|[()=>][A-Z0-9]?)")
WHERE_IS_THE_CURSOR, CURSOR_AT = "\x1b[6n", "\x1b[20;1R"  # ECMA-48: DSR, CPR
ROWS, COLUMNS = 40, 80
PATIENCE = 120  # seconds


class Terminal:
    """`output`: what the program wrote there that has not been read, without colours and
    movements."""

    def __init__(self, command, environment):
        self._ours, self._its = pty.openpty()
        fcntl.ioctl(self._its, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, COLUMNS, 0, 0))
        self.settings = termios.tcgetattr(self._its)
        self.output, self._decoder = "", codecs.getincrementaldecoder("utf-8")("replace")
        self.process = subprocess.Popen(
            command, stdin=self._its, stdout=self._its, stderr=self._its, start_new_session=True,
            env={**os.environ, "TERM": "xterm", **environment})

    def type(self, text):
        os.write(self._ours, text.encode())

    def read_until(self, text):
        """Reads on until `text` comes, and forgets all up to its end."""
        deadline = time.monotonic() + PATIENCE
        while text not in self.output:
            ended = self.process.poll() is not None
            assert time.monotonic() < deadline and (self._read() or not ended), \
                f"no {text!r} in:\n{self.output}"
        before, _, self.output = self.output.partition(text)
        return before + text

    def _read(self):
        """Whether there was anything."""
        if not select.select([self._ours], [], [], 0.2)[0]:
            return False
        raw = self._decoder.decode(os.read(self._ours, 65536))
        self.type(CURSOR_AT * raw.count(WHERE_IS_THE_CURSOR))
        self.output += ESCAPES.sub("", raw)
        return True

    def end(self):
        """The exit status; the terminal must be as it was."""
        while self.process.poll() is None:
            self._read()
        assert termios.tcgetattr(self._its) == self.settings
        return self.process.returncode

    def close(self):
        self.process.kill()
        self.process.wait()
        os.close(self._ours)
        os.close(self._its)
