"""Breaks the sources below BaseAPI/ in small ways, one at a time, and looks whether a test notices.

Usage: mutation.py LIST [--sample N] [--seed TEXT] [--jobs N] [--only TEXT] [--count]

A mutant has one condition turned round, one operator swapped for its neighbour, or one statement dropped. Nearly all
of them are compiled into one build of a copy of the tree, below build/mutation, and an environment variable chooses
one of them; those that do not fit beside others are built on their own. They are tested in a mount namespace that
sees the host read-only: a broken program may remove what it likes. First come the tests of the same name as the
source, then all others. A test that fails, crashes or takes much longer than it should has caught the mutant.

LIST has the mutants that no test can catch, each place with its reason:

    BaseAPI/VFileList/src/Files.cpp
      The reason.
      | (void)posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL); ==> dropped

The status is 0 when every survivor is listed, no listed one was caught, and 95 % were caught; of a sample, when 90 %
were caught. A sample tells at each commit when the tests have grown much worse; what it finds is named, and has to be
listed or caught by the time all are tried.
"""
import argparse
import collections
import itertools
import json
import os
import pathlib
import queue
import random
import re
import shutil
import subprocess
import sys
import threading
import time

MIN_SCORE = 95
MIN_SAMPLE_SCORE = 90  # a few mutants in a hundred say it less exactly
SLOW_SECONDS = 0.5  # tests that take longer come last
PRESET = "debug"
WORK = pathlib.Path("build/mutation").resolve()
TREE = WORK / "tree"
BUILD = f"build/{PRESET}"
# In the order in which they are tried.
PROGRAMS = ["vfilesys_tests", "process_tests", "example_tests", "vfilelist_tests", "fault_tests",
            "killed_upgrade_tests"]
TARGETS = PROGRAMS

Mutant = collections.namedtuple("Mutant", "file begin end text label")

# Chooses among the mutants of one build.
CHOICE = "VFILESYS_MUTANT"
CHOOSER = f"""#pragma once
#include <cstdlib>
inline bool IsMutant(int number) {{
    static const int chosen = [] {{
        const char* const text = std::getenv("{CHOICE}");
        return text != nullptr ? std::atoi(text) : 0;
    }}();
    return chosen == number;
}}
"""


# ---------------------------------------------------------------------------------------------- making mutants

NO_CODE = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|^#(?:\\\n|[^\n])*',
                     re.DOTALL | re.MULTILINE)


def masked(source):
    """The source with everything in comments, literals and preprocessor lines blanked out, in the same length."""
    return NO_CODE.sub(lambda found: re.sub(r"[^\n]", "_" if found[0][0] in "\"'" else " ", found[0]), source)


def without_comments(source):
    """The same without comments only."""
    return NO_CODE.sub(lambda found: " " * len(found[0]) if found[0].startswith("//") else found[0], source)


def closing(code, opening):
    """The place behind the bracket that closes the one at `opening`."""
    depth = 0
    for i in range(opening, len(code)):
        depth += (code[i] in "([{") - (code[i] in ")]}")
        if depth == 0:
            return i + 1
    raise ValueError("brackets do not match")


def condition_before(code, mark):
    """Where the condition begins that ends before the '?' at `mark`."""
    depth = 0
    i = mark
    while i > 0:
        i -= 1
        if code[i] in ")]}":
            depth += 1
        elif code[i] in "([{":
            if depth == 0:
                return i + 1
            depth -= 1
        elif depth == 0 and (code[i] in ",;?" or re.match(r"=\s", code[i:i + 2]) and
                             code[i - 1] in " +-*/"):
            return i + 1
        elif depth == 0 and code[i] == ":" and code[i - 1] != ":" and code[i + 1] != ":":
            return i + 1
        elif depth == 0 and code.startswith("return ", i) and not code[i - 1].isalnum():
            return i + len("return ")
    return 0


