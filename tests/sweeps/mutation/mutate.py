#!/usr/bin/env python3
"""How many mistakes would the tests notice?

Copies the project to a scratch directory, puts a mutation site wherever something could be mistaken in cmsverify/,
tool/ and pkgtool/, builds the tests once, and notes which sites each test reaches. Then each mutant meets the tests
that reach it, the most promising first, until one fails. Prints the mutants that no test notices, with their lines, but
for those that survivors.txt lists as changing nothing. What survives meets the quick tests once more under
AddressSanitizer and UndefinedBehaviorSanitizer. Goes on where an interrupted run over the same sources stopped.

    tests/sweeps/mutation/mutate.py SCRATCH [--jobs N] [--modules cms_verify,lint] [--kinds guard,swap] [--rounds N]
        [--sample N --seed S]

Kinds: comparison (negated, or its bound moved), code (a result code becomes 0 or another one, success a failure),
statement (dropped), guard (dropped with what it guards), flag (negated), length (one more or less), swap (two arguments
of one type exchanged).
"""
import argparse
import collections
import concurrent.futures
import contextlib
import hashlib
import json
import math
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import time

HERE = pathlib.Path(__file__).resolve().parent
PROJECT = HERE.parent.parent.parent
SURVIVORS = HERE / "survivors.txt"
DIRECTORIES = ("cmsverify", "tool", "pkgtool")
KINDS = ("comparison", "code", "statement", "guard", "flag", "length", "swap")
SITES = {"==": "PNV_EQUAL", "!=": "PNV_UNEQUAL", "<": "PNV_LESS", ">": "PNV_MORE",
         "<=": "PNV_AT_MOST", ">=": "PNV_AT_LEAST"}
# Comments, strings and characters are skipped; a comparison stands between spaces, a template's brackets do not.
TOKEN = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\''
                   r'|(?<= )(?:==|!=|<=|>=|<|>)(?= )|\bPELNIC_ERR_\w+\b|\breturn 0;|\breturn (?:true|false);'
                   r'|(?<=[( ])!(?=[A-Za-z_]\w*[ );])'
                   r'|(?<=, )\w*(?:[Ll]en|[Ll]ength|[Ss]ize|[Cc]ount)(?=[,)])'
                   r'|(?<=\w\()[A-Za-z_]\w*, [A-Za-z_]\w*(?=\))', re.S)
# Must stay constant expressions, or look like a call and are a declaration by a macro.
CONSTANT = re.compile(r"\bconstexpr\b|\bstatic_assert\b|^\s*#|\bcase\b|\btemplate\b|\bSTACK_OF\b|\bPNV_DECODING\b")
# One line each: a call, an assignment or a step, and a guard.
STATEMENT = re.compile(r"^(\s+)((?:\(void\))?[A-Za-z_][\w:.>\[\]-]*(?:\(.*\)| [-+|&^]?= .*|\+\+|--);|(?:\+\+|--)[\w.>-]+;)$")
GUARD = re.compile(r"^(\s*)((?:\} else )?if \()(.*)(\) (?:\{|[^{].*;))$")
# A mutant meets the tests that reach it in rounds: as many as take so many seconds together, then all.
ROUNDS = (0.3, 3, 30, float("inf"))
ALONE = 600  # seconds of patience with one test without a mutant
TOGETHER = 20  # seconds of tests in one process: a mutant that hangs is waited for as long as they may take
LEFT_OUT = "CaBundle*:SignedPackageTest.With2GiB*:StackWork*"  # the slowest
CASES = "300"  # generated packages
PROGRAMS = ("cmsverify_tests", "witness", "attacked_pkgcheck", "attacked_pkgcheck_strict", "libcrypto_memory",
            "explained", "pkgtool_work")
MEMORY = 4096  # MiB that a process may have: some mutants allocate without end
SANITIZERS = "-fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all"
QUICK_ROUNDS = 2  # of them under the sanitizers


