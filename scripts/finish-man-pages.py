#!/usr/bin/env python3
"""Makes the manual pages that doxygen wrote fit for "man" and "apropos": pages of directories and of
the handbook go, every page says what it is about, every call gets a page of its own, and records,
constants and modules are found by their names.

usage: finish-man-pages.py DIRECTORY
"""

import collections
import pathlib
import re
import sys

SUFFIX = ".3kiv"
ROOT = "KivFramework"


def plain(text):
    """A declaration as the headers write it, without the marks of doxygen."""
    text = re.sub(r"\\f[A-Z]|\\&", "", text)
    text = re.sub(r"\s+", " ", text)
    text = re.sub(r" ?([*&]+) (?!\()", r"\1 ", text)
    text = text.replace(ROOT + "::", "").replace(" (", "(", 1)
    return text.replace("\\-", "-").replace("\\(", "(")


class Page:
    """A page of doxygen's: of a header, a namespace or a record."""

    def __init__(self, path):
        self.path = path
        # Doxygen leaves the backslashes of code as they are.
        self.text = re.sub(r"^\.nf\n.*?^\.fi$",
                           lambda code: re.sub(r"\\(?![&(\\-]|f[A-Z])", r"\\e", code.group()),
                           path.read_text(), flags=re.DOTALL | re.MULTILINE)
        self.scope, self.date = re.search(r'^\.TH "(.*?)" \S+ "(.*?)"', self.text).groups()
        self.is_header = path.name.endswith(".h" + SUFFIX)
        self.last = self.scope.split("::")[-1]
        self.is_record = not self.is_header and "\\fC#include <" in self.text

    def about(self):
        return re.search(r"^\.SH NAME\n.*? \\- (.*?) *$", self.text, re.MULTILINE).group(1)

    def section(self, title):
        """The entries of a section: their headings, and what follows each."""
        found = re.search(rf'^\.SH "{title}"\n(.*?)(?=^\.SH )', self.text, re.DOTALL | re.MULTILINE)
        return re.findall(r'^\.SS "(.*?)"\n(.*?)(?=^\.SS |\Z)', found.group(1) if found else "",
                          re.DOTALL | re.MULTILINE)

    def briefs(self):
        """The line on each call in the list at the top."""
        found = re.findall(r'^\.RI ".*?\\fB(\w+)\\fP \(.*\n\.br\n\.RI "(.*?)(?:\\&\.)? *"$', self.text,
                           re.MULTILINE)
        return dict(reversed(found))


class Manual:
    def __init__(self, directory):
        self.directory = directory
        for path in [*directory.glob("_*" + SUFFIX), *directory.glob("*.md" + SUFFIX),
                     *directory.glob("md_*" + SUFFIX)]:
            path.unlink()
        self.pages = [Page(path) for path in sorted(directory.glob("*" + SUFFIX))]
        self.headers = {page.last.split("/")[-1]: page for page in self.pages if page.is_header}
        # What may be looked up, and the pages that answer.
        self.names = collections.defaultdict(set)

    def header_of(self, page, call):
        """The name of the header that declares a call."""
        if page.is_record:
            return re.search(r"#include <KivFramework/(.*?)>", page.text).group(1)
        if page.scope != ROOT:
            return page.last + ".h"
        return next(name for name, header in self.headers.items()
                    if re.search(rf"\\fB{page.scope}::{call}\\fP \(", header.text))

    def mend_headings(self):
        """Titles have room for what differs. A subject without a description is a namespace; what its
        header is about describes it."""
        for page in self.pages:
            page.text = page.text.replace(f'.TH "{ROOT}::', '.TH "', 1)
            if not re.search(r"^\.SH NAME\n.* \\- ", page.text, re.MULTILINE):
                about = self.headers[page.last + ".h"].about()
                page.text = re.sub(r"^(\.SH NAME\n.*?) *$", lambda found: f"{found.group(1)} \\- {about}",
                                   page.text, count=1, flags=re.MULTILINE)
            page.path.write_text(page.text)

    def write_calls(self, page):
        calls = collections.defaultdict(list)
        for title in ("Function Documentation", "Member Function Documentation"):
            for heading, text in page.section(title):
                declaration = plain(heading)
                call = re.search(r"(\w+)\(", declaration)
                if call and "operator" not in declaration:
                    calls[call.group(1)].append((declaration, text))
        briefs = page.briefs()
        prefix = "" if page.scope == ROOT else page.scope.removeprefix(ROOT + "::") + "::"
        for call, overloads in calls.items():
            lines = [
                f'.TH "{call}" 3kiv "{page.date}" "{ROOT}" \\" -*- nroff -*-', ".ad l", ".nh",
                ".SH NAME", f"{call} \\- {briefs[call]}",
                ".SH SYNOPSIS", f"\\fB#include <{ROOT}/{self.header_of(page, call)}>\\fP",
            ]
            for declaration, text in overloads:
                if declaration is not overloads[0][0]:
                    lines.append(".SH OVERLOAD")
                lines += [".HP 4", "\\fB" + declaration.replace("-", "\\-") + ";\\fP",
                          ".SH DESCRIPTION", text.strip()]
            lines += [".SH SEE ALSO", f".BR {page.scope} (3kiv)", ""]
            file = self.directory / f"{prefix}{call}{SUFFIX}"
            file.write_text("\n".join(lines))
            self.add(file.name, call, f"{page.last}::{call}" if prefix else call)

    def add(self, file, *names):
        for name in names:
            self.names[name].add(file)

    def collect(self):
        for page in self.pages:
            if page.is_header:
                for heading, _ in page.section("Macro Definition Documentation"):
                    self.add(page.path.name, re.search(r"#define (\w+)", heading).group(1))
                continue
            self.write_calls(page)
            self.add(page.path.name, page.last, page.scope.removeprefix(ROOT + "::"))
            for heading, _ in page.section("Variable Documentation"):
                constant = re.search(r"::(\w+) =", heading).group(1)
                self.add(next(header.path.name for header in self.headers.values()
                              if f"::{constant}\\fP" in header.text), constant)

    def link(self):
        """A name that several modules have is found with its module only."""
        for name, files in self.names.items():
            path = self.directory / (name + SUFFIX)
            if len(files) == 1 and not path.exists():
                path.write_text(f".so man3/{next(iter(files))}\n")


def main():
    manual = Manual(pathlib.Path(sys.argv[1]))
    manual.mend_headings()
    manual.collect()
    manual.link()


main()
