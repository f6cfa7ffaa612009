"""Breaks the sources below BaseAPI/ in small ways, one at a time, and looks whether a test notices.

Usage: mutation.py LIST [--sample N] [--seed TEXT] [--jobs N] [--only TEXT] [--count]

A mutant has one condition turned round, one operator swapped for its neighbour, or one statement dropped. The tree is
copied and built once, below build/mutation. Each mutant is put into a copy of that, where one object and what has it
in is built anew, and is tested in a mount namespace that sees the host read-only: a broken program may remove what it
likes. First come the tests of the same name as the source, then all others. A test that fails, crashes or takes much
longer than it should has caught the mutant.

LIST has the mutants that no test can catch, each place with its reason:

    BaseAPI/VFileList/src/Files.cpp
      The reason.
      | (void)posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL); ==> dropped

The status is 0 when every survivor is listed, no listed one was caught or is gone, and 95 % were caught; of a sample,
when 90 % were caught and no listed one is gone. A sample tells at each commit when the tests have grown much worse;
what it finds is named, and has to be listed or caught by the time all are tried.
"""
import argparse
import collections
import concurrent.futures
import itertools
import json
import os
import pathlib
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

Mutant = collections.namedtuple("Mutant", "file begin end text label")


# ---------------------------------------------------------------------------------------------- making mutants

NO_CODE = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\'|^#(?:\\\n|[^\n])*',
                     re.DOTALL | re.MULTILINE)


def masked(source):
    """The source with everything in comments, literals and preprocessor lines blanked out, in the same length."""
    return NO_CODE.sub(lambda found: re.sub(r"[^\n]", "_" if found[0][0] in "\"'" else " ", found[0]), source)


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


# ------------------------------------------------------------------------------------------------ running them

# A mutant may ask for any amount of memory.
LIMITED = ["sh", "-c", 'ulimit -c 0 && ulimit -v 16777216 && exec "$@"', "sh"]


def inside(tree, command, writable, seconds):
    """Runs the command in a namespace where `tree` stands in TREE's place, and no compiler cache can be written. The
    exit status, None after the time limit, and the output."""
    namespace = ["bwrap", "--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc",
                 "--size", str(2 << 30), "--perms", "1777", "--tmpfs", "/tmp",
                 "--bind" if writable else "--ro-bind", tree, TREE,
                 "--unshare-pid", "--unshare-net", "--unshare-ipc", "--die-with-parent", "--new-session",
                 "--chdir", TREE, "--setenv", "CCACHE_DISABLE", "1"]
    try:
        done = subprocess.run(namespace + LIMITED + command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=seconds, check=False)
    except subprocess.TimeoutExpired as expired:
        return None, expired.stdout or b""
    return done.returncode, done.stdout


def tree_names():
    names = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard", "-z"], check=True,
                           stdout=subprocess.PIPE).stdout.decode().split("\0")
    return [name for name in names if name and os.path.isfile(name)]


def copy_tree():
    """Makes TREE a copy of what git knows or would add; what is the same there stays as old as it is."""
    wanted = tree_names()
    for name in wanted:
        copy = TREE / name
        if not copy.exists() or copy.read_bytes() != pathlib.Path(name).read_bytes():
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copyfile(name, copy)
        shutil.copymode(name, copy)
    for old in TREE.rglob("*"):
        name = str(old.relative_to(TREE))
        if old.is_file() and not name.startswith("build/") and name not in wanted:
            old.unlink()


def build_tree():
    # Tests are not to be listed while they are built, and nothing is linked anew when a library has changed. An
    # index beyond the end of a vector ends the program.
    subprocess.run(["cmake", "--preset", PRESET, "-DCMAKE_C_FLAGS_DEBUG=-O0",
                    "-DCMAKE_CXX_FLAGS_DEBUG=-O0 -w -D_GLIBCXX_ASSERTIONS",
                    "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"],
                   cwd=TREE, check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["ninja", "--quiet", "-C", BUILD, *PROGRAMS], cwd=TREE, check=True)


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
            sys.exit(f"{program} fails without any mutant:\n{output.decode(errors='replace')[-5000:]}")
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


def try_mutant(mutant, times):
    """"caught", "hung", "survived", or "no program" if it does not compile."""
    # A copy keeps all times, so that the source that the mutant before was in does not have to be built again.
    tree = WORK / threading.current_thread().name
    shutil.rmtree(tree, ignore_errors=True)
    subprocess.run(["cp", "-a", TREE, tree], check=True)
    source = (tree / mutant.file).read_text(encoding="utf-8")
    (tree / mutant.file).write_text(source[:mutant.begin] + mutant.text + source[mutant.end:], encoding="utf-8")
    if inside(tree, ["ninja", "-C", BUILD, *programs_for(mutant.file)[0]], True, 600)[0] != 0:
        return "no program"
    for program, tests, seconds in stages_for(mutant.file, times):
        status, _ = inside(tree, [f"{BUILD}/tests/{program}", "--gtest_fail_fast", "--gtest_brief=1",
                                  "--gtest_filter=" + ":".join(tests)], False, 15 + 5 * seconds)
        if status != 0:
            return "hung" if status is None else "caught"
    return "survived"


def try_all(mutants, jobs):
    copy_tree()
    build_tree()
    times = Times()
    results = {}

    def timed(mutant):
        started = time.monotonic()
        return try_mutant(mutant, times), time.monotonic() - started

    with (concurrent.futures.ThreadPoolExecutor(jobs, "worker") as pool,
          open(WORK / "results.jsonl", "w", encoding="utf-8") as log):
        for mutant, (result, seconds) in zip(mutants, pool.map(timed, mutants)):
            results[mutant] = result
            print(json.dumps([mutant.file, mutant.label, result]), file=log, flush=True)
            if result in ("survived", "hung") or len(results) % 50 == 0:
                print(f"[{len(results)}/{len(mutants)}] {seconds:.0f} s: {result}: {mutant.file}: {mutant.label}",
                      flush=True)
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


def refuse_gone(listed, mutants):
    """A line that was changed takes its entry along, and has to be looked at again."""
    gone = listed - collections.Counter((mutant.file, mutant.label) for mutant in mutants)
    if gone:
        sys.exit("\n".join(f"{file}: listed, but gone: {label}" for file, label in sorted(gone.elements())))


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
            print(f"{file}: listed, but caught: {label}", file=sys.stderr)
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
    if not options.only:
        refuse_gone(listed, mutants)
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
    results = try_all(mutants, options.jobs)
    return judge(results, listed, is_whole, options.sample is not None)


if __name__ == "__main__":
    sys.exit(main())
