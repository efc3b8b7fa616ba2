#!/usr/bin/env python3
"""Makes a page of tables and a picture of ratios from the results of the benchmarks.

usage: benchmark-report.py RESULTS_DIRECTORY DOCS_DIRECTORY

RESULTS_DIRECTORY holds PROGRAM.NUMBER.json of each run, as scripts/benchmark.sh leaves it;
written are DOCS_DIRECTORY/benchmarks.md and DOCS_DIRECTORY/images/benchmarks.svg.

A measurement is named CASE/WHO/ARGUMENTS. Those that differ in WHO alone make a row of a table: the
library ("kiv"), its peers, and limits. A limit is what the system or the machine asks for a part
of the work; nobody can be faster who does the whole of it, so it takes no part in the ratio.
"""

import fnmatch
import json
import math
import pathlib
import platform
import re
import statistics
import subprocess
import sys
from html import escape

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "release"
LIBRARY = "kiv"

# Who is measured: name, and the Debian package whose version the page gives.
PEERS = {
    "abseil": ("Abseil", "libabsl-dev"),
    "apr": ("APR", "libaprutil1-dev"),
    "asio": ("Boost.Asio", "libboost-dev"),
    "boost": ("Boost", "libboost-dev"),
    "epoll": ("epoll", None),
    "epoll_count": ("epoll and FIONREAD", None),
    "glib": ("GLib", "libglib2.0-dev"),
    "glog": ("glog", "libgoogle-glog-dev"),
    "inih": ("inih", "libinih-dev"),
    "libb64": ("libb64", "libb64-dev"),
    "libproc2": ("libproc2", "libproc2-dev"),
    "libuv": ("libuv", "libuv1-dev"),
    "log4cplus": ("log4cplus", "liblog4cplus-dev"),
    "nng": ("nng", "libnng-dev"),
    "openssl": ("OpenSSL", "libssl-dev"),
    "plain": ("plain reader", None),
    "poco": ("POCO", "libpoco-dev"),
    "simpleini": ("SimpleIni", "libsimpleini-dev"),
    "spdlog": ("spdlog", "libspdlog-dev"),
    "zeromq": ("ZeroMQ", "libzmq3-dev"),
}
LIMITS = {
    "compare": ("call that compares", None),
    "compare_with_arguments": ("same, with arguments", None),
    "fork": ("fork and exec", None),
    "memcpy": ("memcpy", None),
    "posix_spawn": ("posix_spawn", None),
    "read": ("reading", None),
    "write": ("writing", None),
    "zlib": ("zlib", "zlib1g-dev"),
}

