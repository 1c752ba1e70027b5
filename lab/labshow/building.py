"""Builds what the lab runs, and tells how far it is."""
import os
import re
import signal
import subprocess

from .process import TREE, LabError

SHOWN_OUTPUT = 6000  # characters of a build that failed
STEP = re.compile(r"\[(\d+)/(\d+)\]")  # what ninja begins the line of each step with


def build(preset, show):
    """Configures and builds a preset; its output is shown only when it fails."""
    for command in (["cmake", "--preset", preset], ["cmake", "--build", "--preset", preset]):
        status, output = run_whole(command, lambda line: show_step(line, show))
        show.end_progress()
        if status != 0:
            show.text(output[-SHOWN_OUTPUT:])
            raise LabError(f"{' '.join(command)} failed with status {status}")


def show_step(line, show):
    if step := STEP.match(line):
        done, count = map(int, step.groups())
        show.progress(f"step {done} of {count}", done / count)


def run_whole(command, listener):
    """(status, output) of a command in the tree, each line of which is told to `listener` as it
    comes; whatever ends us ends all of it."""
    lines = []
    with subprocess.Popen(command, cwd=TREE, stdin=subprocess.DEVNULL, text=True,
                          env={**os.environ, "NINJA_STATUS": "[%f/%t] "},
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          start_new_session=True) as child:
        try:
            for line in child.stdout:
                lines.append(line)
                listener(line)
        except BaseException:
            os.killpg(child.pid, signal.SIGTERM)
            raise
    return child.returncode, "".join(lines)