class Mutants:
    def __init__(self, kinds):
        self.kinds = kinds
        self.found = []  # (file, line, what), or None; the index is the mutant's number

    # The number of the first of them, or None if the kind is not wanted. Names of one line differ.
    def add(self, kind, where, line, *what):
        if kind not in self.kinds:
            return None
        self.found.extend((where, line, f"{kind}: {one}") if one else None for one in what)
        return len(self.found) - len(what)


def balanced(text):
    return text.count("(") == text.count(")") and text.count("{") == text.count("}")


def mutate_tokens(text, where, mutants, spared):
    lines = text.split("\n")

    def replace(match):
        token = match.group()
        number = text.count("\n", 0, match.start())
        line = lines[number]
        if CONSTANT.search(line) or number + 1 in spared or token[0] in "/\"'":
            return token
        at = (where, number + 1)
        if token in SITES:
            moved = f"{token} with its bound moved: {line.strip()}" if token not in ("==", "!=") else None
            site = mutants.add("comparison", *at, f"{token} negated: {line.strip()}", moved)
            return token if site is None else f"{token} {SITES[token]}{{{site}}} {token}"
        if token.startswith("PELNIC_ERR_"):
            site = mutants.add("code", *at, f"{token} becomes 0: {line.strip()}",
                               f"{token} becomes another code: {line.strip()}")
            if site is None:
                return token
            return f"pnvCode<PELNIC_ERROR_CODE>({site}, pnvCode<PELNIC_ERROR_CODE>({site + 1}, {token}, 0x8877u), 0)"
        if token == "return 0;":
            # Only where a result code is returned; the nearest line at the left margin is the function's head.
            head = next((l for l in reversed(lines[:number]) if l and l[0] not in " {}/#)"), "")
            if not re.match(r"(static )?PELNIC_ERROR_CODE\b", head):
                return token
            site = mutants.add("code", *at, "success becomes a failure: " + line.strip())
            return token if site is None else f"return pnvCode<PELNIC_ERROR_CODE>({site}, 0, 0x8877u);"
        if token in ("return true;", "return false;"):
            site = mutants.add("flag", *at, f"{token} negated: {line.strip()}")
            return token if site is None else f"return pnvIs({site}) != {token[7:-1]};"
        if token == "!":
            site = mutants.add("flag", *at, f"! dropped: {line.strip()}")
            return token if site is None else f"pnvIs({site}) == (bool)"
        if ", " in token:
            left, right = token.split(", ")
            site = mutants.add("swap", *at, f"({token}) exchanged: {line.strip()}") if left != right else None
            if site is None:
                return token
            return f"pnvFirst({site}, {left}, {right}), pnvFirst({site}, {right}, {left})"
        site = mutants.add("length", *at, f"{token} one more: {line.strip()}", f"{token} one less: {line.strip()}")
        return token if site is None else f"pnvOff({site}, {token})"

    return TOKEN.sub(replace, text)


def mutate_lines(original, text, where, mutants, spared):
    """Statements and guards, around what is already mutated inside them."""
    changed = text.split("\n")
    for index, line in enumerate(original.split("\n")):
        number = index + 1
        if number in spared or CONSTANT.search(line):
            continue
        statement = STATEMENT.match(changed[index])
        guard = GUARD.match(changed[index])
        previous = changed[index - 1].rstrip() if index else ""
        if statement and balanced(line) and previous.endswith((";", "{", "}", ":", ")")):
            site = mutants.add("statement", where, number, f"dropped: {line.strip()}")
            if site is not None:
                changed[index] = f"{statement[1]}if (!pnvIs({site})) {statement[2]}"
        elif guard and balanced(guard[3]) and "; " not in guard[3]:
            site = mutants.add("guard", where, number, f"dropped: {line.strip()}")
            if site is not None:
                changed[index] = f"{guard[1]}{guard[2]}!pnvIs({site}) && ({guard[3]}){guard[4]}"
    return "\n".join(changed)