# The tables: program, title, what is measured, and the rows as (pattern of CASE/ARGUMENTS, label).
# A group of the pattern is named in the label by its number.
AREAS = [
    ("logger", "Logger",
     "Time for a line, with date, time and a number and a text in it. Filtered: its level is not wanted. "
     "Synchronous: each line is flushed; the limit is one `write` for each. Detached: sustained until the last of 100,000 lines is in the file, or "
     "a burst as its producers feel it (clock on the wall). glog has no writer thread: there the producers "
     "fill its buffer and write it.",
     [(r"filtered", "filtered"),
      (r"synchronous", "synchronous"),
      (r"sustained/producers:(\d+)", "detached, sustained, {1} producer(s)"),
      (r"burst/producers:(\d+)/lines:(\d+)", "detached, burst of {2} lines, {1} producer(s)")]),
    ("config", "Configuration files",
     "Processor time to load (and release) a file, or to save it with changes. \"One section\" holds all keys, "
     "\"ten-key sections\" ten each; \"shuffled\" is one section with its keys in no order. The library's save "
     "reads the old file and edits it, so that comments, order and foreign lines survive; the peers write what "
     "they hold in memory, GLib to a new file that replaces the old one. inih and POCO do not save this format. "
     "Files lie in memory, so that no disk is measured. A first save also pays for what the changes left of the "
     "heap; the others are later saves of the same.",
     [(r"load/(\w+)/(\d+)", "load, {1}, {2} keys"),
      (r"first_save/(\w+)/(\d+)", "first save, all values longer, {1}, {2} keys"),
      (r"save_one_changed/(\w+)/(\d+)", "save, one value changed, {1}, {2} keys"),
      (r"save_all_longer/(\w+)/(\d+)", "save, all values longer, {1}, {2} keys"),
      (r"save_all_shorter/(\w+)/(\d+)", "save, all values shorter, {1}, {2} keys")]),
    ("stream", "Message stream",
     "Time (clock on the wall) for a message of ten bytes over loopback TCP, sent and received by one thread, in "
     "batches; then what a message costs with few and with many buffered, which should be the same. At the end "
     "the throughput of making a frame of log text, which is compressed, beside zlib alone with its state used "
     "again.",
     [(r"exchange/(\d+)", "exchange, batches of {1}"),
      (r"exchange_kqueue/(\d+)", "exchange, batches of {1}, interest kept in a queue"),
      (r"take/(\d+)", "take a message, {1} buffered"),
      (r"queue/(\d+)", "queue a message, {1} pending"),
      (r"encode/(\d+)", "`encodeMessage`, {1} bytes")]),
    ("kqueue", "kqueue",
     "Processor time beside plain epoll, which `kqueue` is made of here: what the semantics of `kevent` cost.",
     [(r"dispatch/(\d+)", "one of {1} socket(s) becomes readable, is waited for and read"),
      (r"report", "one report, of 64 readable sockets"),
      (r"add_again", "interest that is there already is added"),
      (r"write_once", "write readiness, asked for once and waited for")]),
    ("spawn", "Child processes",
     "Time (clock on the wall) to start `/bin/true` and wait for its end.",
     [(r"spawn/0", "small parent"),
      (r"spawn/1024", "parent with 1 GiB in use")]),
    ("process_table", "Process snapshots",
     "Processor time for a list of all processes with name, pid and parent. The plain reader is opendir, fopen "
     "and sscanf.",
     [(r"snapshot/(\d+)", "{1} processes")]),
    ("monitor", "Performance sampler",
     "Processor time for one sample: the ticks of every processor and the page counts.",
     [(r"sample", "one sample")]),
    ("text", "Texts",
     "Throughput, by the bytes of the text that is given. Words of random letters; \"mixed\" texts have a byte to "
     "change or to find after every second word, \"sparse\" ones after every twentieth, \"dense\" ones have "
     "nothing else, \"plain\" ones none. A text to split is a copy that is handed over, for all of them.",
     [(r"encode_url/(\w+)/(\d+)", "URL encoding, {1}, {2}"),
      (r"decode_url/(\w+)/(\d+)", "URL decoding, {1}, {2}"),
      (r"encode_html/(\w+)/(\d+)", "HTML escaping, {1}, {2}"),
      (r"encode_sql/(\w+)/(\d+)", "SQL escaping, {1}, {2}"),
      (r"to_lower/(\w+)/(\d+)", "lower case, {2}"),
      (r"to_upper/(\w+)/(\d+)", "upper case, {2}"),
      (r"split/(\w+)/(\d+)", "splitting, {1}, {2}"),
      (r"split_to_set/(\w+)/(\d+)", "splitting to a set, {1}, {2}")]),
    ("base64", "Base64",
     "Throughput, by the bytes of the data, not of the text.",
     [(r"encode/(\d+)", "encoding, {1}"),
      (r"decode/(\d+)", "decoding, {1}")]),
    ("md5", "MD5",
     "Throughput of a whole digest.",
     [(r"digest/(\d+)", "{1}")]),
]

WORDS = {"one": "one section", "many": "ten-key sections", "shuffled": "shuffled"}
ORDER = ["plain", "sparse", "mixed", "dense", "one", "many", "shuffled"]
IN_BYTES = {"text", "base64", "md5"}  # programs whose numbers are sizes

