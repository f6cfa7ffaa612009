#!/usr/bin/env python3
"""charts.py FIGURES.json DIRECTORY [DOCUMENT]: draws what ./dev bench measured.

The charts go to DIRECTORY, as SVG that is readable in light and dark: ratios.svg has ours / peer for every row,
growth.svg the time beside the size of the work. The table replaces what stands between the lines <!-- table --> and
<!-- end of table --> of the Markdown DOCUMENT.
"""
import html
import json
import math
import pathlib
import sys

STYLE = """<style>
  text { font: 12px system-ui, sans-serif; fill: #24292f }
  .small { font-size: 11px; fill: #57606a } .title { font-weight: 600 }
  .grid { stroke: #d0d7de } .one { stroke: #57606a; stroke-dasharray: 3 3 }
  .good { fill: #1a7f37 } .miss { fill: #bc4c00 } .info { fill: #8c959f } .line { stroke: #0969da; fill: none; stroke-width: 1.5 }
  .dot { fill: #0969da } .target { stroke: #24292f; stroke-width: 2 }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3 } .small { fill: #9198a1 } .grid { stroke: #3d444d } .one { stroke: #9198a1 }
    .good { fill: #3fb950 } .miss { fill: #f0883e } .info { fill: #656c76 } .line { stroke: #58a6ff } .dot { fill: #58a6ff }
    .target { stroke: #e6edf3 }
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


def ratios(rows):
    """A bar for each peer, on a logarithmic scale, with a mark where the target is."""
    left, width, step, low, high = 500, 300, 18, 0.02, 20
    place = lambda ratio: left + width * (math.log10(min(max(ratio, low), high)) - math.log10(low)) / math.log10(high / low)
    body, y, group = [], 20, None
    for row in rows:
        if row["group"] != group:
            group = row["group"]
            y += 12
            body.append(text(10, y, group, "title"))
            y += step
        for peer in row["peers"]:
            kind = "info" if peer["target"] == 0 else "good" if peer["met"] else "miss"
            body.append(text(left - 10, y, f"{row['work']} / {peer['name']}", "small", "end"))
            start, end = sorted((place(1), place(peer["ratio"])))
            body.append(f'<rect x="{start:.1f}" y="{y - 9}" width="{max(end - start, 1):.1f}" height="10" class="{kind}"/>')
            if peer["target"]:
                x = place(peer["target"])
                body.append(f'<line x1="{x:.1f}" x2="{x:.1f}" y1="{y - 12}" y2="{y + 4}" class="target"/>')
            body.append(text(left + width + 10, y, f"{peer['ratio']:.2f}", "small"))
            y += step
    for ratio in (0.1, 1, 10):
        x = place(ratio)
        body.insert(0, f'<line x1="{x:.1f}" x2="{x:.1f}" y1="16" y2="{y}" class="{"one" if ratio == 1 else "grid"}"/>')
        body.insert(0, text(x, 12, f"{ratio:g}", "small", "middle"))
    return svg(left + width + 60, y + 10, "Processor time, ours / peer; shorter to the left of 1 is faster", body)


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
            lines += ["", f"**{group}**", "", "| work | ours | beside | | ratio | target |", "|---|---|---|---|---|---|"]
        for index, peer in enumerate(row["peers"]):
            lean = row["maxAllocations"] < 0 or row["allocations"] <= row["maxAllocations"]
            work, ours = (row["work"], shown(row["seconds"], row["unit"])) if index == 0 else ("", "")
            if work and row["maxAllocations"] >= 0:
                work += f" ({row['allocations']:.6g} allocations{'' if lean else ': too many'})"
            target = f"≤ {peer['target']:g}" if peer["target"] else ""
            mark = "" if peer["met"] else " **missed**"
            lines.append(f"| {work} | {ours} | {peer['name']} | {shown(peer['seconds'], row['unit'])} | {peer['ratio']:.2f} | {target}{mark} |")
    return "\n".join(lines)


def put_table(document, lines):
    before, rest = document.read_text().split("<!-- table -->\n", 1)
    after = rest.split("<!-- end of table -->", 1)[1]
    document.write_text(f"{before}<!-- table -->\n{lines}\n\n<!-- end of table -->{after}")


def main():
    rows = json.loads(pathlib.Path(sys.argv[1]).read_text())["rows"]
    directory = pathlib.Path(sys.argv[2])
    (directory / "ratios.svg").write_text(ratios(rows))
    (directory / "growth.svg").write_text(growth(rows))
    if len(sys.argv) > 3:
        put_table(pathlib.Path(sys.argv[3]), table(rows))


main()