def conditions(code):
    """The conditions of if, while, for and ?: as (begin, end)."""
    for found in re.finditer(r"\b(if|while)( constexpr)? \(", code):
        if found[2] is None:
            yield found.end(), closing(code, found.end() - 1) - 1
    for found in re.finditer(r"\bfor \(", code):
        parts = code[found.end():closing(code, found.end() - 1) - 1].split(";")
        if len(parts) == 3 and parts[1].strip():
            begin = found.end() + len(parts[0]) + 1
            yield begin, begin + len(parts[1])
    for found in re.finditer(r"\s\? ", code):
        yield condition_before(code, found.start()), found.start()


OPERATORS = {"&&": "||", "||": "&&", "==": "!=", "!=": "==", "<": "<=", "<=": "<", ">": ">=", ">=": ">"}
DECLARATION = re.compile(
    r"(const|constexpr|static|auto|using|struct|class|enum|namespace|template|typedef|public|private|protected|"
    r"friend|explicit|extern|return|throw|case|default|goto|if|else|for|while|do|switch|try|catch|virtual|inline|"
    r"operator|unsigned|signed|static_assert)\b|[\w:]+(<[^;=()]*>)?[&*]* (const )?[&*]*\w+\s*([;={\[(]|$)|[\w:]+\(const\b")
STATEMENT = re.compile(r"\(void\)|\*?\(?[A-Za-z_:]|\+\+|--")


def statements(code):
    """The expression statements, and break and continue, as (begin, end)."""
    starts = {found.end() for found in re.finditer(r"[;{}]\s*|\belse |\bdo ", code)}
    for found in re.finditer(r"\b(if|while|for) \(", code):
        end = closing(code, found.end() - 1)
        starts.add(end + len(code[end:]) - len(code[end:].lstrip()))
    for found in re.finditer(r"\b(case [^;{}]*?|default):\s+", code):
        starts.add(found.end())
    headers = [(found.end(), closing(code, found.end() - 1)) for found in re.finditer(r"\bfor \(", code)]
    switches = [closing(code, code.index("{", closing(code, found.end() - 1)))
                for found in re.finditer(r"\bswitch \(", code)]
    for begin in sorted(starts):
        is_outermost = begin == 0 or code[begin - 1] == "\n"
        is_in_header = any(first <= begin < last for first, last in headers)
        if is_outermost or is_in_header or not STATEMENT.match(code, begin) or DECLARATION.match(code, begin):
            continue
        depth = 0
        for end in range(begin, len(code)):
            depth += (code[end] in "([{") - (code[end] in ")]}")
            if depth < 0 or (depth == 0 and code[end] == ";"):
                break
        # The last break of a switch leaves what ends there in any case.
        rest = code[end + 1:]
        if code[begin:end] == "break" and end + 2 + len(rest) - len(rest.lstrip()) in switches:
            continue
        if depth == 0 and re.match(r"break|continue|.*[=(+-]", code[begin:end], re.DOTALL):
            yield begin, end + 1


def line_of(source, begin, end):
    """The text of the lines from `begin` to `end`, in one line."""
    first = source.rfind("\n", 0, begin) + 1
    last = source.find("\n", end - 1)
    return " ".join(source[first:last].split())


def mutants_of(file):
    source = pathlib.Path(file).read_text(encoding="utf-8")
    code = masked(source)

    def mutant(begin, end, text):
        changed = source[:begin] + text + source[end:]
        label = line_of(source, begin, end) + " ==> "
        label += "dropped" if text == ";" else line_of(changed, begin, begin + max(len(text), 1))
        return Mutant(file, begin, end, text, label)

    found = []
    whole = set()
    for begin, end in conditions(code):
        condition = source[begin:end].strip()
        begin += len(source[begin:end]) - len(source[begin:end].lstrip())
        plain = re.fullmatch(r"!([\w.>\-]+(\([\w., ]*\))?)", condition)
        if condition != "true":
            found.append(mutant(begin, begin + len(condition), plain[1] if plain else f"!({condition})"))
            whole.add((begin, begin + len(condition)))
    for token in re.finditer(r"(?<=\s)(&&|\|\||[=!<>]=|[<>])(?=\s)", code):
        # An equality that is the whole condition is turned round already.
        inner = [code[begin:end] for begin, end in whole if begin <= token.start() < end]
        if token[0] not in ("==", "!=") or any(re.search(r"&&|\|\||\?", text) for text in inner) or not inner:
            found.append(mutant(token.start(), token.end(), OPERATORS[token[0]]))
    for token in re.finditer(r"(?<=[=(,&|?:] )!(?=[\w:(])|(?<=return )!(?=[\w:(])|(?<=\()!(?=[\w:(])", code):
        found.append(mutant(token.start(), token.end(), ""))
    for token in re.finditer(r"(?<!while \()\b(true|false)\b", code):
        found.append(mutant(token.start(), token.end(), "false" if token[0] == "true" else "true"))
    for begin, end in statements(code):
        found.append(mutant(begin, end, ";"))
    unique = {}
    for one in found:
        unique.setdefault((source[:one.begin] + one.text + source[one.end:]), one)
    return sorted(unique.values(), key=lambda one: one.begin)


