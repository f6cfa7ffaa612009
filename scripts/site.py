#!/usr/bin/env python3
"""site.py DOXYGEN_XML OUTPUT: makes the static site out of the source tree that it is run in.

README.md becomes the front page. The other documents in Markdown, the manual pages and the reference, which Doxygen
has read out of the public headers, follow it in the navigation; whatever else of the tree a document links to is shown
as it is. The only style is docs/site/style.css; nothing is loaded from elsewhere and no script is needed.
"""
import html
import itertools
import os
import pathlib
import re
import shutil
import subprocess
import sys
import xml.etree.ElementTree as ElementTree

import pygments
import pygments.formatters
import pygments.lexers

HEADERS = "BaseAPI/VFileSys/include"
HAZARDS = "docs/reliability.md"

PAGE = """<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<title>{title}</title>
<link rel="stylesheet" href="{root}style.css">
</head>
<body>
<a class="skip" href="#content">To the text</a>
<header><a href="{root}index.html"><strong>VFileSys</strong> {version}</a><label for="menu">Menu</label></header>
<input type="checkbox" id="menu" aria-label="Menu">
<nav>
{navigation}
</nav>
<main id="content" class="{kind}">
{body}
</main>
</body>
</html>
"""


def plain(fragment):
    """The text of a piece of HTML."""
    return html.unescape(re.sub(r"<[^>]*>", "", fragment)).strip()


def highlight(code, language="text", file=None):
    try:
        lexer = pygments.lexers.get_lexer_for_filename(file) if file else pygments.lexers.get_lexer_by_name(language)
    except pygments.util.ClassNotFound:
        lexer = pygments.lexers.get_lexer_by_name("text")
    lexer.stripnl = False
    marked = pygments.highlight(code.rstrip("\n"), lexer, pygments.formatters.HtmlFormatter(nowrap=True))
    return f'<pre tabindex="0"><code>{marked.rstrip()}</code></pre>'


def framed(fragment):
    """Tables and pictures scroll in a box of their own; a table's header of empty cells goes."""
    fragment = re.sub(r"<thead>\s*<tr>(\s*<th[^>]*></th>)*\s*</tr>\s*</thead>", "", fragment)
    fragment = re.sub(r"<p>(<img [^>]*>)</p>", r"\1", fragment)
    return re.sub(r"<table.*?</table>|<img [^>]*>", r'<div class="wide" tabindex="0">\g<0></div>', fragment, flags=re.S)


def kept_whole(fragment):
    """Marks words of code so short that no line need break in them, least of all behind the hyphen of an option."""
    return re.sub(r'<code(?: class="(\w+)")?>([^<\s]{1,16})</code>',
                  lambda match: f'<code class="{match[1] + " " if match[1] else ""}short">{match[2]}</code>', fragment)


def heading_anchors(fragment):
    """Gives the headings the anchors that they have on GitHub."""
    seen = {}

    def with_anchor(match):
        level, title = match.groups()
        anchor = re.sub(r"[^\w\- ]", "", plain(title).lower()).replace(" ", "-")
        seen[anchor] = seen.get(anchor, -1) + 1
        if seen[anchor]:
            anchor += f"-{seen[anchor]}"
        return f'<h{level} id="{anchor}"><a href="#{anchor}">{title}</a></h{level}>'

    return re.sub(r"<h([2-6])>(.*?)</h\1>", with_anchor, fragment, flags=re.S)


def markdown(source):
    extensions = [word for name in ("table", "strikethrough", "autolink") for word in ("-e", name)]
    fragment = subprocess.run(["cmark-gfm", *extensions, source], check=True, capture_output=True, text=True).stdout
    fragment = re.sub(r'<pre><code(?: class="language-(\w+)")?>(.*?)</code></pre>',
                      lambda match: highlight(html.unescape(match[2]), match[1] or "text"), fragment, flags=re.S)
    fragment = heading_anchors(framed(fragment.replace("<!-- raw HTML omitted -->", "")))
    if source == HAZARDS:
        fragment = re.sub(r"<tr>(\s*<td>(\d+)</td>)", r'<tr id="hazard-\2">\1', fragment)
    return fragment


