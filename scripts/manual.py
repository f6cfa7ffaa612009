"""manual.py DIRECTORY: makes the manual pages of section 3 out of the public headers, in the source tree that it is
run in. The pages of docs/man are kept with the sources, so that an installation needs no Python."""
import itertools
import pathlib
import re
import sys
import textwrap

import headers

# The pages bear the date of the one that is written by hand.
OVERVIEW = pathlib.Path("docs/man/VFileSys.7")
HAZARDS = pathlib.Path("docs/reliability.md")
HAZARD_LINE = r"Hazards? \(reliability\.md\): ([a-z, -]+)\."
WIDTH = 78


# An apostrophe that must stay one: that of a quoted text.
STRAIGHT = "\0"


def escaped(text):
    """Text as it is to be seen, with the characters that a formatter would replace by prettier ones."""
    text = text.replace("\\", "\\e").replace('"', "\\(dq").replace("`", "\\(ga").replace("~", "\\(ti")
    text = re.sub(rf"{STRAIGHT}|(?<![a-z])'|'(?![a-z])", r"\\(aq", text)
    return re.sub(r"(?<![A-Za-z0-9])-|-(?=-)", r"\-", text)


def literal(text):
    return re.sub(r"(?<!\\)-", r"\-", escaped(text.replace("'", STRAIGHT)))


class Writer:
    """Lines of mdoc: each sentence begins on a new line, each macro has one of its own."""

    def __init__(self, functions, pages):
        self.lines = []
        self.text = ""
        self.arguments = ()
        # What is marked up, or known by its form. What stands in quotes is text and no more.
        self.inline = re.compile(rf"""(?P<quoted>"[^"\n]*") | `(?P<code>[^`]+)` | \*\*(?P<Em>.+?)\*\*
            | (?P<Xr>\b[a-zA-Z_]\w*\([1-8]\)) | (?P<Vt>\bstd::\w+) | (?P<Er>\bE[A-Z]{{3,}}2?\b)
            | (?P<page>(?<![\w:])(?:{"|".join(pages)})\b(?!::)) | (?P<Fn>(?:\b\w+::)?\b(?:{"|".join(functions)})\b)""",
            re.VERBOSE)

    def pieces(self, text):
        """The words of a text, each as its pieces (macro or None, text) that stand together without a blank."""
        words, at = [[]], 0

        def add_text(part):
            first, *others = re.split(r"\s+", part)
            for number, word in enumerate([first, *others]):
                if number:
                    words.append([])
                if word:
                    words[-1].append((None, word))

        for match in self.inline.finditer(text):
            add_text(text[at:match.start()])
            kind, inside = match.lastgroup, match[match.lastgroup]
            if kind == "quoted":
                add_text(inside.replace("'", STRAIGHT))
            elif kind == "code" and inside in self.arguments:
                words[-1].append(("Fa", inside))
            elif kind == "code":
                words[-1].append(("Li", inside))
            elif kind == "page":
                words[-1].append(("Xr", f"{inside}(3)"))
            else:
                words[-1].append((kind, inside))
            at = match.end()
        add_text(text[at:])
        return [word for word in words if word]

    def flush(self):
        if self.text:
            if self.text[0] in ".'":
                self.text = "\\&" + self.text
            self.lines.append(self.text)
            self.text = ""

    def macro(self, *arguments):
        self.flush()
        self.lines.append("." + " ".join(arguments))

    def add_word(self, word, is_end):
        word = escaped(word)
        if self.text and len(self.text) + 1 + len(word) > WIDTH:
            if self.text.endswith("."):
                self.text += "\\&"
            self.flush()
        self.text += (" " if self.text else "") + word
        if is_end:
            self.flush()

    @staticmethod
    def argument(kind, text):
        if kind == "Xr":
            return text[:-1].replace("(", " ")
        words = literal(text).split()
        # A word that is the name of a macro would be called.
        return " ".join(re.sub(r"^(?=[A-Z][a-z]{1,2}$|[.,:;()?!|\[\]]$)", r"\\&", word) for word in words)

    def add_marked(self, word):
        """A word some of whose pieces are macros."""
        parts = []
        for number, (kind, text) in enumerate(word):
            if kind is not None:
                # What a text glues to the macro behind it, it does as the argument of Pf.
                parts += ["Ns"] if number > 0 and parts[0] != "Pf" or number > 1 else []
                parts += [kind, self.argument(kind, text)]
            elif number == 0:
                parts += ["Pf", escaped(text)]
            else:
                glued, punctuation = re.fullmatch(r"(.*?)([.,:;)?!]*)", text).groups()
                parts += ["Ns", "No", escaped(glued)] if glued else []
                parts += punctuation
        self.macro(*parts)

    def add(self, text):
        words = self.pieces(text)
        for word, following in itertools.zip_longest(words, words[1:]):
            last = word[-1][1]
            first = following[0][1] if following else "A"
            is_end = re.search(r"[.?!]\)?$", last) is not None and re.match(r"[A-Z`*(\"]", first) is not None
            if all(kind is None for kind, _ in word):
                self.add_word("".join(part for _, part in word), is_end)
            else:
                self.add_marked(word)
        self.flush()

    def add_blocks(self, blocks):
        """Paragraphs, lists and tables, with a break between two that follow one another."""
        before = None
        for kind, content in blocks:
            if before is not None and kind == "text":
                self.macro("Pp")
            {"text": self.add, "list": self.add_list, "table": self.add_table}[kind](content)
            before = kind

    def add_list(self, items):
        """What stands before an item's first colon, outside of quotes, is its tag."""
        self.macro("Bl -tag -width Ds -offset indent")
        for item in items:
            tag, text = re.fullmatch(r'((?:`[^`]*`|"[^"]*"|[^":]|:(?! ))+?): (.*)', item).groups()
            text_alone = re.fullmatch(r'"([^"]*)"', tag)
            self.macro("It", self.argument("It", text_alone[1] if text_alone else tag.replace("`", "")))
            self.add(text)
        self.macro("El")

    def add_table(self, rows):
        columns = [column for column in zip(*rows) if any(column)]
        widths = (f'"{max(column, key=len)}"' for column in columns)
        self.macro("Bl -column", *widths, "-offset indent")
        for row in zip(*columns):
            self.macro("It", " Ta ".join(row))
        self.macro("El")

    def add_code(self, lines):
        self.macro("Bd -literal -offset indent")
        for line in lines:
            line = line.replace("\\", "\\e")
            self.lines.append("\\&" + line if line.startswith((".", "'")) else line)
        self.macro("Ed")