# ----------------------------------------------------------------------------------- many of them in one source

Region = collections.namedtuple("Region", "begin end kind")


def end_of_expression(code, begin):
    """The place of the ';', ',' or closing bracket behind an expression."""
    depth = 0
    for end in range(begin, len(code)):
        depth += (code[end] in "([{") - (code[end] in ")]}")
        if depth < 0 or (depth == 0 and code[end] in ";,"):
            return end
    raise ValueError("an expression does not end")


def regions_of(source):
    """The parts of a source that can be written twice, one beside the other: (begin, end, kind)."""
    code = masked(source)
    found = []
    for begin, end in conditions(code):
        if not re.search(r"(?<![=!<>])=(?!=)", code[begin:end].split("[")[0]):
            found.append(Region(begin, end, "condition"))
    for begin, end in statements(code):
        found.append(Region(begin, end, "statement"))
    for start in re.finditer(r"(\breturn|(?<![=!<>+*/|&-])=)\s+", code):
        # What begins with a bracket is a list or a lambda; each of those has a type of its own.
        if code[start.end()] not in "{[":
            found.append(Region(start.end(), end_of_expression(code, start.end()), "value"))
    return found


def chosen_text(region, variants, plain):
    """The code of a region with its variants as (number, text). The pieces, each with the number it belongs to."""
    pieces = []
    if region.kind == "statement":
        pieces.append(("{", 0))
        for number, text in variants:
            pieces += [(f"if (IsMutant({number})) {{", 0), (text, number), ("} else ", 0)]
        return pieces + [("{", 0)] + plain + [("}}", 0)]
    cast = "static_cast<bool>" if region.kind == "condition" else ""
    pieces.append(("(", 0))
    for number, text in variants:
        pieces += [(f"IsMutant({number}) ? {cast}(", 0), (text, number), (") : ", 0)]
    return pieces + [(cast + "(", 0)] + plain + [("))", 0)]


def joined(source, mutants):
    """The source with all of `mutants` (by number) in it, as pieces of text with the number that each belongs to,
    and the numbers of those that found no place. Lines stay where they are."""
    bare = without_comments(source)
    owners = collections.defaultdict(list)
    regions = regions_of(source)
    for number, mutant in mutants.items():
        around = [one for one in regions if one.begin <= mutant.begin and mutant.end <= one.end and
                  (mutant.text != ";" or one.kind == "statement")]
        if around:
            owners[min(around, key=lambda one: one.end - one.begin)].append(number)

    def render(begin, end, inside):
        pieces = []
        here = begin
        for region in sorted(inside, key=lambda one: (one.begin, -one.end)):
            if region.begin < here:
                continue  # it overlaps another
            pieces.append((source[here:region.begin], 0))
            variants = []
            for number in owners[region]:
                one = mutants[number]
                text = bare[region.begin:one.begin] + one.text + bare[one.end:region.end]
                variants.append((number, " ".join(text.split("\n"))))
            deeper = [one for one in inside if one != region and region.begin <= one.begin and one.end <= region.end]
            pieces += chosen_text(region, variants, render(region.begin, region.end, deeper))
            here = region.end
        return pieces + [(source[here:end], 0)]

    pieces = render(0, len(source), list(owners))
    return pieces, set(mutants) - {number for _, number in pieces}


