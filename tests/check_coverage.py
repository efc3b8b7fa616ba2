"""Compares the coverage of the library with what it has to be, and its uncovered branches with the
list of those, which says of each why no test goes there.

usage: check_coverage.py [--write] MEASURED.json LIST PROJECT_DIRECTORY

The list holds reasons, as lines that begin with "# ", each followed by its entries:

    NUMBER FILE: LINE

The line is the text of the source without what indents it, and the number how many of its branches
are uncovered, in all lines of the file with that text together. "0-2" allows any number up to 2, where
chance or the machine decides. --write prints such entries for all uncovered branches that have none."""

import collections
import json
import pathlib
import re
import sys

LEAST_LINES = 97.0  # per cent
LEAST_BRANCHES = 88.0


def percentage(covered, all_of_them):
    return 100.0 * covered / all_of_them if all_of_them else 0.0


class Measured:
    """What a report of gcovr says."""

    def __init__(self, report, root):
        self.lines = self.lines_covered = self.branches = self.branches_covered = 0
        self.uncovered = collections.Counter()  # (file, text of the line): number of branches
        self.files = {}
        for file in report["files"]:
            name = file["file"]
            text = (root / name).read_text().splitlines()
            self.files[name] = {line.strip() for line in text}
            for line in file["lines"]:
                self.add(name, text[line["line_number"] - 1].strip(), line)

    def add(self, name, text, line):
        if line.get("gcovr/noncode"):
            return
        self.lines += 1
        self.lines_covered += line["count"] > 0
        missed = sum(branch["count"] == 0 for branch in line["branches"])
        self.branches += len(line["branches"])
        self.branches_covered += len(line["branches"]) - missed
        if missed:
            self.uncovered[name, text] += missed


def read_list(path):
    """{(file, text of the line): (fewest, most)}, and what is wrong with the list."""
    entries = {}
    problems = []
    reason = None
    for number, line in enumerate(path.read_text().splitlines(), start=1):
        if not line:
            reason = None
            continue
        if line.startswith("# "):
            reason = line
            continue
        match = re.fullmatch(r"(?:(\d+)-)?(\d+) (\S+): (.+)", line)
        if match is None or reason is None:
            problems.append(f"{path.name}:{number}: no entry with a reason above it: {line}")
            continue
        most = int(match[2])
        fewest = int(match[1]) if match[1] is not None else most
        if (match[3], match[4]) in entries:
            problems.append(f"{path.name}:{number}: listed twice: {line}")
        entries[match[3], match[4]] = (fewest, most)
    return entries, problems


def compare(measured, entries):
    for (name, text), missed in sorted(measured.uncovered.items()):
        fewest, most = entries.get((name, text), (0, 0))
        if missed > most:
            yield f"uncovered: {missed} branches, listed: {most}: {name}: {text}"
        elif missed < fewest:
            yield f"listed as uncovered: {fewest} branches, but only {missed} are: {name}: {text}"
    for (name, text), (fewest, _) in sorted(entries.items()):
        if text not in measured.files.get(name, ()):
            yield f"listed, but there is no such line: {name}: {text}"
        elif fewest > 0 and (name, text) not in measured.uncovered:
            yield f"listed as uncovered, but all branches are covered: {name}: {text}"


def main():
    arguments = [argument for argument in sys.argv[1:] if argument != "--write"]
    report = json.loads(pathlib.Path(arguments[0]).read_text())
    measured = Measured(report, pathlib.Path(arguments[2]))
    entries, problems = read_list(pathlib.Path(arguments[1]))
    if "--write" in sys.argv:
        for (name, text), missed in sorted(measured.uncovered.items()):
            if (name, text) not in entries:
                print(f"{missed} {name}: {text}")
        return 0
    lines = percentage(measured.lines_covered, measured.lines)
    branches = percentage(measured.branches_covered, measured.branches)
    print(f"lines: {measured.lines_covered} of {measured.lines}, {lines:.2f} %")
    print(f"branches: {measured.branches_covered} of {measured.branches}, {branches:.2f} %")
    if lines < LEAST_LINES:
        problems.append(f"fewer than {LEAST_LINES} % of the lines are covered")
    if branches < LEAST_BRANCHES:
        problems.append(f"fewer than {LEAST_BRANCHES} % of the branches are covered")
    problems += compare(measured, entries)
    print("\n".join(problems) or f"{sum(measured.uncovered.values())} uncovered branches, all with a reason")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