def manual_page(source):
    """What mandoc makes of a manual page, its headings one level down below one of our own."""
    fragment = subprocess.run(["mandoc", "-T", "html", "-O", "fragment,man=%N.%S.html", source], check=True,
                              capture_output=True, text=True).stdout
    fragment = re.sub(r'<table class="(head|foot)">.*?</table>', "", fragment, flags=re.S)
    fragment = re.sub(r"<(/?)h([12])", lambda match: f"<{match[1]}h{int(match[2]) + 1}", fragment)
    # Pages of the system are named, not linked.
    fragment = re.sub(r'<a class="Xr" href="([^"]*)\.html">(.*?)</a>',
                      lambda match: match[0] if os.path.exists(f"docs/man/{match[1]}") else f"<span>{match[2]}</span>",
                      fragment, flags=re.S)
    fragment = fragment.replace("</table>\n<br/>", "</table>").replace("<pre>", '<pre tabindex="0">')
    return f"<h1>{manual_title(source)}</h1>{framed(fragment)}"


def manual_title(source):
    return "{}({})".format(*os.path.basename(source).rsplit(".", 1))


def hazards_of(fragment):
    """What the table says, by number: the hazard and what to do."""
    rows = re.findall(r'<tr id="hazard-(\d+)">\s*<td>.*?</td>\s*<td>(.*?)</td>\s*<td>(.*?)</td>', fragment)
    return {number: cells for number, *cells in rows}


class Reference:
    """The public names, as Doxygen has read them."""

    def __init__(self, directory, hazards):
        index = ElementTree.parse(directory / "index.xml")
        self.hazards = hazards
        self.classes = {}
        self.targets = {}  # what a name leads to
        for entry in index.iterfind("compound[@kind='class']"):
            compound = ElementTree.parse(directory / f"{entry.get('refid')}.xml").find("compounddef")
            name = compound.findtext("compoundname")
            members = sorted(compound.iterfind("sectiondef/memberdef[@prot='public']"),
                             key=lambda member: int(member.find("location").get("line")))
            self.classes[name] = compound, members
        for name, (_, members) in self.classes.items():
            self.targets[name] = f"reference/{name}.html"
            for member in members:
                own = member.findtext("name")
                target = f"{self.targets[name]}#{own}"
                self.targets[f"{name}::{own}"] = target
                if member.get("kind") == "function" and own != name:
                    self.targets[own] = target

    def size(self):
        return sum(len(members) for _, members in self.classes.values())

    def page(self, name):
        compound, members = self.classes[name]
        summary, details = [], []
        for own, overloads in itertools.groupby(members, lambda member: html.escape(member.findtext("name"))):
            details.append(f'<section><h3 id="{own}"><a href="#{own}">{own}</a></h3>')
            for member in overloads:
                declaration = self.declaration(member)
                summary.append(f'<li><a href="#{own}"><code>{html.escape(declaration)}</code></a></li>')
                details += [f'<div class="declaration">{highlight(declaration, "cpp")}</div>', self.description(member)]
            details.append("</section>")
        include = highlight(f"#include <{compound.findtext('includes')}>", "cpp")
        return "\n".join([f"<h1>{name}</h1>{include}{self.description(compound)}",
                          '<h2 id="members"><a href="#members">Members</a></h2>',
                          '<ul class="members">', *summary, "</ul>", *details])

    @staticmethod
    def declaration(member):
        """As it stands in the header."""
        location = member.find("location")
        lines = pathlib.Path(location.get("file")).read_text(encoding="utf-8").split("\n")
        text = " ".join(line.strip() for line in lines[int(location.get("line")) - 1:])
        return re.match(r"(.*?)( : .*)?( ?\{\})?(;|(?<=\}))", text)[1] + ";"

    def description(self, element):
        paragraphs = [*element.iterfind("briefdescription/para"), *element.iterfind("detaileddescription/para")]
        return "".join(self.blocks(paragraph) for paragraph in paragraphs)

    def blocks(self, paragraph):
        """A paragraph of Doxygen's may hold blocks, which one of HTML must not."""
        parts, run = [], html.escape(paragraph.text or "")
        for child in paragraph:
            block = self.block(child)
            if block is None:
                run += self.inline(child)
            else:
                parts += [self.text_block(run), block]
                run = ""
            run += html.escape(child.tail or "")
        return "".join([*parts, self.text_block(run)])

    def text_block(self, run):
        run = run.strip()
        named = re.fullmatch(rf"Hazards? ([\d, and]+) of {HAZARDS}\.", run)
        if named:
            return self.hazard_box(re.findall(r"\d+", named[1]))
        return f"<p>{run}</p>" if run else ""

    def hazard_box(self, numbers):
        rows = []
        for number in numbers:
            if number not in self.hazards:
                sys.exit(f"A comment of the headers names hazard {number}, which {HAZARDS} has not.")
            hazard, remedy = (cell.replace('href="', 'href="../docs/') for cell in self.hazards[number])
            rows.append(f'<li><a href="../{HAZARDS}#hazard-{number}">Hazard {number}</a>: {hazard}. '
                        f"<em>What to do:</em> {remedy}.</li>")
        return f'<aside><ul>{"".join(rows)}</ul></aside>'

    def block(self, element):
        if element.tag == "verbatim":
            return highlight(element.text, "cpp")
        if element.tag == "itemizedlist":
            items = ("".join(self.blocks(paragraph) for paragraph in item) for item in element)
            return "<ul>" + "".join(f"<li>{item}</li>" for item in items) + "</ul>"
        if element.tag == "table":
            return framed("<table>" + "".join(self.row(row) for row in element) + "</table>")
        return None

    def row(self, row):
        cells = []
        for entry in row:
            tag = "th" if entry.get("thead") == "yes" else "td"
            cells.append(f"<{tag}>" + "".join(self.content(paragraph).strip() for paragraph in entry) + f"</{tag}>")
        return "<tr>" + "".join(cells) + "</tr>"

    def content(self, element):
        children = (self.inline(child) + html.escape(child.tail or "") for child in element)
        return html.escape(element.text or "") + "".join(children)

    def inline(self, element):
        if element.tag == "ref":
            return self.content(element)
        tag = {"computeroutput": "code", "bold": "strong", "emphasis": "em"}.get(element.tag)
        if tag is None:
            sys.exit(f"A comment of the headers has become <{element.tag}>, which the reference does not show:\n"
                     + "".join(element.itertext()))
        return f"<{tag}>{self.content(element)}</{tag}>"