class Source:
    def __init__(self, path, where):
        self.path = path
        self.where = where
        self.text = path.read_text()
        self.spared = set()  # lines that do not compile with a site in them

    def write(self, mutants):
        changed = mutate_tokens(self.text, self.where, mutants, self.spared)
        self.path.write_text(mutate_lines(self.text, changed, self.where, mutants, self.spared))


def configure(tree, build, sanitizers=""):
    subprocess.run(["cmake", "-S", tree, "-B", build, "-G", "Ninja", "--compile-no-warning-as-error",
                    "-DCMAKE_BUILD_TYPE=Debug", "-DCMSVERIFY_BUILD_TESTS=ON", "-DCMSVERIFY_BUILD_PKGTOOL=ON",
                    "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON",
                    f"-DCMAKE_C_FLAGS={sanitizers}",
                    f"-DCMAKE_CXX_FLAGS=-O1 -w -include {HERE}/mutation.h {sanitizers}"],
                   check=True, stdout=subprocess.DEVNULL)
    commands = json.loads((build / "compile_commands.json").read_text())
    return {command["file"]: command for command in commands}


# Lines in which the compiler finds a mistake once there are sites in them.
def mistakes(source, command):
    words = command["command"].replace(" -c ", " -fsyntax-only -fmax-errors=0 ")
    run = subprocess.run(words, shell=True, cwd=command["directory"], stderr=subprocess.PIPE, text=True)
    line = re.escape(source.path.name) + r":(\d+):\d+:\s+(?:error:|required from)"
    return {int(number) for number in re.findall(line, run.stderr)}


def prepare(scratch, modules, kinds, jobs):
    tree = scratch / "tree"
    shutil.rmtree(tree, ignore_errors=True)
    shutil.copytree(PROJECT, tree, ignore=shutil.ignore_patterns("build", ".git", "corpus"))
    paths = [path for directory in DIRECTORIES for path in sorted((tree / directory).rglob("*.cpp"))]
    sources = [Source(path, str(path.relative_to(tree))) for path in paths if not modules or path.stem in modules]
    commands = configure(tree, scratch / "build")
    sources = [source for source in sources if str(source.path) in commands]  # the others belong to other builds
    unsure = sources
    while unsure:
        mutants = Mutants(kinds)
        for source in sources:
            source.write(mutants)
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            found = list(pool.map(lambda source: mistakes(source, commands[str(source.path)]), unsure))
        changed = []
        for source, lines in zip(unsure, found):
            if lines - source.spared:
                source.spared |= lines
                changed.append(source)
        unsure = changed
    configure(tree, scratch / "sanitized", SANITIZERS)
    for build in ("build", "sanitized"):
        subprocess.run(["cmake", "--build", scratch / build, "-j", str(jobs), "--target", *PROGRAMS], check=True,
                       stdout=subprocess.DEVNULL)
    return mutants.found


# Tests, each with its seconds, in lists for one process each.
def batches(tests, rounds):
    waiting = collections.deque(tests)
    for limit in ROUNDS[:rounds]:
        spent = 0.0
        while waiting and (spent == 0 or spent + waiting[0][0] <= limit):
            names, total = [], 0.0
            while waiting and (not names or total + waiting[0][0] <= min(limit - spent, TOGETHER)):
                seconds, name = waiting.popleft()
                names.append(name)
                total += seconds
            spent += total
            yield names, total