# Why a peer is ahead: pattern of PROGRAM/CASE/ARGUMENTS, the peers it speaks of, the reason.
REASONS = [
    ("logger/filtered", {"glog", "spdlog", "log4cplus"},
     "Their check is compiled into the caller; here it is a call of the library, which saves its variable "
     "arguments first and, as its other functions do, guards its stack. The limits beside it are calls of another "
     "library without the guard that do nothing else."),
    ("config/load/*", {"simpleini"},
     "It keeps the file in one piece and points into it; the library makes a text of each key, with its section's "
     "name before it, and of each value."),
    ("config/*save*", {"boost", "glib", "simpleini"},
     "The library reads the file and edits its text, so that comments, order and lines of others survive, also "
     "those written since it was loaded. The peer reads nothing: it writes what it holds in memory."),
    ("stream/exchange/*", {"asio"},
     "The program on Asio is written for this loop alone: its frames are a length and a body. The library's "
     "frames carry a type and may be compressed, and a mutex guards its streams."),
    ("kqueue/dispatch/*", {"epoll"},
     "Each event costs two calls more: one arms its entry again, which proves that the descriptor still means "
     "the same file, and one counts the waiting bytes that an event of `kevent` carries."),
    ("kqueue/report", {"epoll", "epoll_count"},
     "Each event is armed again by a call of its own, which proves that the descriptor still means the same "
     "file; epoll alone does not count the waiting bytes, either."),
    ("kqueue/add_again", {"epoll"},
     "The same call of epoll, and around it a lock and the table that keeps reading and writing apart."),
    ("kqueue/write_once", {"epoll"},
     "The same calls of epoll, and around them a lock and the table that keeps reading and writing apart."),
    ("text/split*/sparse/*", {"abseil", "boost", "glib"},
     "There are few pieces, and what is left is the copy of the text that all of them are given."),
]

# The picture: its title, and the rows in it as (PROGRAM/CASE/ARGUMENTS, label).
PICTURE = [
    ("Logger", [("logger/filtered", "filtered line"),
                ("logger/synchronous", "line, flushed"),
                ("logger/sustained/producers:1", "detached, one producer"),
                ("logger/sustained/producers:2", "detached, two producers")]),
    ("Configuration", [("config/load/many/10000", "load 10,000 keys"),
                       ("config/save_one_changed/many/1000", "save 1,000 keys, one changed"),
                       ("config/save_all_longer/shuffled/100000", "save 100,000, all changed, shuffled")]),
    ("Messages", [("stream/exchange/1", "one message"),
                  ("stream/exchange/1000", "1,000 in a batch")]),
    ("kqueue", [("kqueue/dispatch/100", "wait and read, 100 sockets")]),
    ("Processes", [("spawn/spawn/0", "start and wait"),
                   ("spawn/spawn/1024", "the same, 1 GiB in use"),
                   ("process_table/snapshot/1000", "snapshot of 1,000"),
                   ("monitor/sample", "performance sample")]),
    ("Texts", [("text/encode_url/mixed/1048576", "URL encoding, 1 MiB"),
               ("text/decode_url/mixed/1048576", "URL decoding, 1 MiB"),
               ("text/encode_html/mixed/1048576", "HTML escaping, 1 MiB"),
               ("text/encode_sql/mixed/1048576", "SQL escaping, 1 MiB"),
               ("text/to_lower/mixed/1048576", "lower case, 1 MiB"),
               ("text/split/mixed/1048576", "splitting, 1 MiB")]),
    ("Encodings", [("base64/encode/65536", "Base64 encoding, 64 KiB"),
                   ("base64/decode/65536", "Base64 decoding, 64 KiB"),
                   ("md5/digest/1024", "MD5, 1 KiB"),
                   ("md5/digest/1048576", "MD5, 1 MiB")]),
]


