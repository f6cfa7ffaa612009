#!/usr/bin/env python3
"""recording.py: makes an animated SVG on standard output of what ./dev demo writes to a terminal (standard input).

It is so narrow that it can be read on a phone: the terminal breaks no lines, they are broken here. The screens are sections of the demo, one after the other. Where there is no animation, the first one is shown.
"""
import html
import re
import sys

# The sections that are shown: the text of the first line after the heading (None: all), and of the first line left out.
SECTIONS = {2: (None, "The upgrade ran two passes"), 3: (None, None), 5: (None, None), 6: ("$ vfilelist upgrade", None)}
SECONDS = 10  # for each screen
COLOUR = re.compile(r"\x1b\[(\d+)m")
CLASSES = {"1": "bold", "2": "dim", "31": "red", "32": "green", "33": "yellow", "36": "blue"}
COLUMNS = 56
COLUMN, LINE, MARGIN = 7.83, 18, 12  # pixels; a column of 13 pixels' type

STYLE = """text { font: 13px ui-monospace, "SF Mono", Menlo, "DejaVu Sans Mono", monospace; white-space: pre; fill: #1f2328; }
rect { fill: #ffffff; stroke: #d1d9e0; }
.bold { font-weight: bold; } .dim { fill: #59636e; }
.red { fill: #b42318; } .green { fill: #116329; } .yellow { fill: #7d4e00; } .blue { fill: #0550ae; }
@media (prefers-color-scheme: dark) {
  text { fill: #e6edf3; } rect { fill: #0d1117; stroke: #3d444d; } .dim { fill: #9198a1; }
  .red { fill: #ff9492; } .green { fill: #56d364; } .yellow { fill: #e3b341; } .blue { fill: #79c0ff; }
}
"""


def plain(line):
    return COLOUR.sub("", line)


def sections(text):
    """The lines of each section, by number, its heading first. A progress line that was wiped away is left out."""
    found, number = {}, None
    for line in text.replace("\r\n", "\n").split("\n"):
        line = re.sub(r".*\r\x1b\[K", "", line)
        heading = re.match(r"(\d)\. ", plain(line)) if line.startswith("\x1b[1m\x1b[36m") else None
        number = int(heading[1]) if heading else number
        found.setdefault(number, []).append(line)
    return found


def broken(line):
    """A line in pieces of at most COLUMNS characters, indented as its text is, each with the colours that go on."""
    pieces, colours, indent = [""], "", " " * len(re.match(r" *(\w+: {2,})?", plain(line))[0])
    for word in re.findall(" *[^ ]+", line):
        if plain(pieces[-1]).strip() and len(plain(pieces[-1] + word)) > COLUMNS:
            pieces.append(indent + colours)
            word = word.lstrip()
        pieces[-1] += word
        for code in COLOUR.findall(word):
            colours = "" if code == "0" else f"{colours}\x1b[{code}m"
    return pieces


def shown(lines, first, last):
    heading, *lines = lines
    start = next(i for i, line in enumerate(lines) if plain(line).startswith(first or ""))
    end = next((i for i, line in enumerate(lines) if last and plain(line).startswith(last)), len(lines))
    lines = "\n".join(lines[start:end]).rstrip().split("\n")
    return [piece for line in [heading, "", *lines] for piece in broken(line)]


def spans(line):
    """A line with its colours as elements."""
    result, classes = "", []
    for text, code in re.findall(rf"([^\x1b]*)(?:{COLOUR.pattern}|$)", html.escape(line, quote=False)):
        result += f'<tspan class="{" ".join(classes)}">{text}</tspan>' if text and classes else text
        classes = [*classes, CLASSES[code]] if code in CLASSES else []
    return result


def screen(number, lines):
    rows = (f'<text x="{MARGIN}" y="{MARGIN + LINE * (row + 0.75):g}">{spans(line)}</text>\n'
            for row, line in enumerate(lines) if line)
    return f'<g class="screen" style="animation-delay: {number * SECONDS}s">\n{"".join(rows)}</g>'


def main():
    found = sections(sys.stdin.read())
    screens = [shown(found[number], *cut) for number, cut in SECTIONS.items()]
    width = round(2 * MARGIN + COLUMN * COLUMNS)
    height = 2 * MARGIN + LINE * max(map(len, screens))
    motion = f"""@keyframes turn {{ from {{ visibility: visible; }} {100 / len(screens)}%, to {{ visibility: hidden; }} }}
.screen {{ visibility: hidden; animation: turn {SECONDS * len(screens)}s step-end infinite; }}
.screen:first-of-type {{ visibility: visible; }}
@media (prefers-reduced-motion: reduce) {{ .screen {{ animation: none; }} }}"""
    print(f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" width="{width}" height="{height}" '
          f'role="img">\n<title>A recording of ./dev demo</title>\n<style>{STYLE}{motion}\n</style>\n'
          f'<rect x="0.5" y="0.5" width="{width - 1}" height="{height - 1}" rx="8"/>')
    print(*(screen(number, lines) for number, lines in enumerate(screens)), "</svg>", sep="\n")


main()
