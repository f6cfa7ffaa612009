"""The public headers: their classes and members with what the comments say of them, in Markdown."""
import dataclasses
import pathlib
import re
import sys

DIRECTORY = pathlib.Path("BaseAPI/VFileSys/include")


@dataclasses.dataclass
class Member:
    name: str
    declaration: str  # on one line, without body and semicolon
    comment: str

    def is_function(self):
        return "(" in self.declaration

    def arguments(self):
        inside = re.search(r"\((.*)\)", self.declaration)
        return inside[1].split(", ") if inside and inside[1] else []


@dataclasses.dataclass
class Class:
    name: str
    comment: str
    members: list[Member]


def member(declaration, comment):
    declaration = re.sub(r"( : .*)?( ?\{\})?;?$", "", declaration)
    name = re.search(r"(operator[^(]+|~?\w+)(\(|$)", declaration)[1]
    return Member(name, declaration, comment)


def read(header):
    """The classes of a header, that of its name first."""
    classes, comment, declaration, is_public = [], [], [], False

    def take_comment(name):
        if not comment:
            sys.exit(f"{header}: {name} has no comment")
        text = "\n".join(comment)
        comment.clear()
        return text

    for line in map(str.strip, header.read_text(encoding="utf-8").split("\n")):
        if line.startswith("///"):
            comment.append(line[3:].removeprefix(" "))
        elif opening := re.match(r"class .*?(\w+) \{$", line):
            classes.append(Class(opening[1], take_comment(opening[1]), []))
        elif line in ("public:", "private:", "};"):
            is_public = line == "public:"
        elif is_public and line:
            declaration.append(line)
            if line.endswith((";", "}")):
                text = " ".join(declaration)
                declaration.clear()
                # What nobody can call needs no comment.
                if not text.endswith("= delete;"):
                    classes[-1].members.append(member(text, take_comment(text)))
    return sorted(classes, key=lambda found: found.name != header.stem)


def in_order():
    """All headers, in the order of README's table."""
    overview = pathlib.Path("README.md").read_text(encoding="utf-8")
    return sorted(DIRECTORY.glob("*.h"), key=lambda header: overview.index(f"({header})"))