class Figure:
    """The median of a measurement: seconds for a piece of work, and bytes in it where they count."""

    def __init__(self, entry):
        wall = re.search(r"/(real|manual)_time", entry["run_name"])
        unit = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[entry["time_unit"]]
        self.seconds = entry["real_time" if wall else "cpu_time"] * unit
        if "items_per_second" in entry:
            self.seconds = 1 / entry["items_per_second"]
        self.bytes_per_second = entry.get("bytes_per_second")
        self.scatter = 0.0  # coefficient of variation

    def text(self):
        if self.bytes_per_second:
            return scaled(self.bytes_per_second, [(1e9, "GB/s"), (1e6, "MB/s"), (1e3, "kB/s")])
        return scaled(self.seconds, [(1, "s"), (1e-3, "ms"), (1e-6, "µs"), (1e-9, "ns")])


def scaled(value, units):
    """Three digits that count, with the first unit that fits the rounded value."""
    for size, unit in units:
        if value >= 0.9995 * size or unit == units[-1][1]:
            number = value / size
            return f"{number:.{max(0, 2 - max(0, math.floor(math.log10(number * 1.0005))))}f} {unit}"


class Row:
    """Everybody's figures for one case."""

    def __init__(self, key, label):
        self.key, self.label = key, label
        self.figures = {}

    def fastest_peer(self):
        peers = [who for who in self.figures if who in PEERS]
        return min(peers, key=lambda who: self.figures[who].seconds, default=None)

    def ratio_to(self, peer):
        """How many times as fast the library is as a peer."""
        return self.figures[peer].seconds / self.figures[LIBRARY].seconds

    def ratio(self):
        """The same beside the fastest peer."""
        peer = self.fastest_peer()
        return self.ratio_to(peer) if peer else None

    def peers_ahead(self):
        ahead = [who for who in self.figures if who in PEERS and self.ratio_to(who) < 1]
        return sorted(ahead, key=self.ratio_to)

    def reason(self, peer):
        for pattern, peers, reason in REASONS:
            if peer in peers and fnmatch.fnmatchcase(self.key, pattern):
                return reason
        difference = 1 - self.ratio_to(peer)
        if difference < 0.05 and difference < self.figures[LIBRARY].scatter + self.figures[peer].scatter:
            return "Less than the figures of this run scatter."
        return "No reason is known yet."


def shown(argument, in_bytes):
    if argument.isdigit():
        number = int(argument)
        if in_bytes:
            for size, unit in ((1 << 20, "MiB"), (1 << 10, "KiB")):
                if number >= size and number % size == 0:
                    return f"{number // size} {unit}"
            return f"{number} bytes"
        return f"{number:,}"
    return WORDS.get(argument, argument)


def label_of(program, case, patterns):
    """The place of a row in its table, and its label."""
    for place, (pattern, label) in enumerate(patterns):
        found = re.fullmatch(pattern, case)
        if found:
            arguments = [shown(group, program in IN_BYTES) for group in found.groups()]
            text = label.format(case, *arguments)
            text = re.sub(r"\b1 (\w+)\(s\)", r"1 \1", text).replace("(s)", "s")
            numbers = [ORDER.index(group) if group in ORDER else int(group) for group in found.groups()]
            return (place, *numbers), text
    sys.exit(f"benchmark-report.py: {program}: no table has a row for {case}")


