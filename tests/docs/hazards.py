"""hazards.py SITE: each hazard of docs/reliability.md stands in the reference, at every function that it names."""
import pathlib
import re
import sys

# These are the upgrade tool's, which has a page of its own.
TOOL = {"replaced-backup", "bak-names", "unusable-values", "counts-as-missing", "any-target", "clean-is-final",
        "one-status"}

site = pathlib.Path(sys.argv[1])
failures = []

# Where a hazard stands: the anchors of functions, by its name.
told = {}
for page in sorted(site.glob("reference/*.html")):
    text = page.read_text(encoding="utf-8")
    for anchor, section in re.findall(r'<section><h3 id="([^"]*)">(.*?)</section>', text, flags=re.S):
        for name in re.findall(r"#hazard-([a-z-]+)\"", section):
            told.setdefault(name, set()).add(f"{page.name}#{anchor}")

table = (site / "docs" / "reliability.html").read_text(encoding="utf-8")
rows = dict(re.findall(r'<tr id="hazard-([a-z-]+)">(.*?)</tr>', table, flags=re.S))
for name, row in rows.items():
    named = set(re.findall(r'href="\.\./reference/([^"#]*#[^"]*)"', row))
    for function in sorted(named - told.get(name, set())):
        failures.append(f"hazard {name} is not at {function}")
    if (name in told) == (name in TOOL):
        failures.append(f"hazard {name} is at {sorted(told.get(name, set()))}")

print("\n".join(failures) if failures else f"{len(rows)} hazards, at {len(set().union(*told.values()))} functions")
sys.exit(1 if failures or not rows else 0)