def numbers_at(pieces, line, column):
    """The mutants that the compiler may mean with an error at a place: that piece's, or else all of that line."""
    on_line = set()
    at_line, at_column = 1, 1
    for text, number in pieces:
        for number_here in [number] + [int(found) for found in re.findall(r"IsMutant\((\d+)\)", text)]:
            if number_here and at_line <= line <= at_line + text.count("\n"):
                on_line.add(number_here)
        for part in re.split(r"(\n)", text):
            if part == "\n":
                at_line, at_column = at_line + 1, 1
                continue
            width = len(part.encode("utf-8"))
            if number and at_line == line and at_column <= column < at_column + width:
                return {number}
            at_column += width
    return on_line


# ------------------------------------------------------------------------------------------------ running them

# A mutant may ask for any amount of memory.
LIMITED = ["sh", "-c", 'ulimit -c 0 && ulimit -v 16777216 && exec "$@"', "sh"]


def inside(worker, command, writable, seconds, number=0):
    """Runs the command with mutant `number` in a namespace where the worker's tree stands in the tree's place. The
    exit status, None after the time limit, and the output."""
    namespace = ["bwrap", "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc",
                 "--size", str(2 << 30), "--perms", "1777", "--tmpfs", "/tmp",
                 "--bind" if writable else "--ro-bind", worker, TREE,
                 "--unshare-pid", "--unshare-net", "--unshare-ipc", "--die-with-parent", "--new-session",
                 "--chdir", TREE, "--setenv", CHOICE, str(number)]
    try:
        done = subprocess.run(namespace + LIMITED + command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=seconds, check=False)
    except subprocess.TimeoutExpired as expired:
        return None, expired.stdout or b""
    return done.returncode, done.stdout


def build(worker, seconds=600):
    status, output = inside(worker, ["ninja", "-C", BUILD, *TARGETS], True, seconds)
    return status == 0, output


def write_if_changed(path, content):
    if not path.exists() or path.read_bytes() != content:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)


def tree_names():
    names = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "-z"], check=True,
                           stdout=subprocess.PIPE).stdout.decode().split("\0")
    return [name for name in names if name and os.path.isfile(name)]


def copy_tree(changed):
    """A copy of what git knows or would add, the files in `changed` with that content."""
    wanted = tree_names()
    for name in wanted:
        path = pathlib.Path(name)
        content = changed[name].encode("utf-8") if name in changed else path.read_bytes()
        write_if_changed(TREE / name, content)
        shutil.copymode(path, TREE / name)
    write_if_changed(TREE / "Mutants.h", CHOOSER.encode("utf-8"))
    for old in TREE.rglob("*"):
        name = str(old.relative_to(TREE))
        if old.is_file() and not name.startswith("build/") and name not in wanted + ["Mutants.h"]:
            old.unlink()


