"""What a run found: a line a fault, a table of the rooms, the records of the last runs."""
import json
import pathlib

from . import known
from .judge import KILLED
from .tree import HOME, ROOMS, ROOT

RESULTS = HOME / "results.jsonl"
PAGE = ROOT / "docs/mutants.md"
MARKS = ("<!-- {}: begin -->\n", "<!-- {}: end -->\n")


def line_of(record):
    """One line: the verdict, the fault, and which test noticed it."""
    by = f" ({record['by']})" if record["by"] else ""
    return (f"{record['verdict']:11} {record['file']}:{record['line']}: {record['kind']}: "
            f"{record['before']} -> {record['after'] or 'nothing'}{by}")


def place(record):
    return f"{known.key(record)} @{record['line']}"


def keep(records, whole=()):
    """Puts the records in the place of older ones: of the same faults, of the files in `whole`."""
    places = set(map(place, records))  # of one text on one line there may be two
    older = [one for one in load() if one["file"] not in whole and place(one) not in places]
    part = RESULTS.with_suffix(".part")
    part.write_text("".join(json.dumps(one) + "\n" for one in [*older, *records]))
    part.replace(RESULTS)


def load():
    if not RESULTS.exists():
        return []
    return [json.loads(line) for line in RESULTS.read_text().splitlines()]


def percent(part, whole):
    return f"{100 * part / whole:.1f}" if whole else "-"


def figures(records, reasons):
    """(faults, equivalent, noticed by unit tests, by system tests only, left) of these records."""
    same = [one for one in records if one["verdict"] != KILLED and known.key(one) in reasons]
    unit = sum(one["unit"] == KILLED for one in records)
    both = sum(one["verdict"] == KILLED for one in records)
    return len(records), len(same), unit, both - unit, len(records) - len(same) - both


def score(records, reasons):
    """Percentage of the faults that are not equivalent which a test noticed."""
    total, same, unit, system, _ = figures(records, reasons)
    return 100 * (unit + system) / (total - same) if total > same else 100.0


def rows(records, reasons):
    groups = [(room, [one for one in records if one["room"] == room]) for room in ROOMS]
    groups = [group for group in groups if group[1]]
    groups.append(("all", records))
    groups.append(("all without log lines", [one for one in records if not one["log"]]))
    for name, members in groups:
        total, same, unit, system, left = figures(members, reasons)
        yield [name, total, same, unit, system, left, percent(unit, total - same),
               percent(unit + system, total - same)]


HEADS = ["room", "faults", "equivalent", "noticed by unit tests", "by system tests", "left",
         "unit tests, %", "score, %"]


def table(records):
    lines = [HEADS, ["---"] * len(HEADS), *rows(records, known.load())]
    return "".join("| " + " | ".join(map(str, line)) + " |\n" for line in lines)


def survivors(records):
    reasons = known.load()
    left = [one for one in records if one["verdict"] != KILLED and known.key(one) not in reasons]
    return sorted(left, key=lambda one: (one["file"], one["line"]))


def equivalents():
    """The list of known equivalents as the page has it."""
    by_reason = {}
    for key, reason in known.load().items():
        by_reason.setdefault(reason, []).append(key)
    return "".join(f"- {reason}\n" + "".join(f"  - `{key}`\n" for key in keys)
                   for reason, keys in by_reason.items())


def write_page(records):
    text = pathlib.Path(PAGE).read_text()
    for name, content in (("table", table(records)), ("equivalents", equivalents())):
        begin, end = (mark.format(name) for mark in MARKS)
        before, after = text.split(begin)[0], text.split(end)[1]
        text = before + begin + content + end + after
    pathlib.Path(PAGE).write_text(text)