class Tests:
    def __init__(self, scratch):
        self.scratch = scratch
        self.reaching = {}  # site -> [(seconds, test)]; a test is "program Suite.Name"
        self.noticed = collections.Counter()  # (source, test) -> mutants
        self.home = {suite: path.stem.removeprefix("pkgtool_") for path in (PROJECT / "tests").rglob("*.cpp")
                     for suite in re.findall(r"^(?:TYPED_)?TEST(?:_[FP])?\((\w+),", path.read_text(), re.M)}

    # The test that fails, which is "" if it cannot be told, or None.
    def run(self, tests, patience, sanitized=False, **variables):
        for program in PROGRAMS:
            names = [test.split()[1] for test in tests if test.split()[0] == program]
            if not names:
                continue
            environment = dict(os.environ, CMSVERIFY_CASES=CASES, GTEST_FILTER=":".join(names),
                               ASAN_OPTIONS=f"hard_rss_limit_mb={MEMORY}", **variables)
            limits = ["prlimit", f"--cpu={math.ceil(patience)}"]
            if not sanitized:
                limits.append(f"--data={MEMORY << 20}")
            path = self.scratch / ("sanitized" if sanitized else "build") / "tests" / program
            process = subprocess.Popen([*limits, path, "--gtest_fail_fast", "--gtest_brief=1"], env=environment,
                                       start_new_session=True, errors="replace", stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
            try:
                output, _ = process.communicate(timeout=patience)
            except subprocess.TimeoutExpired:
                return ""
            finally:
                with contextlib.suppress(ProcessLookupError):
                    os.killpg(process.pid, signal.SIGKILL)  # with the programs that a test waits for
                process.wait()
            if process.returncode in (126, 127):
                raise RuntimeError(f"{path} does not run")
            if process.returncode != 0:
                failed = re.search(r"^\[  FAILED  \] ([\w./]+)", output, re.M)
                return f"{program} {failed[1]}" if failed else ""
        return None

    def names(self):
        for program in PROGRAMS:
            path = self.scratch / "build/tests" / program
            listed = subprocess.run([path, "--gtest_list_tests", f"--gtest_filter=-{LEFT_OUT}"], check=True,
                                    capture_output=True, text=True).stdout
            suite = None
            for line in listed.splitlines()[1:]:
                name = line.split("#")[0].strip()
                if not line.startswith(" "):
                    suite = name
                elif not name.startswith("DISABLED_"):
                    yield f"{program} {suite}{name}"

    # Runs each test alone: its time, and the sites that it reaches, in the processes that it starts as well.
    def explore(self, state, jobs):
        reached = state / "reached"  # a line for each test: its seconds, its name, and the sites
        known = [json.loads(line) for line in reached.read_text().splitlines()] if reached.exists() else []
        done = {name for _, name, _ in known}

        def alone(name):
            log = state / f"reached-{hashlib.sha256(name.encode()).hexdigest()[:16]}"
            log.unlink(missing_ok=True)
            begin = time.monotonic()
            # A test that counts descriptors passes without the log only.
            failed = self.run([name], ALONE, CMSVERIFY_MUTANT_LOG=str(log))
            if failed is not None and self.run([name], ALONE) is not None:
                print(f"{name} fails without any mutant and is left out", flush=True)
                return [0, name, []]
            seconds = time.monotonic() - begin
            # A process without standard output may have the log in its place.
            words = log.read_text().split() if log.exists() else []
            log.unlink(missing_ok=True)
            found = [seconds, name, sorted({int(word) for word in words if word.isdigit()})]
            with reached.open("a") as lines:
                lines.write(json.dumps(found) + "\n")
            return found

        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            known += pool.map(alone, [name for name in self.names() if name not in done])
        for seconds, name, sites in sorted(known):
            for site in sites:
                self.reaching.setdefault(site, []).append((seconds, name))

    # First come the tests that noticed other mutants of the source, then the quickest. A test whose file is named like
    # the source counts as quicker.
    def order(self, where, test):
        seconds, name = test
        words = re.split(r"[ /.]", name)  # one of them is the suite
        home = next((self.home[word] for word in words if word in self.home), "")
        kinship = len(os.path.commonprefix((pathlib.Path(where).stem, home)))
        return -self.noticed[where, name], seconds / (1 + kinship)

    # A mutant that hangs is noticed.
    def survives(self, number, where, rounds):
        tests = sorted(self.reaching.get(number, []), key=lambda test: self.order(where, test))
        for sanitized in (False, True):
            for names, seconds in batches(tests, min(rounds, QUICK_ROUNDS) if sanitized else rounds):
                patience = 20 + (16 if sanitized else 4) * seconds
                failed = self.run(names, patience, sanitized, CMSVERIFY_MUTANT=str(number))
                if failed is None or (sanitized and self.run(names, patience, sanitized) is not None):
                    continue
                self.noticed[where, failed] += 1
                return False
        return True


# Mutants that change nothing, as they are printed but without their line numbers, which move; reasons are indented. A
# line stands for one mutant: it must not hide another one of the same words.
def harmless():
    return collections.Counter(line for line in SURVIVORS.read_text().splitlines() if line and line[0] not in "# ")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("scratch", type=pathlib.Path)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--modules", default="")
    parser.add_argument("--kinds", default=",".join(KINDS))
    parser.add_argument("--rounds", type=int, default=len(ROUNDS), help="leave out the last ones; a later run goes on")
    parser.add_argument("--sample", type=int, default=0, help="so many mutants instead of all, drawn by the seed")
    parser.add_argument("--seed", type=int, default=1)
    arguments = parser.parse_args()

    scratch = arguments.scratch.resolve()
    scratch.mkdir(parents=True, exist_ok=True)
    modules = [name for name in arguments.modules.split(",") if name]
    digest = hashlib.sha256(repr((modules, arguments.kinds)).encode())
    for path in sorted(path for directory in (*DIRECTORIES, "tests") for path in (PROJECT / directory).rglob("*.*")):
        if path.is_file() and path != SURVIVORS:
            digest.update(path.read_bytes())
    state = scratch / f"state-{digest.hexdigest()[:16]}"
    if not state.exists():
        mutants = prepare(scratch, modules, arguments.kinds.split(","), arguments.jobs)
        state.mkdir()
        (state / "mutants").write_text(json.dumps(mutants))
    found = json.loads((state / "mutants").read_text())
    tests = Tests(scratch)
    tests.explore(state, arguments.jobs)
    reached = tests.reaching

    # Arguments of two types are no site, nor is a length's address, which shows where none is reached.
    numbers = [number for number, mutant in enumerate(found)
               if mutant and (number in reached or not mutant[2].startswith(("swap", "length")))]
    total = len(numbers)
    if arguments.sample:
        numbers = sorted(random.Random(arguments.seed).sample(numbers, min(arguments.sample, len(numbers))))
    log = state / "verdicts"  # a line for each mutant tried: its number, and the rounds that it survived or 0
    lines = [map(int, line.split()) for line in log.read_text().splitlines()] if log.exists() else []
    known = dict(lines)

    def verdict(number):
        if number in known and (known[number] == 0 or known[number] >= arguments.rounds):
            return known[number] != 0
        survived = tests.survives(number, found[number][0], arguments.rounds)
        with log.open("a") as verdicts:
            verdicts.write(f"{number} {arguments.rounds if survived else 0}\n")
        return survived

    expected = harmless()
    survivors = 0
    listed = collections.Counter()
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        runs = {pool.submit(verdict, number): number for number in numbers}
        for done in concurrent.futures.as_completed(runs):
            if done.result():
                where, line, what = found[runs[done]]
                if expected[f"{where}: {what}"] > listed[f"{where}: {what}"]:
                    listed[f"{where}: {what}"] += 1
                    continue
                survivors += 1
                unreached = "" if runs[done] in reached else " (reached by no test)"
                print(f"{where}:{line}: {what}{unreached}", flush=True)
    if not modules and arguments.kinds == ",".join(KINDS):
        for line in sorted(set(expected) - {f"{mutant[0]}: {mutant[2]}" for mutant in found if mutant}):
            print(f"{SURVIVORS.name}: no such mutant: {line}")
    print(f"{total} mutants, {len(numbers)} tried, {survivors} survived, {listed.total()} more change nothing")


if __name__ == "__main__":
    main()