def build_tree():
    """Whether all of the copy could be built, and what the compiler said."""
    # Tests are not to be listed while they are built, and nothing is linked anew when a library has changed. An
    # index beyond the end of a vector ends the program.
    subprocess.run(["cmake", "--preset", PRESET, "-DCMAKE_C_FLAGS_DEBUG=-O0",
                    "-DCMAKE_CXX_FLAGS_DEBUG=-O0 -w -fmax-errors=0 -D_GLIBCXX_ASSERTIONS "
                    f"-include {TREE}/Mutants.h",
                    "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"],
                   cwd=TREE, check=True, stdout=subprocess.DEVNULL)
    done = subprocess.run(["ninja", "-C", BUILD, "-k", "0", *TARGETS], cwd=TREE, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.returncode == 0, done.stdout.decode(errors="replace")


def build_all(numbered):
    """Builds the copy with as many of the mutants in it as the compiler takes; returns the numbers of the others."""
    alone = set()
    while True:
        pieces = {}
        for file in {mutant.file for mutant in numbered.values()}:
            own = {number: one for number, one in numbered.items() if one.file == file and number not in alone}
            pieces[file], homeless = joined(pathlib.Path(file).read_text(encoding="utf-8"), own)
            alone.update(homeless)
        copy_tree({file: "".join(text for text, _ in parts) for file, parts in pieces.items()})
        is_built, output = build_tree()
        if is_built:
            return alone
        refused = set()
        for found in re.finditer(r"^(?:\.\./)*(?:" + re.escape(str(TREE)) + r"/)?(\S+?):(\d+):(\d+): +(?:error|  required)",
                                 output, re.MULTILINE):
            if found[1] in pieces:
                refused |= numbers_at(pieces[found[1]], int(found[2]), int(found[3]))
        if not refused - alone:
            sys.exit(f"the mutants can't be built:\n{output[-5000:]}")
        print(f"{len(refused - alone)} mutants do not compile beside others", flush=True)
        alone |= refused


class Times:
    """The tests of each program with the seconds that they take, measured when somebody asks; all have to pass."""

    def __init__(self):
        self._times = {}
        self._locks = {program: threading.Lock() for program in PROGRAMS}

    def of(self, program):
        with self._locks[program]:
            if program not in self._times:
                self._times[program] = self._measured(program)
            return self._times[program]

    @staticmethod
    def _measured(program):
        status, output = inside(TREE, ["sh", "-c", f"{BUILD}/tests/{program} --gtest_output=json:/tmp/times.json "
                                       ">/tmp/out 2>&1 && cat /tmp/times.json || { cat /tmp/out; exit 1; }"],
                                False, 1800)
        if status != 0:
            print(f"{program} fails without any mutant:\n{output.decode(errors='replace')[-5000:]}", file=sys.stderr)
            os._exit(1)  # not only this thread
        return {f"{suite['name']}.{test['name']}": float(test["time"].rstrip("s"))
                for suite in json.loads(output)["testsuites"] for test in suite["testsuite"]}


def programs_for(file):
    """The programs that run the source's code, the one with its own tests first, and a pattern for those tests."""
    path = pathlib.PurePath(file)
    if "VFileList" in path.parts:
        return ["vfilelist_tests"], ("VFileListMain" if path.stem == "main" else re.escape(path.stem)) + "Test"
    names = {"PipeStream": "PipeStream|VCompress|VFixFirewall", "Directory": "VDir|VFile", "Constants": "V"}
    # Those that take minutes have nothing to add to the tests of these.
    unneeded = {"VPath": {"fault_tests", "killed_upgrade_tests"}, "VCopyFileListIni": set()}
    programs = [name for name in PROGRAMS if name not in unneeded.get(path.stem, {"killed_upgrade_tests"})]
    return programs, names.get(path.stem, re.escape(path.stem))


def stages_for(file, times):
    """What to run, one after the other: (program, tests, seconds). Tests of the same name come first, of those and
    of all others the quick ones."""
    programs, pattern = programs_for(file)
    for program in programs:
        seconds = times.of(program)

        def rank(test):
            return program == programs[0] and not re.match(pattern, test), seconds[test] >= SLOW_SECONDS

        for _, tests in itertools.groupby(sorted(seconds, key=rank), key=rank):
            tests = list(tests)
            yield program, tests, sum(seconds[test] for test in tests)


def try_number(worker, number, file, times):
    """"caught", "hung" or "survived"."""
    for program, tests, seconds in stages_for(file, times):
        status, _ = inside(worker, [f"{BUILD}/tests/{program}", "--gtest_fail_fast", "--gtest_brief=1",
                                    "--gtest_filter=" + ":".join(tests)], False, 15 + 5 * seconds, number)
        if status is None:
            return "hung"
        if status != 0:
            return "caught"
    return "survived"


def try_alone(worker, mutant, times):
    """The same for a mutant that has to be built, or "no program" if it does not compile."""
    path = worker / mutant.file
    joint = path.read_text(encoding="utf-8")
    source = pathlib.Path(mutant.file).read_text(encoding="utf-8")
    path.write_text(source[:mutant.begin] + mutant.text + source[mutant.end:], encoding="utf-8")
    try:
        return try_number(worker, 0, mutant.file, times) if build(worker)[0] else "no program"
    finally:
        path.write_text(joint, encoding="utf-8")


def run_all(mutants, jobs):
    numbered = dict(enumerate(mutants, 1))
    alone = build_all(numbered)
    print(f"{len(numbered) - len(alone)} mutants in one build, {len(alone)} alone", flush=True)
    workers = []
    for number in range(jobs):
        workers.append(WORK / f"worker-{number}")
        shutil.rmtree(workers[-1], ignore_errors=True)
        subprocess.run(["cp", "-a", TREE, workers[-1]], check=True)
    times = Times()
    todo = queue.Queue()
    for number in sorted(numbered, key=lambda one: one in alone):
        todo.put(number)
    results = {}
    log = open(WORK / "results.jsonl", "w", encoding="utf-8")
    log_lock = threading.Lock()

    def work(worker):
        while True:
            try:
                number = todo.get_nowait()
            except queue.Empty:
                return
            started = time.monotonic()
            mutant = numbered[number]
            result = (try_alone(worker, mutant, times) if number in alone else
                      try_number(worker, number, mutant.file, times))
            results[mutant] = result
            with log_lock:
                print(json.dumps([mutant.file, mutant.label, result]), file=log, flush=True)
            if result in ("survived", "hung") or len(results) % 50 == 0:
                print(f"[{len(results)}/{len(mutants)}] {time.monotonic() - started:.0f} s: {result}: {mutant.file}: "
                      f"{mutant.label}", flush=True)

    threads = [threading.Thread(target=work, args=(worker,)) for worker in workers]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    log.close()
    return results


# ------------------------------------------------------------------------------------------------- judging them

def read_list(path):
    listed = collections.Counter()
    name = reason = ""
    for number, line in enumerate(pathlib.Path(path).read_text(encoding="utf-8").splitlines(), 1):
        text = line.strip()
        if not text or line.startswith("#"):
            continue
        if not line.startswith(" "):
            name, reason = text, ""
        elif not text.startswith("| "):
            reason += text
        elif name and reason:
            listed[(name, text[2:])] += 1
        else:
            sys.exit(f"{path}:{number}: a mutant needs a file and a reason before it")
    return listed


def judge(results, listed, is_whole, is_sample):
    counts = collections.Counter(results.values())
    caught = counts["caught"] + counts["hung"]
    tried = caught + counts["survived"]
    score = 100 * caught / tried if tried else 0
    print(f"{tried} mutants: {counts['caught']} caught, {counts['hung']} hung, {counts['survived']} survived; "
          f"{counts['no program']} more did not compile. Score: {score:.1f} %")
    survivors = collections.Counter((one.file, one.label) for one in results if results[one] == "survived")
    wrong = False
    for file, label in sorted((survivors - listed).elements()):
        print(f"{file}: no test notices: {label}", file=sys.stderr)
        wrong = wrong or not is_sample
    if is_sample and score < MIN_SAMPLE_SCORE:
        print(f"fewer than {MIN_SAMPLE_SCORE} % are caught", file=sys.stderr)
        wrong = True
    if is_whole:
        for file, label in sorted((listed - survivors).elements()):
            print(f"{file}: listed, but caught (or gone): {label}", file=sys.stderr)
            wrong = True
        if score < MIN_SCORE:
            print(f"fewer than {MIN_SCORE} % are caught", file=sys.stderr)
            wrong = True
    return 1 if wrong else 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("list")
    parser.add_argument("--sample", type=int, help="try only so many of those that are not on the list")
    parser.add_argument("--seed", default="", help="which ones")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--only", default="", help="files whose names contain this")
    parser.add_argument("--count", action="store_true", help="only list the mutants")
    options = parser.parse_args()

    listed = read_list(options.list)
    files = sorted(name for name in tree_names() if name.startswith("BaseAPI/") and options.only in name and
                   name.endswith((".cpp", ".h")))
    mutants = [mutant for file in files for mutant in mutants_of(file)]
    is_whole = not options.only and options.sample is None
    if options.sample is not None:
        # That those on the list survive takes long to see.
        mutants = [mutant for mutant in mutants if (mutant.file, mutant.label) not in listed]
        chosen = set(random.Random(options.seed).sample(range(len(mutants)), min(options.sample, len(mutants))))
        mutants = [mutant for i, mutant in enumerate(mutants) if i in chosen]
    if options.count:
        for mutant in mutants:
            print(f"{mutant.file}: {mutant.label}")
        print(len(mutants))
        return 0
    results = run_all(mutants, options.jobs)
    return judge(results, listed, is_whole, options.sample is not None)


if __name__ == "__main__":
    sys.exit(main())
