"""hazards.py SITE: each hazard of docs/reliability.md stands in the reference, at every function that it names."""
import pathlib
import re
import sys

# These are the upgrade tool's, which has a page of its own.
TOOL = {9, 10, 11, 12, 13, 14, 15}

site = pathlib.Path(sys.argv[1])
failures = []

# Where a hazard stands: the anchors of functions, by its number.
told = {}
for page in sorted(site.glob("reference/*.html")):
    text = page.read_text(encoding="utf-8")
    for anchor, section in re.findall(r'<section><h3 id="([^"]*)">(.*?)</section>', text, flags=re.S):
        for number in re.findall(r"#hazard-(\d+)\"", section):
            told.setdefault(int(number), set()).add(f"{page.name}#{anchor}")

table = (site / "docs" / "reliability.html").read_text(encoding="utf-8")
rows = {int(number): row for number, row in re.findall(r'<tr id="hazard-(\d+)">(.*?)</tr>', table, flags=re.S)}
for number, row in rows.items():
    named = set(re.findall(r'href="\.\./reference/([^"#]*#[^"]*)"', row))
    for function in sorted(named - told.get(number, set())):
        failures.append(f"hazard {number} is not at {function}")
    if (number in told) == (number in TOOL):
        failures.append(f"hazard {number} is at {sorted(told.get(number, set()))}")

print("\n".join(failures) if failures else f"{len(rows)} hazards, at {len(set().union(*told.values()))} functions")
sys.exit(1 if failures or not rows else 0)
