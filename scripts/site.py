#!/usr/bin/env python3
"""site.py OUTPUT: makes the static site out of the source tree that it is run in.

README.md becomes the front page. The other documents in Markdown, the reference, which the public headers hold, an index
and the manual pages follow it in the navigation; whatever else of the tree a document links to is shown as it is. The
only style is docs/site/style.css; nothing is loaded from elsewhere and no script is needed.
"""
import html
import itertools
import os
import pathlib
import re
import shutil
import subprocess
import sys

import pygments
import pygments.formatters
import pygments.lexers

import headers

SOURCES = pathlib.Path("BaseAPI/VFileSys/src")
FINDINGS = "docs/findings.md"
HAZARDS = "docs/reliability.md"
INDEX = "index-of-names.html"

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
    """Tables and pictures scroll in a box of their own; a table's header of empty cells goes. A picture has a caption."""
    fragment = re.sub(r"<thead>\s*<tr>(\s*<th[^>]*></th>)*\s*</tr>\s*</thead>", "", fragment)
    fragment = re.sub(r"<table.*?</table>|<img [^>]*>", r'<div class="wide" tabindex="0">\g<0></div>', fragment, flags=re.S)
    return re.sub(r'<p>(<div class="wide" tabindex="0"><img [^>]*alt="([^"]*)"[^>]*></div>)</p>',
                  r"<figure>\1<figcaption>\2</figcaption></figure>", fragment)


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


def from_markdown(text, language="text"):
    """`language` is that of programs that name none."""
    extensions = [word for name in ("table", "strikethrough", "autolink") for word in ("-e", name)]
    fragment = subprocess.run(["cmark-gfm", *extensions], input=text, check=True, capture_output=True, text=True).stdout
    fragment = re.sub(r'<pre><code(?: class="language-(\w+)")?>(.*?)</code></pre>',
                      lambda match: highlight(html.unescape(match[2]), match[1] or language), fragment, flags=re.S)
    return heading_anchors(framed(fragment.replace("<!-- raw HTML omitted -->", "")))


def document(source):
    fragment = from_markdown(pathlib.Path(source).read_text(encoding="utf-8"))
    if source == HAZARDS:
        before, heading, table = fragment.partition("<th>name</th>")
        table = re.sub(r"<tr>(\s*<td><code>([a-z-]+)</code></td>)", r'<tr id="hazard-\2">\1', table)
        fragment = before + heading + table
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
    """What the table says, by name: the hazard and what to do."""
    rows = re.findall(r'<tr id="hazard-([a-z-]+)">\s*<td>.*?</td>\s*<td>(.*?)</td>\s*<td>(.*?)</td>', fragment)
    return {name: cells for name, *cells in rows}


