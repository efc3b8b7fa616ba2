"""Checks the handbook: every piece of C++ in it is a passage of an example program, every relative
link leads somewhere, every deliberate surprise names tests that there are, and the page on porting has a
row for every platform header.

usage: check_documentation.py PROJECT_DIRECTORY
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(sys.argv[1]).resolve()


def lines_of(text):
    """The lines that are not empty, without their indentation."""
    return [line.strip() for line in text.splitlines() if line.strip()]


def is_passage(lines, programs):
    size = len(lines)
    return any(program[start:start + size] == lines
               for program in programs for start in range(len(program) - size + 1))


def code_of_page(text):
    return re.findall(r"^ *```cpp\n(.*?)^ *```", text, re.DOTALL | re.MULTILINE)


def code_of_header(text):
    for block in re.findall(r"^ *///? *\\code.*?\n(.*?)^ *///? *\\endcode", text,
                            re.DOTALL | re.MULTILINE):
        yield re.sub(r"^ *///", "", block, flags=re.MULTILINE)


def links_of(text):
    for target in re.findall(r"\]\(([^)#]+)(?:#[^)]*)?\)", text):
        if not re.match(r"[a-z]+:", target):
            yield target


def tests_of(directory):
    """The names of all GoogleTest tests, as "Suite.Name"."""
    text = "\n".join(file.read_text() for file in directory.glob("**/*.cpp"))
    return {".".join(names) for names in re.findall(r"^TEST(?:_F|_P)?\((\w+),\s*(\w+)\)", text, re.MULTILINE)}


def rows_without_tests(text, tests):
    """The rows of the tables of behaviour notes whose last column names no test, or none that is there."""
    for row in text.splitlines():
        cells = row.strip("|").split(" | ")
        if not row.startswith("|") or cells[0].strip() == "call" or row.startswith("| ---"):
            continue
        named = re.findall(r"`(\w+\.\w+)`", cells[-1])
        if not named or not tests.issuperset(named):
            yield row


def headers_without_row(text, directory):
    """The headers of a directory that begin no row of the page on porting."""
    rows = set(re.findall(r"^\| `(\w+\.h)` \|", text, re.MULTILINE))
    return sorted({header.name for header in directory.glob("*.h")} - rows)


def main():
    programs = [lines_of(file.read_text()) for file in sorted((ROOT / "examples").glob("*.cpp"))]
    pages = [*ROOT.glob("*.md"), *(ROOT / "docs").glob("*.md"), *(ROOT / "examples").glob("**/*.md")]
    problems = []
    passages = 0
    for page in sorted(pages):
        text = page.read_text()
        for link in links_of(text):
            if not (page.parent / link).exists():
                problems.append(f"{page.relative_to(ROOT)}: no such file: {link}")
        for code in code_of_page(text):
            passages += 1
            if not is_passage(lines_of(code), programs):
                problems.append(f"{page.relative_to(ROOT)}: in no example program:\n{code}")
    for header in sorted((ROOT / "KivFramework").glob("*.h")):
        for code in code_of_header(header.read_text()):
            passages += 1
            if not is_passage(lines_of(code), programs):
                problems.append(f"{header.relative_to(ROOT)}: in no example program:\n{code}")
    notes = (ROOT / "docs" / "behaviour-notes.md").read_text()
    for row in rows_without_tests(notes, tests_of(ROOT / "tests")):
        problems.append(f"docs/behaviour-notes.md: names no test that there is: {row}")
    porting = (ROOT / "docs" / "porting.md").read_text()
    for header in headers_without_row(porting, ROOT / "KivFramework" / "platform"):
        problems.append(f"docs/porting.md: no row for {header}")
    print("\n".join(problems) or f"{passages} passages, each in an example program")
    return 1 if problems or passages == 0 else 0


if __name__ == "__main__":
    sys.exit(main())
