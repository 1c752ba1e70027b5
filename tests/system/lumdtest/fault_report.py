"""docs/faults.md from the rows that tests/system/test_fault_sites.py left in a folder."""
import json
import pathlib
import sys

from .silence import SILENT

HEAD = """# When calls fail

Each call that lumd makes to the system or to a library was made to fail at each of its call sites,
one after the other, in a running agent, until what it was doing had ended; then the fault was taken
back. `scripts/faults --write` makes this page: `tests/system/test_fault_sites.py` runs an agent of
each mode through everything there is to do, notes every call site that is reached, and lets it fail.
`lab/faults/faults.cpp` does it, preloaded into the agent. The portal mode runs with the lock checker
on.

- **call site**: the function of lumd that makes the call; `a < b` is a call in `a`, which `b`
  called. What the C++ library calls for lumd counts as lumd's call. What libwebsockets calls is one
  site for each function.
- **while**: what the agent was doing; `start` and `end` are an agent's start and end.
- **told**: the first line that speaks of it.
- **effect**: `done` when all went as without the fault (a command was carried out, a report was
  complete); `incomplete` and `empty` speak of what the service was told; `busy` means that the call
  was made again and again without a wait.
- **again**: when all was as before once calls succeeded again.

Every agent was alive afterwards and ended with status 0, but for those whose effect is a status, and
for one whose signal handler could not be installed: SIGTERM ends it as it ends any program. Not
covered: memory that libwebsockets cannot have for itself, and memory that `operator new` cannot give,
other than the command buffer's; such an agent ends (a worker's loop prints "Unhandled exception" and
ends it with status 255).
"""


def cell(text):
    return text.replace("|", "\\|").replace("<", "&lt;")


def table(header, rows):
    lines = [f"| {' | '.join(header)} |", "|" + "---|" * len(header)]
    return "\n".join(lines + [f"| {' | '.join(map(cell, row))} |" for row in rows]) + "\n"


def load(folder):
    return [row for path in sorted(pathlib.Path(folder).glob("*.json"))
            for row in json.loads(path.read_text(encoding="utf-8"))]


def sites(rows):
    return sorted((row["function"], row["place"]) for row in rows)


def page(rows, silent):
    parts = [HEAD]
    reached = [row for row in rows if row["mode"]]
    parts.append(f"\n{len(reached)} call sites failed, {len(rows) - len(reached)} were not reached.\n")
    for mode in ("rrm", "portal", "wids"):
        parts.append(f"\n## {'RRM' if mode == 'rrm' else 'WIDS' if mode == 'wids' else 'Portal'} "
                     "mode\n\n")
        if mode != "rrm":
            parts.append("What the modes above have not reached.\n\n")
        chosen = sorted((row for row in reached if row["mode"] == mode),
                        key=lambda row: (row["function"], row["place"], row["operation"]))
        parts.append(table(
            ("call", "call site", "while", "errno", "told", "effect", "again"),
            [(f"`{row['function']}`", row["place"], row["operation"].replace("_", " "),
              row["errno"], row["told"] or explain(row, silent), row["effect"], row["recovery"])
             for row in chosen]))
    parts.append("\n## Not reached\n\n" + table(
        ("call", "call site", "why"),
        sorted({(f"`{row['function']}`", row["place"], row["recovery"])
                for row in rows if not row["mode"]})))
    return "".join(parts)


def explain(row, silent):
    reason = silent.get((row["function"], row["place"]))
    return f"nothing: {reason}" if reason and row["effect"] != "done" else "nothing"


def main(folder, document, write):
    rows, document = load(folder), pathlib.Path(document)
    if write:
        document.write_text(page(rows, SILENT), encoding="utf-8")
        return 0
    known = document.read_text(encoding="utf-8") if document.exists() else ""
    missing = {f"{function} in {place}" for function, place in sites(rows)
               if f"| `{function}` | {cell(place)} |" not in known}
    for site in sorted(missing):
        print(f"{document.name} does not know {site}: scripts/faults --write")
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2], "--write" in sys.argv))