class Reference:
    """The public names."""

    def __init__(self, hazards):
        self.hazards = hazards
        found = [(header, each) for header in headers.in_order() for each in headers.read(header)]
        # The type of a result comes behind the classes that the headers are named after.
        found.sort(key=lambda pair: pair[0].stem != pair[1].name)
        self.classes = {each.name: (header, each) for header, each in found}
        self.targets = {}  # what a name leads to
        for name, (_, each) in self.classes.items():
            self.targets[name] = f"reference/{name}.html"
            for member in each.members:
                target = f"{self.targets[name]}#{member.name}"
                self.targets[f"{name}::{member.name}"] = target
                if member.is_function() and member.name != name:
                    self.targets[member.name] = target

    def size(self):
        return sum(len(each.members) for _, each in self.classes.values())

    def page(self, name):
        header, each = self.classes[name]
        summary, details = [], []
        for own, overloads in itertools.groupby(each.members, lambda member: html.escape(member.name)):
            details.append(f'<section><h3 id="{own}"><a href="#{own}">{own}</a></h3>')
            for member in overloads:
                declaration = f"{member.declaration};"
                summary.append(f'<li><a href="#{own}"><code>{html.escape(declaration)}</code></a></li>')
                details += [f'<div class="declaration">{highlight(declaration, "cpp")}</div>',
                            self.description(member.comment)]
            details.append("</section>")
        include = highlight(f"#include <{header.name}>", "cpp")
        return "\n".join([f"<h1>{name}</h1>{include}{self.description(each.comment)}",
                          '<h2 id="members"><a href="#members">Members</a></h2>',
                          '<ul class="members">', *summary, "</ul>", *details])

    def description(self, comment):
        return re.sub(rf"<p>Hazards? \({os.path.basename(HAZARDS)}\): ([a-z,\s-]+)\.</p>",
                      lambda match: self.hazard_box(match[1].replace(",", " ").split()), from_markdown(comment, "cpp"))

    def hazard_box(self, names):
        rows = []
        for name in names:
            if name not in self.hazards:
                sys.exit(f"A comment of the headers names the hazard {name}, which is not in {HAZARDS}.")
            hazard, remedy = (cell.replace('href="', 'href="../docs/') for cell in self.hazards[name])
            rows.append(f'<li><a href="../{HAZARDS}#hazard-{name}">Hazard {name}</a>: {hazard}. '
                        f"<em>What to do:</em> {remedy}.</li>")
        return f'<aside><ul>{"".join(rows)}</ul></aside>'

    def operations_that_log(self, name, text):
        """Where a text that a class logs is documented: in quotes, or as code when it has some itself."""
        def has_text(comment):
            return re.search(rf'(["`]){re.escape(text)}\1', " ".join(comment.split()))

        _, each = self.classes[name]
        members = [f"{name}::{member.name}" for member in each.members if has_text(member.comment)]
        found = members or [name] * bool(has_text(each.comment))
        if not found:
            sys.exit(f"No comment of {name}.h has the text that is logged: {text}")
        return {words: self.targets[words] for words in found}


class Index:
    """All that a reader may look up by its name: the pages that explain it, by what their links are called."""

    def __init__(self, reference, manual):
        self.reference = reference
        self.manual = {name: manual_page(name) for name in manual}
        self.parts = {
            "Names": {name: {"": target} for name, target in reference.targets.items()
                      if "::" in name or name in reference.classes},
            "Finding codes": {code: {"": f"{FINDINGS}#{code.lower()}"} for code in self.codes()},
            "Log texts": self.logged_texts(),
            "Subcommands": {name: {"": f"man/vfilelist.1.html#{name}"} for name in
                            re.findall(r'<h3 class="Ss" id="(.*?)"', self.manual["docs/man/vfilelist.1"])},
            "Options": self.described("Fl", manual),
            "Environment variables": self.described("Ev", manual),
        }

    @staticmethod
    def codes():
        return re.findall(r"^### (.*)", pathlib.Path(FINDINGS).read_text(encoding="utf-8"), flags=re.M)

    def logged_texts(self):
        """As the sources have them. The manual page of a program has words in capitals for what is put in."""
        programs = self.described("Li", [page for page in self.manual if page.endswith(".8")])
        found = {}
        for source in sorted(SOURCES.rglob("*.cpp")):
            for text in re.findall(r'VFS_LOG\([^,]+,\s*[^,]+,\s*"((?:\\.|[^"\\])*)"', source.read_text(encoding="utf-8")):
                text = text.removesuffix("\\n").replace('\\"', '"')
                if text == "%s":
                    continue  # what is logged as it is has no name
                places = found.setdefault(text, {})
                if source.stem in self.reference.classes:
                    places |= self.reference.operations_that_log(source.stem, text)
                pattern = re.sub("%[ds]", "[A-Z]+", re.escape(text.strip()))
                for described in filter(re.compile(pattern).fullmatch, programs):
                    places |= programs[described]
        return {text: places for text, places in found.items() if places}

    def described(self, kind, pages):
        """What has an entry of its own in a list of a manual page, with the subsection above."""
        found = {}
        for page in pages:
            for match in re.finditer(r'<h(?P<level>[23])[^>]* id="(?P<section>[^"]*)">(?P<heading>.*?)</h|'
                                     r'<dt(?: id="(?P<id>[^"]*)")?>(?P<term><.*?)</dt>', self.manual[page], flags=re.S):
                if match["level"]:
                    section = match["section"]
                    words = manual_title(page) + (f', {plain(match["heading"])}' if match["level"] == "3" else "")
                for name in re.findall(rf'<code class="{kind}">(.*?)</code>', match["term"] or "", flags=re.S):
                    place = f'man/{os.path.basename(page)}.html#{match["id"] or section}'
                    found.setdefault(" ".join(plain(name).split()), {}).setdefault(words, place)
        return found

    def page(self):
        anchors = {title: title.lower().replace(" ", "-") for title in self.parts}
        links = (f'<a href="#{anchor}">{title}</a>' for title, anchor in anchors.items())
        parts = ["<h1>Index</h1>", f'<p>{" · ".join(links)}</p>']
        for title, entries in self.parts.items():
            parts += [f'<h2 id="{anchors[title]}"><a href="#{anchors[title]}">{title}</a></h2>', '<ul class="index">']
            for name in sorted(entries, key=lambda name: (re.sub(r"^(%[ds]|\W)+", "", name).lower(), name)):
                parts.append(f"<li>{self.entry(name, entries[name])}</li>")
            parts.append("</ul>")
        return "\n".join(parts)

    @staticmethod
    def entry(name, places):
        """A name leads to its only page, unless words say more of it."""
        code = f"<code>{html.escape(name)}</code>"
        if "" in places:
            return f'<a href="{places[""]}">{code}</a>'
        return f"{code}: " + ", ".join(f'<a href="{place}">{html.escape(words)}</a>' for words, place in places.items())


