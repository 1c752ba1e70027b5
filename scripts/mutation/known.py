"""The faults known to change nothing: equivalents.txt, one fault a line under the reason why."""
import pathlib

PATH = pathlib.Path(__file__).with_name("equivalents.txt")


def load():
    """Key of a fault -> the reason."""
    reasons, reason, fresh = {}, "", True
    for line in PATH.read_text().splitlines():
        if line.startswith("# "):
            reason = line[2:] if fresh else f"{reason} {line[2:]}"
            fresh = False
        elif line.strip():
            reasons[line.strip()] = reason
            fresh = True
        else:
            fresh = True
    return reasons


def key(record):
    return f"{record['file']}: {record['function']}: {record['before']} -> {record['after']}".strip()