def rows_of(program, patterns, measured):
    rows = {}
    for entry in measured:
        if entry.get("error_occurred"):
            sys.exit(f"benchmark-report.py: {entry['name']}: {entry['error_message']}")
        parts = [part for part in entry["run_name"].split("/")
                 if not re.fullmatch(r"(real|manual|process)_time|iterations:\d+|repeats:\d+", part)]
        who = parts.pop(1)
        if who != LIBRARY and who not in PEERS and who not in LIMITS:
            sys.exit(f"benchmark-report.py: {program}: {who} is no known peer")
        case = "/".join(parts)
        place, label = label_of(program, case, patterns)
        row = rows.setdefault(place, Row(f"{program}/{case}", label))
        if entry.get("aggregate_name") == "median":
            row.figures[who] = Figure(entry)
        elif entry.get("aggregate_name") == "cv":
            key = "real_time" if re.search(r"/(real|manual)_time", entry["run_name"]) else "cpu_time"
            row.figures[who].scatter = entry[key]
    made = [rows[place] for place in sorted(rows)]
    for row in made:
        if LIBRARY not in row.figures:
            sys.exit(f"benchmark-report.py: {row.key}: the library has no figure")
    return made


def times(ratio):
    return f"{ratio:.2f}" if ratio < 1.1 else f"{ratio:.1f}" if ratio < 10 else f"{ratio:.0f}"


def table(rows):
    present = {who for row in rows for who in row.figures}
    peers = sorted((who for who in present if who in PEERS), key=lambda who: PEERS[who][0].lower())
    limits = [who for who in LIMITS if who in present]
    head = ["", "KivFramework", *(PEERS[who][0] for who in peers)]
    if peers:
        head.append("beside the fastest peer")
    head += [f"limit: {LIMITS[who][0]}" for who in limits]
    yield "| " + " | ".join(head) + " |"
    yield "| --- |" + " ---: |" * (len(head) - 1)
    for row in rows:
        cells = [row.label, row.figures[LIBRARY].text()]
        cells += [row.figures[who].text() if who in row.figures else "" for who in peers]
        if peers:
            peer = row.fastest_peer()
            ratio = row.ratio()
            cell = f"{times(ratio)} × {PEERS[peer][0]}" if peer else ""
            cells.append(f"**{cell}**" if peer and ratio >= 1 else cell)
        cells += [row.figures[who].text() if who in row.figures else "" for who in limits]
        yield "| " + " | ".join(cells) + " |"


def package_version(package):
    query = subprocess.run(["dpkg-query", "--show", "--showformat", "${Version}", package],
                           capture_output=True, text=True)
    return query.stdout.strip() if query.returncode == 0 and query.stdout else "not a Debian package"


def file_value(path, pattern):
    found = re.search(pattern, pathlib.Path(path).read_text(), re.MULTILINE)
    return found[1].strip() if found else "unknown"


def machine(contexts):
    """What the figures were taken on and with: (what, value)."""
    cache = BUILD / "CMakeCache.txt"
    flags = " ".join(filter(None, (file_value(cache, rf"^CMAKE_CXX_FLAGS{kind}:\w+=(.*)$")
                                   for kind in ("", "_RELEASE"))))
    memory = int(file_value("/proc/meminfo", r"^MemTotal: *(\d+)")) / (1 << 20)
    yield "library", "KivFramework " + file_value(cache, r"^CMAKE_PROJECT_VERSION:\w+=(.*)$")
    yield "processor", file_value("/proc/cpuinfo", r"^model name\s*: (.*)$")
    yield "cores", f"{contexts[0]['num_cpus']}, with {memory:.0f} GiB of memory"
    yield "system", (file_value("/etc/os-release", r'^PRETTY_NAME="(.*)"$')
                     + f", Linux {platform.release()}")
    compiler = next(BUILD.glob("CMakeFiles/*/CMakeCXXCompiler.cmake"))
    yield "compiler", " ".join(file_value(compiler, rf'^set\(CMAKE_CXX_COMPILER_{what} "(.*)"\)$')
                               for what in ("ID", "VERSION"))
    yield "flags", f"`{flags} -std=c++20`"
    loads = [context["load_avg"][0] for context in contexts if context.get("load_avg")]
    if loads:
        yield "load average", f"{min(loads):.1f} to {max(loads):.1f} at the start of the programs"


