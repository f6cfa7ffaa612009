#!/usr/bin/python3
"""licences.py BILL PACKAGE: prints the notices of the libraries that were compiled into a Debian package of ours.

BILL, the bill of materials of our packages, says which libraries these are. Authors and licences come from the copyright
files of their Debian packages.
"""

import fnmatch
import json
import re
import subprocess
import sys

# Debian's names of licences, and what SPDX calls them.
LICENCES = {
    "BSD-124-clause-UCB": "BSD-4-Clause-UC",
    "BSD-2-clause": "BSD-2-Clause",
    "Apache-2.0": "Apache-2.0",
    "BSD-3-clause": "BSD-3-Clause",
    "Expat": "MIT",
    "Expat with embedded exception": "MIT WITH fmt-exception",
    "Zlib": "Zlib",
}

# Packages whose copyright files have no form for machines.
LICENCES_OF_PACKAGES = [
    (re.compile(r"libc6(-|$)"), "LGPL-2.1-or-later"),
    (re.compile(r"lib(gcc|stdc\+\+)-?[0-9s]"), "GPL-3.0-or-later WITH GCC-exception-3.1"),
]

# Of libraries that are linked as objects: the sources of those objects that the linker takes.
LINKED_SOURCES = {
    "libarchive-dev": [f"libarchive/{name}.c" for name in (
        "archive_acl", "archive_check_magic", "archive_entry", "archive_entry_link_resolver", "archive_pack_dev",
        "archive_rb", "archive_read", "archive_read_open_memory", "archive_read_support_format_mtree",
        "archive_string", "archive_string_sprintf", "archive_util")],
}

# The exception: what a compiler's headers add to a program may be distributed under any terms, and needs no notice.
ASKS_FOR_NOTHING = "GPL-3.0-or-later WITH GCC-exception-3.1"


def files_of(package):
    return subprocess.run(["dpkg-query", "--listfiles", package], check=True, stdout=subprocess.PIPE,
                          text=True).stdout.splitlines()


def paragraphs(text):
    """The fields of each paragraph of a copyright file, with all their lines."""
    for block in re.split(r"\n\s*\n", text):
        yield dict(re.findall(r"^([A-Z][A-Za-z-]*):[ \t]*(.*(?:\n[ \t].*)*)", block, re.MULTILINE))


def is_installed(pattern, files):
    return pattern == "*" or bool(fnmatch.filter(files, "*/usr/" + pattern))


def copyrights_of(package):
    """The library's name; pairs of authors and a licence, for the files that are installed or linked; the licences'
    texts."""
    files = files_of(package)
    linked = LINKED_SOURCES.get(package.split(":")[0], [])
    with open(next(file for file in files if file.endswith("/copyright")), encoding="utf-8") as copyright_file:
        fields = list(paragraphs(copyright_file.read()))
    texts = {}
    pairs = []
    for paragraph in fields:
        licence, _, text = paragraph.get("License", "").partition("\n")
        if text:
            texts[licence] = text
        if any(is_installed(pattern, files) or fnmatch.filter(linked, pattern)
               for pattern in paragraph.get("Files", "").split()):
            pairs += [(paragraph["Copyright"], part) for part in licence.split(" and ")]
    return fields[0].get("Upstream-Name", package), pairs, texts


def licence_of(package):
    """As an SPDX expression."""
    for pattern, licence in LICENCES_OF_PACKAGES:
        if pattern.match(package.split(":")[0]):
            return licence
    licences = {LICENCES.get(licence, "NOASSERTION") for _, licence in copyrights_of(package)[1]}
    return all_of(licences or {"NOASSERTION"})


def all_of(licences):
    if "NOASSERTION" in licences:
        return "NOASSERTION"
    return " AND ".join(sorted({part for licence in licences for part in licence.split(" AND ")}))


def lines_of(value):
    """The lines of a field as people read them."""
    return [line.strip() if line.strip() != "." else "" for line in value.strip().splitlines()]


def notice(package):
    """The authors and the licence of a library, under its name."""
    title, pairs, texts = copyrights_of(package)
    lines = [title, "-" * len(title), ""]
    for licence in dict.fromkeys(licence for _, licence in pairs):
        names = [line for value, of in pairs if of == licence for line in lines_of(value)]
        lines += [("Copyright " if re.match(r"\(c\)|\d", name) else "") + name for name in names] + [""] + lines_of(texts[licence]) + [""]
    return "\n".join(lines)


def contents_of(bill, package):
    """The names of the Debian packages whose code a package of ours contains, and that ask for a notice."""
    by_id = {described["SPDXID"]: described for described in bill["packages"]}
    contents = [by_id[relation["relatedSpdxElement"]] for relation in bill["relationships"]
                if relation["spdxElementId"] == "SPDXRef-" + package and relation["relationshipType"] == "CONTAINS"]
    return sorted(described["name"] for described in contents if described["licenseDeclared"] != ASKS_FOR_NOTHING)


def notices(package, contents):
    return "\n".join([f"Code of these libraries is compiled into {package}. Their licences ask for these notices.\n",
                      *map(notice, contents)])


def main():
    with open(sys.argv[1], encoding="utf-8") as bill:
        contents = contents_of(json.load(bill), sys.argv[2])
    print(notices(sys.argv[2], contents).rstrip("\n"))


if __name__ == "__main__":
    main()