def blocks_of(comment):
    """The paragraphs of a comment, by kind."""
    for paragraph in comment.split("\n\n"):
        lines = paragraph.split("\n")
        if lines[0].startswith("    "):
            yield "code", [line.removeprefix("    ") for line in lines]
        elif lines[0].startswith("|"):
            rows = [[cell.strip() for cell in line.strip("|").split("|")] for line in lines]
            yield "table", rows[:1] + rows[2:]
        else:
            text, *items = re.split(r"^ *- ", paragraph, flags=re.MULTILINE)
            if text:
                yield "text", " ".join(text.split())
            if items:
                yield "list", [" ".join(item.split()) for item in items]


def hazards():
    """What the table says, by name: the hazard and what to do."""
    table = HAZARDS.read_text(encoding="utf-8").partition("| name | hazard |")[2]
    rows = re.findall(r"^\| `([a-z-]+)` \| (.*?) \| (.*?) \|$", table, flags=re.MULTILINE)
    return {name: [re.sub(r" \(\[.*?\)\)", "", cell) for cell in cells] for name, *cells in rows}


class Page:
    def __init__(self, header):
        self.header = header
        self.classes = headers.read(header)
        others = [other.stem for other in headers.in_order() if other != header]
        functions = {member.name for other in headers.in_order() for found in headers.read(other)
                     for member in found.members if member.is_function() and member.name.isalpha()}
        self.out = Writer(sorted(functions - {found.name for found in self.classes}), others)
        self.examples = []
        self.hazards = set()

    def write(self):
        out = self.out
        main = self.classes[0]
        out.lines += [re.search(r"^\.Dd .*", OVERVIEW.read_text(encoding="utf-8"), flags=re.MULTILINE)[0],
                      f'.\\" Made of {self.header} by scripts/manual.py.', f".Dt {main.name.upper()} 3", ".Os VFileSys", ".Sh NAME"]
        out.lines += [f".Nm {found.name} ," for found in self.classes[:-1]] + [f".Nm {self.classes[-1].name}"]
        first = re.match(r"(.*?)\.\s", main.comment + "\n", flags=re.DOTALL)[1]
        out.macro("Nd", " ".join((first[0].lower() + first[1:]).replace("`", "").split()))
        out.lines += [".Sh LIBRARY", "VFileSys", ".Pq libVFileSys, \\-lVFileSys"]
        self.write_synopsis()
        out.macro("Sh DESCRIPTION")
        for found in self.classes:
            self.write_class(found)
        self.write_examples()
        self.write_references()
        self.write_hazards()
        return "\n".join(out.lines) + "\n"

    def write_synopsis(self):
        out = self.out
        out.lines += [".Sh SYNOPSIS", f".In {self.header.name}"]
        for found in self.classes:
            if all(member.declaration.startswith("static ") for member in found.members):
                for member in found.members:
                    self.write_prototype(found, member)
            else:
                out.macro("Bd -literal")
                out.lines += [f"class {found.name} {{", "public:"]
                for member in found.members:
                    out.lines += textwrap.wrap(f"{member.declaration};", WIDTH, initial_indent="    ",
                                               subsequent_indent="        ", break_on_hyphens=False)
                out.lines.append("};")
                out.macro("Ed")

    def write_prototype(self, found, member):
        result = member.declaration.partition(f" {member.name}(")[0]
        self.out.macro("Ft", f'"{result}"')
        self.out.macro("Fo", f"{found.name}::{member.name}")
        for argument in member.arguments():
            self.out.macro("Fa", '"{}"'.format(re.sub(r"([*&]+) ", r" \1", argument)))
        self.out.macro("Fc")

    def write_class(self, found):
        if found != self.classes[0]:
            self.out.macro("Ss", found.name)
        self.write_comment(found.comment)
        for name, overloads in itertools.groupby(found.members, lambda member: member.name):
            own = name if found == self.classes[0] else f"{found.name}::{name}"
            self.out.macro("Ss", own)
            overloads = list(overloads)
            for member in overloads:
                if len(overloads) > 1:
                    self.out.macro("Bd -literal")
                    self.out.lines.append(f"{member.declaration};")
                    self.out.macro("Ed")
                    self.out.macro("Pp")
                self.out.arguments = [re.split(r"[ *&]", argument)[-1] for argument in member.arguments()]
                self.write_comment(member.comment)

    def write_comment(self, comment):
        blocks = []
        for kind, content in blocks_of(comment):
            named = re.fullmatch(HAZARD_LINE, content) if kind == "text" else None
            if kind == "code":
                self.examples.append(content)
            elif named:
                self.hazards.update(named[1].split(", "))
            else:
                blocks.append((kind, content))
        self.out.add_blocks(blocks)

    def programs(self):
        """The examples that include the header, with the first sentence of each."""
        for program in sorted(pathlib.Path("examples").glob("*.cpp")):
            text = program.read_text(encoding="utf-8")
            if f'#include "{self.header.name}"' in text:
                comment = " ".join(line.removeprefix("//").strip() for line in text.split("\n\n")[0].split("\n"))
                yield program.name, re.match(r".*?(?<=\w)[.:](?= |$)", comment)[0].rstrip(":.") + "."

    def write_examples(self):
        self.out.arguments = ()
        self.out.macro("Sh EXAMPLES")
        for example in self.examples:
            self.out.add_code(example)
        if self.examples:
            self.out.macro("Pp")
        self.out.add("Programs to copy from, in the directory `examples` of the package's documentation:")
        self.out.macro("Bl -tag -width Ds")
        for name, sentence in self.programs():
            self.out.macro("It Pa", name)
            self.out.add(sentence)
        self.out.macro("El")

    def write_references(self):
        found = {tuple(re.match(r"\.(?:Pf \S+ )?Xr (\S+) (\d)", line).groups()) for line in self.out.lines
                 if re.match(r"\.(?:Pf \S+ )?Xr ", line)} | {("VFileSys", "7")}
        found -= {(self.header.stem, "3")}
        self.out.macro("Sh SEE ALSO")
        pages = sorted(found, key=lambda page: (page[1], page[0].lower()))
        for name, section in pages[:-1]:
            self.out.macro("Xr", name, section, ",")
        self.out.macro("Xr", *pages[-1])

    def write_hazards(self):
        if not self.hazards:
            return
        table = hazards()
        self.out.macro("Sh CAVEATS")
        self.out.add("What can go wrong, with the names of `reliability.md` in the package's documentation:")
        self.out.macro("Bl -tag -width Ds")
        for name in sorted(self.hazards, key=list(table).index):
            hazard, remedy = table[name]
            self.out.macro("It", literal(name))
            self.out.add(f"{hazard}.")
            self.out.add(f"What to do: {remedy}.")
        self.out.macro("El")


def main():
    directory = pathlib.Path(sys.argv[1])
    for header in headers.in_order():
        (directory / f"{header.stem}.3").write_text(Page(header).write(), encoding="utf-8")


main()