def page(areas, contexts):
    rows = [row for _, _, made in areas for row in made]
    compared = [row for row in rows if row.ratio()]
    behind = [row for row in compared if row.ratio() < 1]
    scatter = statistics.median(figure.scatter for row in rows for figure in row.figures.values())
    repetitions = contexts[0]["repetitions"]
    yield "# Benchmarks"
    yield ""
    yield "![Ratios: how many times as fast as the fastest peer](images/benchmarks.svg)"
    yield ""
    if behind:
        yield (f"{len(compared)} cases are measured beside peers; the library is ahead of all of them in "
               f"{len(compared) - len(behind)}. The end of the page names the others, and why.")
    else:
        yield f"{len(compared)} cases are measured beside peers; the library is ahead of all of them."
    yield ""
    yield "One command takes the figures and writes this page and the picture:"
    yield ""
    yield "    scripts/benchmark.sh"
    yield ""
    yield (f"Each figure is the median of {repetitions} repetitions, taken in one run, in random order with those "
           "of the peers: compare figures with their neighbours, not with those of other machines. Half of all "
           f"figures scatter (standard deviation by mean) by less than {scatter * 100:.1f} %. \"2.0 ×\" says that "
           "the library is twice as fast as the fastest peer of its row. A limit is what the system or the "
           "machine asks for a part of the work, such as one `write` or one `memcpy`: no peer, but the end of "
           "what is possible. How each peer is set up stands at the top of its program in "
           "[benchmarks/](../benchmarks).")
    yield ""
    yield "| taken on | |"
    yield "| --- | --- |"
    for what, value in machine(contexts):
        yield f"| {what} | {value} |"
    yield ""
    present = {who for row in rows for who in row.figures}
    packages = {}
    for who, (name, package) in sorted({**PEERS, **LIMITS}.items(), key=lambda item: item[1][0].lower()):
        if who in present and package:
            packages.setdefault(package, []).append(name)
    yield "| peer | package | version |"
    yield "| --- | --- | --- |"
    for package, names in packages.items():
        yield f"| {', '.join(names)} | `{package}` | {package_version(package)} |"
    for title, text, made in areas:
        yield ""
        yield f"## {title}"
        yield ""
        yield text
        yield ""
        yield from table(made)
    if not behind:
        return
    yield ""
    yield "## Where a peer is ahead"
    yield ""
    titles = {row.key: title for title, _, made in areas for row in made}
    by_reason = {}
    for row in behind:
        for peer in row.peers_ahead():
            by_reason.setdefault(row.reason(peer), {}).setdefault(row, []).append(peer)
    for reason, cases in by_reason.items():
        yield reason
        yield ""
        yield "| case | library, beside those ahead |"
        yield "| --- | --- |"
        for row, peers in cases.items():
            ratios = ", ".join(f"{times(row.ratio_to(peer))} × {PEERS[peer][0]}" for peer in peers)
            yield f"| {titles[row.key]}: {row.label} | {ratios} |"
        yield ""


WIDTH, MARGIN, LABELS, ROW, GROUP = 880, 24, 268, 23, 15
CARD, LINES, TEXT, STRONG, MUTED = "#1b1f27", "#343b49", "#c8d0e0", "#ffffff", "#8b95a9"
AHEAD, BEHIND = "#8cc570", "#e5c07b"
TOP = 92


