#!/usr/bin/env python3
"""charts.py FIGURES.json DIRECTORY [DOCUMENT]: draws what ./dev bench measured.

The charts go to DIRECTORY, as SVG that is readable in light and dark: ratios.svg has ours / peer for the rows CHARTED,
growth.svg the time beside the size of the work. The table of all rows replaces what stands between the lines
<!-- table --> and <!-- end of table --> of the Markdown DOCUMENT.
"""
import html
import json
import math
import pathlib
import sys

# What readers ask for, of ten rows: the work and the peer as the figures name them.
CHARTED = {
    ("VCopyFile, 64 KiB, on a disk", "std::filesystem::copy_file"): "Copy a file of 64 KiB",
    ("VCopyFile, 512 MiB, on a disk", "std::filesystem::copy_file"): "Copy a file of 512 MiB",
    ("ReadBinFile, 64 KiB", "std::ifstream, plainly"): "Read a file of 64 KiB",
    ("WriteBinFile, 64 KiB", "std::ofstream and std::ifstream, plainly"): "Write a file of 64 KiB",
    ("ScanDirectoriesFiles, 100000 files", "std::filesystem iterator"): "List a tree of 100,000 files",
    ("VMkDir, missing levels: 4", "std::filesystem::create_directories"): "Make 4 missing directories",
    ("resolve typical absolute paths", "path::lexically_normal"): "Canonicalise a path",
    ("join", "path / and lexically_normal"): "Join two paths",
    ("GzipCompress, 8 MiB", "deflate"): "Compress 8 MiB",
    ("-copy of 5000 files, 100 keys, log off", "cp -t"): "VCopyFileListIni -copy of 5,000 files",
}
NOISE = 0.1  # two runs differ by as much
KINDS = {"less": "less time", "same": f"within {NOISE * 100:.0f} %", "more": "more time"}

STYLE = """<style>
  text { font: 12px system-ui, sans-serif; fill: #24292f }
  .small { font-size: 11px; fill: #57606a } .title { font-weight: 600 }
  .grid { stroke: #d0d7de } .one { stroke: #24292f; stroke-width: 2 }
  .less { fill: #1a7f37 } .more { fill: #bc4c00 } .same { fill: #8c959f }
  .line { stroke: #0969da; fill: none; stroke-width: 1.5 } .dot { fill: #0969da }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3 } .small { fill: #9198a1 } .grid { stroke: #3d444d } .one { stroke: #e6edf3 }
    .less { fill: #3fb950 } .more { fill: #f0883e } .same { fill: #9198a1 } .line { stroke: #58a6ff } .dot { fill: #58a6ff }
  }
</style>"""


def svg(width, height, title, body):
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" role="img" '
            f'aria-label="{html.escape(title)}">\n<title>{html.escape(title)}</title>\n{STYLE}\n' + "\n".join(body) + "\n</svg>\n")


def text(x, y, content, kind="", anchor="start"):
    return f'<text x="{x:.1f}" y="{y:.1f}" class="{kind}" text-anchor="{anchor}">{html.escape(content)}</text>'


def shown(seconds, unit="s"):
    if unit == "B":
        return f"{seconds:,.0f} B"
    for unit, name in ((1e-9, "ns"), (1e-6, "µs"), (1e-3, "ms")):
        if seconds < unit * 1000:
            return f"{seconds / unit:.3g} {name}"
    return f"{seconds:.3g} s"


def rectangle(x, y, width, kind):
    return f'<rect x="{x:.1f}" y="{y}" width="{width:.1f}" height="10" class="{kind}"/>'


def vertical(x, top, bottom, kind):
    return f'<line x1="{x:.1f}" x2="{x:.1f}" y1="{top}" y2="{bottom}" class="{kind}"/>'


def by_names(rows):
    return {(row["work"], peer["name"]): (row, peer) for row in rows for peer in row["peers"]}


