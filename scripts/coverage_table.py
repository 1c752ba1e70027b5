"""Writes the table of docs/coverage.md from gcovr's JSON and prints the lines without a run."""
import json
import pathlib
import sys

BEGIN, END = "<!-- table: begin -->\n", "<!-- table: end -->\n"


def percent(part, whole):
    return f"{100 * part / whole:.1f}" if whole else "-"


def count(lines):
    branches = [branch["count"] > 0 for line in lines for branch in line["branches"]]
    return (sum(line["count"] > 0 for line in lines), len(lines), sum(branches), len(branches))


def row(name, counts):
    return f"| {name} | {counts[1]} | {percent(*counts[:2])} | {percent(*counts[2:])} |\n"


def main(figures, page):
    files = {entry["file"]: [line for line in entry["lines"] if not line.get("gcovr/noncode")]
             for entry in json.loads(pathlib.Path(figures).read_text())["files"]}
    counts = {name: count(lines) for name, lines in sorted(files.items()) if lines}
    table = "| file | lines | lines run, % | branches taken, % |\n|---|---|---|---|\n"
    table += "".join(row(f"`{name}`", one) for name, one in counts.items())
    table += row("**all**", [sum(column) for column in zip(*counts.values())])
    text = pathlib.Path(page).read_text()
    before, after = text.split(BEGIN)[0], text.split(END)[1]
    pathlib.Path(page).write_text(before + BEGIN + table + END + after)
    for name in counts:
        source = pathlib.Path(name).read_text().splitlines()
        for line in files[name]:
            if line["count"] == 0:
                number = line["line_number"]
                print(f"{name}:{number}: {source[number - 1].strip()}")


main(*sys.argv[1:])