def picture(rows):
    """Bars on a logarithmic scale, from the line of equal speed."""
    by_key = {row.key: row for row in rows}
    groups = [(title, [(by_key[key], label) for key, label in wanted if key in by_key and by_key[key].ratio()])
              for title, wanted in PICTURE]
    groups = [group for group in groups if group[1]]
    ratios = [row.ratio() for _, drawn in groups for row, _ in drawn]
    low = min(0.5, min(ratios) * 0.8)
    high = max(10.0, max(ratios) * 1.1)
    left, right = MARGIN + LABELS, WIDTH - MARGIN - 150  # the bar's own label stands behind it

    def x(ratio):
        return left + (right - left) * math.log(ratio / low) / math.log(high / low)

    height = TOP + sum(ROW * len(drawn) + GROUP for _, drawn in groups) + 26
    yield (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" '
           f'height="{height}" role="img" font-family="\'Segoe UI\', Roboto, \'DejaVu Sans\', Helvetica, Arial, '
           'sans-serif" font-size="13">')
    yield "<title>How many times as fast KivFramework is as the fastest peer</title>"
    yield f'<rect width="100%" height="100%" rx="9" fill="{CARD}"/>'
    yield (f'<text x="{MARGIN}" y="34" fill="{STRONG}" font-size="17" font-weight="bold">'
           "How many times as fast as the fastest peer</text>")
    yield (f'<text x="{MARGIN}" y="54" fill="{MUTED}">Logarithmic. Behind each bar: the ratio, and the peer '
           f'it is beside; <tspan fill="{BEHIND}">amber</tspan> where that peer is ahead.</text>')
    bottom = height - 26
    for power in range(math.ceil(math.log10(low) - 1), math.floor(math.log10(high)) + 1):
        for step in (1, 2, 5):
            ratio = step * 10.0**power
            if low <= ratio <= high:
                weight = f'stroke="{TEXT}" stroke-width="1.5"' if ratio == 1 else f'stroke="{LINES}"'
                yield f'<path d="M{x(ratio):.1f} {TOP - 8}V{bottom}" {weight}/>'
                name = "equal" if ratio == 1 else f"{ratio:g} ×"
                yield (f'<text x="{x(ratio):.1f}" y="{TOP - 14}" fill="{TEXT if ratio == 1 else MUTED}" '
                       f'font-size="11" text-anchor="middle">{name}</text>')
    y = TOP
    for title, drawn in groups:
        yield f'<text x="{MARGIN}" y="{y + 15}" fill="{STRONG}" font-weight="bold">{escape(title)}</text>'
        for row, label in drawn:
            ratio = row.ratio()
            colour = AHEAD if ratio >= 1 else BEHIND
            start, end = sorted((x(1), x(ratio)))
            yield (f'<text x="{left - 12}" y="{y + 15}" fill="{TEXT}" text-anchor="end">{escape(label)}</text>')
            yield (f'<rect x="{start:.1f}" y="{y + 4}" width="{max(end - start, 1.5):.1f}" height="{ROW - 8}" '
                   f'rx="2" fill="{colour}"/>')
            yield (f'<text x="{max(end, x(1)) + 7:.1f}" y="{y + 15}" fill="{colour}" font-weight="bold" '
                   f'stroke="{CARD}" stroke-width="4" paint-order="stroke">{times(ratio)} × '
                   f'<tspan fill="{TEXT}" font-weight="normal">{escape(PEERS[row.fastest_peer()][0])}'
                   "</tspan></text>")
            y += ROW
        y += GROUP
    yield "</svg>"


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: benchmark-report.py RESULTS_DIRECTORY DOCS_DIRECTORY")
    results, docs = map(pathlib.Path, sys.argv[1:])
    areas, contexts = [], []
    for program, title, text, patterns in AREAS:
        found = []
        for run in sorted(results.glob(f"{program}.*.json")):
            measured = json.loads(run.read_text())
            contexts.append(measured["context"])
            contexts[-1]["repetitions"] = measured["benchmarks"][0]["repetitions"]
            found += measured["benchmarks"]
        areas.append((title, text, rows_of(program, patterns, found)))
    rows = [row for _, _, made in areas for row in made]
    (docs / "benchmarks.md").write_text("\n".join(page(areas, contexts)).rstrip() + "\n")
    (docs / "images" / "benchmarks.svg").write_text("\n".join(picture(rows)) + "\n")
    for row in rows:
        for peer in row.peers_ahead():
            print(f"{row.key}: {PEERS[peer][0]} is ahead: {row.reason(peer)}")


if __name__ == "__main__":
    main()
