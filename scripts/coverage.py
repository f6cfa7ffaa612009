"""Holds what the tests leave out, as gcovr tells it, against the written list of what nothing can reach.

Usage: coverage.py GCOVR.json LIST

A place in the list is the file, the reason, and each line that is left out:

    BaseAPI/VFileSys/src/VPath.cpp
      The reason.
      | 1 branch: if (length == 1 && begin[0] == '.') return begin - 1;
      | line: break;
"""
import collections
import json
import re
import sys

MAX_PLACES = 15
GAP = re.compile(r"\| (line|\d+ branch(?:es)?): (.*)")


def gaps_of(line):
    """What is missing on one line of gcovr's report: nothing, "line" or "2 branches"."""
    if line["gcovr/noncode"]:
        return None
    if line["count"] == 0:
        return "line"
    missing = sum(branch["count"] == 0 for branch in line["branches"])
    if missing == 0:
        return None
    return "1 branch" if missing == 1 else f"{missing} branches"


def read_report(path):
    """The gaps as (file, what, source text), where each is, and the figures."""
    gaps = collections.Counter()
    places = {}
    figures = collections.Counter()
    with open(path, encoding="utf-8") as report:
        files = json.load(report)["files"]
    for file in files:
        name = file["file"]
        with open(name, encoding="utf-8") as source:
            texts = source.read().split("\n")
        for line in file["lines"]:
            if line["gcovr/noncode"]:
                continue
            figures["lines"] += 1
            figures["lines reached"] += line["count"] > 0
            figures["branches"] += len(line["branches"])
            figures["branches reached"] += sum(branch["count"] > 0 for branch in line["branches"])
            what = gaps_of(line)
            if what is not None:
                gap = (name, what, texts[line["line_number"] - 1].strip())
                gaps[gap] += 1
                places[gap] = line["line_number"]
    return gaps, places, figures


def read_list(path):
    """The listed gaps, and the number of places."""
    gaps = collections.Counter()
    places = 0
    name = None
    reason = ""
    with open(path, encoding="utf-8") as lines:
        for number, line in enumerate(lines, 1):
            text = line.strip()
            gap = GAP.fullmatch(text)
            if not text or line.startswith("#"):
                continue
            if not line.startswith(" "):
                name, reason = text, ""
                places += 1
            elif gap and name and reason:
                gaps[(name, gap[1], gap[2])] += 1
            elif gap or text.startswith("|"):
                sys.exit(f"{path}:{number}: a line that is left out needs a file and a reason before it")
            else:
                reason += text
    return gaps, places


def main():
    found, places, figures = read_report(sys.argv[1])
    listed, count = read_list(sys.argv[2])
    if not figures["lines"]:
        sys.exit("gcovr has counted nothing")
    for kind in ("lines", "branches"):
        reached = figures[kind + " reached"]
        print(f"{kind}: {reached} of {figures[kind]} ({100 * reached / figures[kind]:.2f} %)")
    print(f"{sys.argv[2]} has {count} places that nothing can reach.")

    wrong = False
    for name, what, text in sorted((found - listed).elements(), key=lambda gap: (gap[0], places[gap])):
        print(f"{name}:{places[(name, what, text)]}: no test reaches: {what}: {text}", file=sys.stderr)
        wrong = True
    for name, what, text in sorted((listed - found).elements()):
        print(f"{name}: listed, but reached (or gone): {what}: {text}", file=sys.stderr)
        wrong = True
    if count > MAX_PLACES:
        print(f"{sys.argv[2]}: more than {MAX_PLACES} places", file=sys.stderr)
        wrong = True
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main()
