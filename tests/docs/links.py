"""links.py SITE: every link of the site leads to a file in it and to an anchor there, every page is reached from the
first, and nothing is loaded from elsewhere."""
import html.parser
import os
import pathlib
import re
import sys
import urllib.parse

site = pathlib.Path(sys.argv[1]).resolve()
failures = []


class Page(html.parser.HTMLParser):
    def __init__(self, path):
        super().__init__()
        self.links = []   # what the reader may follow
        self.loaded = []  # what the browser loads by itself
        self.styles = []
        self.anchors = []
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attributes):
        for name, value in attributes:
            if name == "id":
                self.anchors.append(value)
            elif name == "href" and tag == "a":
                self.links.append(value)
            elif name in ("href", "src", "srcset", "data", "poster", "action", "background"):
                self.loaded.append(value)
            elif name == "style":
                self.styles.append(value)


def report(path, text):
    failures.append(f"{path.relative_to(site)}: {text}")


def check_link(path, link):
    """A link into the site; addresses elsewhere are nobody's business here."""
    parts = urllib.parse.urlsplit(link)
    if parts.scheme or parts.netloc:
        if parts.scheme not in ("https", "mailto"):
            report(path, f"{link} is no address")
        return
    target = pathlib.Path(os.path.normpath(path.parent / urllib.parse.unquote(parts.path))) if parts.path else path
    anchor = urllib.parse.unquote(parts.fragment)
    if not target.is_file() or not target.is_relative_to(site):
        report(path, f"{link} leads nowhere")
    elif anchor and anchor not in pages[target].anchors:
        report(path, f"{link} has no such anchor")


def check_loaded(path, link):
    parts = urllib.parse.urlsplit(link)
    if parts.scheme or parts.netloc:
        report(path, f"loads {link}")
    else:
        check_link(path, link)


def check_style(path, text):
    for found in re.findall(r"@import[^;]*|url\([^#][^)]*\)", text):
        report(path, f"loads {found}")


pages = {path: Page(path) for path in sorted(site.rglob("*.html"))}
for path, page in pages.items():
    for anchor in {anchor for anchor in page.anchors if page.anchors.count(anchor) > 1}:
        report(path, f"#{anchor} is there more than once")
    for link in page.links:
        check_link(path, link)
    for link in page.loaded:
        check_loaded(path, link)
    for text in page.styles:
        check_style(path, text)

for path in sorted(site.rglob("*.css")):
    check_style(path, path.read_text(encoding="utf-8"))
for path in sorted(site.rglob("*.svg")):
    drawing = path.read_text(encoding="utf-8")
    check_style(path, drawing)
    for found in re.findall(r"\b(?:href|src)=\"[^#\"][^\"]*\"", drawing):
        report(path, f"loads {found}")

reached, queue = set(), [site / "index.html"]
while queue:
    path = queue.pop()
    if path in reached or path not in pages:
        continue
    reached.add(path)
    queue += [pathlib.Path(os.path.normpath(path.parent / link.partition("#")[0])) for link in pages[path].links]
for path in sorted(set(pages) - reached):
    report(path, "no page leads here")

print("\n".join(failures) if failures else f"{sum(len(page.links) for page in pages.values())} links")
sys.exit(1 if failures else 0)