def ratios(rows):
    """A bar for each row of CHARTED, from 1, on a logarithmic scale; as wide as a phone."""
    width, margin, step, top, low, high = 400, 12, 46, 96, 0.05, 5
    place = lambda ratio: margin + (width - 2 * margin) * math.log(ratio / low) / math.log(high / low)
    measured = by_names(rows)
    found = [(words, *measured[names]) for names, words in CHARTED.items() if names in measured]
    title = "Processor time, ours / peer"
    body = [text(margin, 18, title, "title"), text(width - margin, 18, "ratio, logarithmic scale", "small", "end")]
    for index, (kind, words) in enumerate(KINDS.items()):
        body += [rectangle(margin + index * 96, 32, 14, kind), text(margin + 20 + index * 96, 41, words, "small")]
    body += [vertical(margin + 295, 30, 44, "one"), text(margin + 302, 41, "1: as fast", "small")]
    ticks = (0.1, 0.2, 0.5, 1, 2, 5)
    body += [text(place(tick), top - 24, f"{tick:g}", "small", "middle") for tick in ticks]
    for index, (words, row, peer) in enumerate(found):
        y, ratio = top + step * index, peer["ratio"]
        kind = "same" if abs(ratio - 1) <= NOISE else "less" if ratio < 1 else "more"
        start, end = sorted((place(1), place(min(max(ratio, low), high))))
        times = f"ours {shown(row['seconds'])}, {peer['name'].removesuffix(', plainly')} {shown(peer['seconds'])}"
        body += [vertical(place(tick), y + 17, y + 31, "grid") for tick in ticks]
        body += [text(margin, y, words), text(width - margin, y, f"{ratio:.2f}", "title", "end"),
                 text(margin, y + 14, times, "small"), rectangle(start, y + 19, end - start, kind),
                 vertical(place(1), y + 17, y + 31, "one")]
    return svg(width, top + step * len(found), title, body)


def growth(rows):
    """A small chart for each series: time beside size, both logarithmic."""
    series = {}
    for row in rows:
        if row["series"]:
            series.setdefault(row["series"], []).append((max(row["size"], 1), row["seconds"]))
    columns, width, height, body = 3, 280, 190, []
    for index, (name, points) in enumerate(series.items()):
        points.sort()
        x0, y0 = 20 + index % columns * width, 30 + index // columns * height
        xs, ys = [math.log10(x) for x, _ in points], [math.log10(y) for _, y in points]
        px = lambda x: x0 + 10 + 220 * (x - min(xs)) / ((max(xs) - min(xs)) or 1)
        py = lambda y: y0 + 120 - 95 * (y - min(ys)) / ((max(ys) - min(ys)) or 1)
        body.append(text(x0, y0, name, "title"))
        body.append(f'<line x1="{x0}" x2="{x0 + 240}" y1="{y0 + 130}" y2="{y0 + 130}" class="grid"/>')
        body.append('<polyline class="line" points="' + " ".join(f"{px(x):.1f},{py(y):.1f}" for x, y in zip(xs, ys)) + '"/>')
        for (size, seconds), x, y in zip(points, xs, ys):
            body.append(f'<circle cx="{px(x):.1f}" cy="{py(y):.1f}" r="3" class="dot"/>')
        for (size, seconds), x, y in ((points[0], xs[0], ys[0]), (points[-1], xs[-1], ys[-1])):
            anchor = "start" if x == xs[0] else "end"
            body.append(text(px(x), y0 + 145, f"{size:,.0f}", "small", anchor))
            body.append(text(px(x), py(y) - (18 if x == xs[0] else 8), shown(seconds), "small", anchor))
    lines = (len(series) + columns - 1) // columns
    return svg(columns * width + 20, 30 + lines * height, "Processor time as the work grows", body)


def table(rows):
    lines, group = [], None
    for row in rows:
        if row["group"] != group:
            group = row["group"]
            lines += ["", f"**{group}**", "", "| work | ours | peer | | ratio |", "|---|---|---|---|---|"]
        for index, peer in enumerate(row["peers"]):
            work, ours = (row["work"], shown(row["seconds"], row["unit"])) if index == 0 else ("", "")
            if work and row["maxAllocations"] >= 0:
                work += f" ({row['allocations']:.6g} allocations)"
            lines.append(f"| {work} | {ours} | {peer['name']} | {shown(peer['seconds'], row['unit'])} | {peer['ratio']:.2f} |")
    return "\n".join(lines)


def put_table(document, lines):
    before, rest = document.read_text().split("<!-- table -->\n", 1)
    after = rest.split("<!-- end of table -->", 1)[1]
    document.write_text(f"{before}<!-- table -->\n{lines}\n\n<!-- end of table -->{after}")


def main():
    rows = json.loads(pathlib.Path(sys.argv[1]).read_text())["rows"]
    directory = pathlib.Path(sys.argv[2])
    missing = CHARTED.keys() - by_names(rows).keys()
    if missing and len(sys.argv) > 3:
        sys.exit(f"What is published has every row of CHARTED. These were not measured: {sorted(missing)}")
    (directory / "ratios.svg").write_text(ratios(rows))
    (directory / "growth.svg").write_text(growth(rows))
    if len(sys.argv) > 3:
        put_table(pathlib.Path(sys.argv[3]), table(rows))


main()
