"""index.py SITE: the index has every operation that the library exports and the reference describes, and every finding
code; none of its parts is empty."""
import html
import pathlib
import re
import sys

site = pathlib.Path(sys.argv[1])
source = pathlib.Path(__file__).resolve().parents[2]
failures = []


def exported(symbol):
    """_ZN5VFile8FileSizeEPKc is VFile::FileSize. Constructors and operators have no names of their own here."""
    parts = []
    while length := re.match(r"\d+", symbol):
        end = length.end() + int(length[0])
        parts.append(symbol[length.end():end])
        symbol = symbol[end:]
    return "::".join(parts)


index = (site / "index-of-names.html").read_text(encoding="utf-8")
for title, entries in re.findall(r'<h2 id="([^"]*)">.*?</h2>\s*<ul class="index">(.*?)</ul>', index, flags=re.S):
    if "<li>" not in entries:
        failures.append(f"{title} has no entries")

symbols = (source / "debian/libvfilesys.symbols").read_text(encoding="utf-8")
names = {exported(symbol) for symbol in re.findall(r"^ _ZNK?(.*)@", symbols, flags=re.M)}
codes = set(re.findall(r'\{"([EW]-[A-Z-]+)"', (source / "BaseAPI/VFileList/src/Findings.cpp").read_text(encoding="utf-8")))
links = {html.unescape(link): html.unescape(name)
         for link, name in re.findall(r'<a href="([^"]*)"><code[^>]*>(.*?)</code></a>', index)}
failures += [f"the index lacks {name}" for name in sorted((names | codes) - set(links.values()))]
for page in site.glob("reference/*.html"):
    for anchor in re.findall(r'<section><h3 id="([^"]*)">', page.read_text(encoding="utf-8")):
        if f"reference/{page.name}#{html.unescape(anchor)}" not in links:
            failures.append(f"the index has no link to {page.name}#{anchor}")

print("\n".join(failures) if failures else f"{len(links)} names in the index, {len(names)} of them exported, {len(codes)} codes")
sys.exit(1 if failures or not names or not codes else 0)
