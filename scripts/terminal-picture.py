#!/usr/bin/env python3
"""Turns what a terminal shows into an SVG picture: text with colour sequences in, SVG out.

The picture of kiv-console top in the documentation was taken from a terminal of 84 by 16:

    tmux -L picture new-session -d -x 84 -y 16 "kiv-console top"
    sleep 5; tmux -L picture capture-pane -e -p >top.ansi; tmux -L picture kill-server
    scripts/terminal-picture.py "kiv-console top" <top.ansi >docs/images/console-top.svg
"""

import re
import sys
from html import escape

CELL_WIDTH, CELL_HEIGHT, FONT_SIZE = 8.4, 19, 14
MARGIN, TITLE_HEIGHT = 16, 34
BACKGROUND, TITLE, FOREGROUND, STRONG = "#1b1f27", "#2a303c", "#c8d0e0", "#ffffff"
COLOURS = {31: "#e06c75", 32: "#8cc570", 33: "#e5c07b", 90: "#69738a"}
FONTS = "'DejaVu Sans Mono', Menlo, Consolas, 'Liberation Mono', monospace"

# Characters that make bars are drawn, as fonts leave gaps between them: the share of the cell's
# width that each fills, and its thickness.
BARS = {"━": (1, 5), "╸": (0.5, 5), "─": (1, 1.5)}


def runs(text):
    """The pieces of a text that look alike: (line, first column, text, colour, whether strong)."""
    line, column, colour, strong = 0, 0, FOREGROUND, False
    for piece in re.split(r"(\x1b\[[0-9;]*m|\n)", text):
        found = re.fullmatch(r"\x1b\[([0-9;]*)m", piece)
        if piece == "\n":
            line, column = line + 1, 0
        elif found:  # it holds beyond the end of the line
            for number in map(int, (found[1] or "0").split(";")):
                if number in (0, 39):
                    colour = FOREGROUND
                elif number in COLOURS:
                    colour = COLOURS[number]
                if number in (0, 1, 22):
                    strong = number == 1
        else:
            for part in re.findall(r"━+╸?|╸|─+|[^━╸─]+", piece):
                yield line, column, part, colour, strong
                column += len(part)


def drawn(line, column, text, colour, strong):
    """One run as SVG."""
    x = MARGIN + column * CELL_WIDTH
    y = TITLE_HEIGHT + MARGIN + line * CELL_HEIGHT + FONT_SIZE
    if text[0] in BARS:
        width = sum(BARS[character][0] for character in text) * CELL_WIDTH
        thickness = BARS[text[0]][1]
        return (
            f'<rect x="{x:.1f}" y="{y - FONT_SIZE * 0.33 - thickness / 2:.1f}" '
            f'width="{width:.1f}" height="{thickness}" fill="{colour}"/>'
        )
    stripped = text.strip(" ")
    if not stripped:
        return ""
    x += (len(text) - len(text.lstrip(" "))) * CELL_WIDTH
    # The length holds the columns together whatever the font's own width.
    weight = ' font-weight="bold"' if strong else ""
    fill = STRONG if strong and colour == FOREGROUND else colour
    return (
        f'<text x="{x:.1f}" y="{y:.1f}" fill="{fill}"{weight} '
        f'textLength="{len(stripped) * CELL_WIDTH:.1f}" lengthAdjust="spacingAndGlyphs">'
        f"{escape(stripped)}</text>"
    )


def picture(title, text):
    lines = re.sub(r"\x1b\[[0-9;]*m", "", text).split("\n")
    columns = max(map(len, lines))
    width = 2 * MARGIN + columns * CELL_WIDTH
    height = TITLE_HEIGHT + 2 * MARGIN + len(lines) * CELL_HEIGHT
    yield (
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width:.0f} {height:.0f}" '
        f'width="{width:.0f}" height="{height:.0f}" role="img" '
        f'font-family="{FONTS}" font-size="{FONT_SIZE}" xml:space="preserve">'
    )
    yield f"<title>{escape(title)}</title>"
    yield f'<rect width="100%" height="100%" rx="9" fill="{BACKGROUND}"/>'
    yield (
        f'<path d="M0 {TITLE_HEIGHT}V9a9 9 0 0 1 9-9h{width - 18:.0f}a9 9 0 0 1 9 9'
        f'v{TITLE_HEIGHT - 9}z" fill="{TITLE}"/>'
    )
    for number, colour in enumerate(("#e06c75", "#e5c07b", "#8cc570")):
        yield f'<circle cx="{MARGIN + 6 + number * 20}" cy="17" r="6" fill="{colour}"/>'
    yield (
        f'<text x="50%" y="22" fill="{FOREGROUND}" text-anchor="middle">{escape(title)}</text>'
    )
    yield from filter(None, (drawn(*run) for run in runs(text)))
    yield "</svg>"


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: terminal-picture.py TITLE <CAPTURE >PICTURE")
    print("\n".join(picture(sys.argv[1], sys.stdin.read().rstrip("\n"))))


if __name__ == "__main__":
    main()