class Site:
    def __init__(self, output):
        self.output = output
        self.version = re.search(r"project\(VFileSys\s+VERSION ([\d.]+)", pathlib.Path("CMakeLists.txt").read_text())[1]
        self.reference = Reference(hazards_of(document(HAZARDS)))
        self.queue = {}  # what of the tree is shown, and where
        self.manual = sorted(map(str, pathlib.Path("docs/man").glob("*.[1-8]")), key=lambda name: (name[-1], name))
        self.groups = self.choose_groups()

    def choose_groups(self):
        """The navigation: of each group the title and its pages' titles and sources."""
        overview = pathlib.Path("README.md").read_text(encoding="utf-8")
        documents = sorted(map(str, pathlib.Path("docs").glob("*.md")),
                           key=lambda name: (name not in overview, overview.find(name), name))
        project = [*sorted(map(str, pathlib.Path(".").glob("*.md"))), "fuzz/README.md", "LICENSE"]
        project.remove("README.md")
        return [
            ("", [("Overview", self.place("README.md")), ("Index", INDEX)]),
            ("Documents", [(self.title(name), self.place(name)) for name in documents]),
            ("Reference", [(name, self.reference.targets[name]) for name in self.reference.classes]),
            ("Manual pages", [(manual_title(name), self.place(name)) for name in self.manual]),
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
        if source.startswith(f"{headers.DIRECTORY}/"):
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
        self.write(INDEX, "Index", Index(self.reference, self.manual).page(), INDEX, "listing")

    def show(self, source, place):
        if place == source:
            target = self.output / place
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, target)
        elif os.path.isdir(source):
            self.write(place, f"{source}/", self.listing(source), place, "listing")
        elif source.endswith(".md"):
            self.write(place, self.title(source), document(source), source, "document")
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
    output = pathlib.Path(sys.argv[1])
    site = Site(output)
    site.build()
    pages = sum(1 for _ in output.rglob("*.html"))
    print(f"{pages} pages, {len(site.reference.classes)} classes, {site.reference.size()} members")


main()
