"""A conversation at all of lumd's borders, to the letter, as a file of JSON lines.

The first line says what was recorded: {"recording": 1, "mode", "scenario", "speed", "order",
"config"}. Every other line is one entry: "t" (real seconds since the beginning), "border" (service,
bus, driver, hostapd; files: those that lumd reads; lumd: its process), "by" (lumd or lab), "what",
and the members of that kind.
A file whose name ends with .gz is packed.
"""
import gzip
import json
import os
import time

from .process import byte_order

FORMAT = 1
HEAD = ("mode", "scenario", "speed", "order", "config")


class RecordingError(Exception):
    """What is wrong with a recording, and where."""


class Recorder:
    """Writes what passes around a lab that has not been started yet."""

    def __init__(self, path, lab):
        self._file = opened(path, "wt")
        self._begun = time.monotonic()
        self._write({"recording": FORMAT, "mode": lab.mode, "scenario": lab.scenario,
                     "speed": lab.speed, "order": byte_order(lab.program), "config": lab.extra_config})
        lab.journal.tapes.append(self._take)

    def _take(self, border, by, what, members):
        self._write({"t": round(time.monotonic() - self._begun, 4), "border": border, "by": by,
                     "what": what, **members})

    def _write(self, entry):
        if not self._file.closed:
            self._file.write(json.dumps(entry, ensure_ascii=False) + "\n")
            self._file.flush()  # it may end at any time

    def close(self):
        self._file.close()


def load(path: str | os.PathLike) -> tuple[dict, list[dict]]:
    """(head, entries); RecordingError when the file is no recording."""
    try:
        with opened(path, "rt") as file:
            lines = [parsed(path, number, line) for number, line in enumerate(file, 1)]
    except (EOFError, OSError, UnicodeDecodeError) as error:
        reason = error.strerror if isinstance(error, OSError) and error.strerror else error
        raise RecordingError(f"{path}: {reason}") from error
    if not lines or lines[0].get("recording") != FORMAT or any(key not in lines[0] for key in HEAD):
        raise RecordingError(f"{path}: no recording of format {FORMAT}")
    for number, entry in enumerate(lines[1:], 2):
        if not all(key in entry for key in ("t", "border", "by", "what")):
            raise RecordingError(f"{path}:{number}: an entry has \"t\", \"border\", \"by\", "
                                 "\"what\"")
    return lines[0], lines[1:]


def opened(path, mode):
    open_it = gzip.open if str(path).endswith(".gz") else open
    return open_it(path, mode, encoding="utf-8")


def parsed(path, number, line):
    try:
        entry = json.loads(line)
    except ValueError as error:
        raise RecordingError(f"{path}:{number}: {error}") from error
    if not isinstance(entry, dict):
        raise RecordingError(f"{path}:{number}: no object")
    return entry