class Site:
    def __init__(self, doxygen, output):
        self.output = output
        self.version = re.search(r"project\(VFileSys\s+VERSION ([\d.]+)", pathlib.Path("CMakeLists.txt").read_text())[1]
        self.reference = Reference(doxygen, hazards_of(markdown(HAZARDS)))
        self.queue = {}  # what of the tree is shown, and where
        self.groups = self.choose_groups()

    def choose_groups(self):
        """The navigation: of each group the title and its pages' titles and sources."""
        overview = pathlib.Path("README.md").read_text(encoding="utf-8")
        documents = sorted(map(str, pathlib.Path("docs").glob("*.md")),
                           key=lambda name: (name not in overview, overview.find(name), name))
        manual = sorted(map(str, pathlib.Path("docs/man").glob("*.[1-8]")), key=lambda name: (name[-1], name))
        project = [*sorted(map(str, pathlib.Path(".").glob("*.md"))), "fuzz/README.md", "LICENSE"]
        project.remove("README.md")
        return [
            ("", [("Overview", self.place("README.md"))]),
            ("Documents", [(self.title(name), self.place(name)) for name in documents]),
            ("Reference", [(name, self.reference.targets[name]) for name in sorted(self.reference.classes)]),
            ("Manual pages", [(manual_title(name), self.place(name)) for name in manual]),
            ("Project", [(self.title(name), self.place(name)) for name in project]),
        ]

    @staticmethod
    def title(source):
        if not source.endswith(".md"):
            return "Licence" if source == "LICENSE" else source
        return re.match(r"# (.*)", pathlib.Path(source).read_text(encoding="utf-8"))[1].replace("`", "")

    def place(self, source):
        """Where a file or directory of the tree is shown; sees to it that it is."""
        if source in self.queue:
            return self.queue[source]
        name = os.path.basename(source)
        if source.startswith(f"{HEADERS}/"):
            return self.reference.targets[name.removesuffix(".h")]
        if os.path.isdir(source):
            place = f"{source}/index.html"
        elif source == "README.md":
            place = "index.html"
        elif source.endswith((".svg", ".png")):
            place = source
        elif os.path.dirname(source) == "docs/man":
            place = f"man/{name}.html"
        else:
            place = f"{source.removesuffix('.md')}.html"
        self.queue[source] = place
        return place

    def build(self):
        shutil.rmtree(self.output, ignore_errors=True)
        self.output.mkdir(parents=True)
        shutil.copy("docs/site/style.css", self.output)
        done = set()
        while set(self.queue) - done:
            source = min(set(self.queue) - done)
            self.show(source, self.queue[source])
            done.add(source)
        for name in self.reference.classes:
            place = self.reference.targets[name]
            self.write(place, name, self.reference.page(name), place, "reference")

    def show(self, source, place):
        if place == source:
            target = self.output / place
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, target)
        elif os.path.isdir(source):
            self.write(place, f"{source}/", self.listing(source), place, "listing")
        elif source.endswith(".md"):
            self.write(place, self.title(source), markdown(source), source, "document")
        elif place.startswith("man/"):
            self.write(place, manual_title(source), manual_page(source), place, "manual")
        else:
            code = highlight(pathlib.Path(source).read_text(encoding="utf-8"), file=os.path.basename(source))
            self.write(place, source, f"<h1>{html.escape(source)}</h1>{code}", source, "listing")

    @staticmethod
    def listing(directory):
        names = sorted(path for path in pathlib.Path(directory).rglob("*") if path.is_file())
        rows = (f'<li><a href="{path.relative_to(directory)}">{path.relative_to(directory)}</a></li>' for path in names)
        return f'<h1>{directory}/</h1><ul>{"".join(rows)}</ul>'

    def write(self, place, title, body, base, kind):
        """`base` is what the links of the body are relative to."""
        body = kept_whole(self.linked_names(self.relinked(body, base, place), place))
        page = PAGE.format(title=html.escape(title) if place == "index.html" else f"{html.escape(title)} · VFileSys",
                           version=self.version, root=self.relative("", place), navigation=self.navigation(place),
                           body=body, kind=kind)
        target = self.output / place
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_text(page, encoding="utf-8")

    @staticmethod
    def relative(place, seen_from):
        up = "../" * seen_from.count("/")
        return up + place

    def relinked(self, body, base, place):
        """Links to files of the tree become links to the pages that show them."""
        def moved(match):
            attribute, link = match.groups()
            path, hash_sign, anchor = link.partition("#")
            source = os.path.normpath(os.path.join(os.path.dirname(base), path))
            if not path or ":" in path or not os.path.exists(source):
                return match[0]
            return f'{attribute}="{self.relative(self.place(source), place)}{hash_sign}{anchor}"'
        return re.sub(r'\b(href|src)="([^"]*)"', moved, body)

    def linked_names(self, body, place):
        """Public names lead to the reference, unless they stand in a link, a heading or a program."""
        def linked(match):
            target = self.reference.targets.get(match[2])
            if target is None or target.partition("#")[0] == place:
                return match[0]
            return f'<a class="name" href="{self.relative(target, place)}">{match[1]}</a>'
        return re.sub(r"<(?:a|pre|h\d)\b.*?</(?:a|pre|h\d)>|(<code>([\w:]+)(?:\(\))?</code>)", linked, body, flags=re.S)

    def navigation(self, place):
        parts = []
        for title, pages in self.groups:
            if title:
                parts.append(f"<h2>{title}</h2>")
            parts.append("<ul>")
            for name, target in pages:
                current = ' aria-current="page"' if target == place else ""
                parts.append(f'<li><a href="{self.relative(target, place)}"{current}>{html.escape(name)}</a></li>')
            parts.append("</ul>")
        return "\n".join(parts)


def main():
    doxygen, output = map(pathlib.Path, sys.argv[1:])
    site = Site(doxygen, output)
    site.build()
    pages = sum(1 for _ in output.rglob("*.html"))
    print(f"{pages} pages, {len(site.reference.classes)} classes, {site.reference.size()} members")


main()
