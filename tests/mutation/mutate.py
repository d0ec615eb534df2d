#!/usr/bin/env python3
"""How many mistakes would the tests notice?

Copies the project to a scratch directory, puts a mutation site into each comparison and each result code of the named
modules (all of cmsverify/ and tool/ otherwise), builds the tests once, and runs them once for each mutant. Prints the
mutants that no test notices, with their lines.

    tests/mutation/mutate.py SCRATCH [--jobs N] [--modules cms_verify,pelnic_pki_impl] [--every N]
"""
import argparse
import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
PROJECT = HERE.parent.parent
SITES = {"==": "PNV_EQUAL", "!=": "PNV_UNEQUAL", "<": "PNV_LESS", ">": "PNV_MORE",
         "<=": "PNV_AT_MOST", ">=": "PNV_AT_LEAST"}
# Comments, strings and characters are skipped; a comparison stands between spaces, a template's brackets do not.
TOKEN = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\''
                   r'|(?<= )(?:==|!=|<=|>=|<|>)(?= )|\bPELNIC_ERR_\w+\b|\breturn 0;', re.S)
# Must stay constant expressions.
CONSTANT = re.compile(r"\bconstexpr\b|\bstatic_assert\b|^\s*#|\bcase\b")
# Most mutants are noticed within seconds by the modules' own tests; the others meet all tests but the slowest.
QUICK = "*-*Fault*:*Flip*:*Sweep*:*Failing*:*Answering*:CaBundle*:SignedPackageTest.*:Differential*:WorkLaws*:PkiIndex*"
THOROUGH = "*-CaBundle*:SignedPackageTest.With2GiB*:StackWork*"
CASES = "300"  # generated packages


class Mutants:
    def __init__(self):
        self.found = []  # (file, line, what), the index is the mutant's number

    def add(self, where, line, what):
        self.found.append((where, line, what))
        return len(self.found) - 1


def mutate(text, where, mutants):
    lines = text.split("\n")
    starts, position = [], 0
    for line in lines:
        starts.append(position)
        position += len(line) + 1

    def replace(match):
        token = match.group()
        number = text.count("\n", 0, match.start())
        line = lines[number]
        if CONSTANT.search(line):
            return token
        if token in SITES:
            site = mutants.add(where, number + 1, f"{token} negated: {line.strip()}")
            moved = token not in ("==", "!=")
            if moved:
                mutants.add(where, number + 1, f"{token} with its bound moved: {line.strip()}")
            else:
                mutants.found.append(None)
            return f"{token} {SITES[token]}{{{site}}} {token}"
        if token.startswith("PELNIC_ERR_"):
            site = mutants.add(where, number + 1, f"{token} becomes 0: {line.strip()}")
            other = mutants.add(where, number + 1, f"{token} becomes another code: {line.strip()}")
            return f"pnvCode<PELNIC_ERROR_CODE>({site}, pnvCode<PELNIC_ERROR_CODE>({other}, {token}, 0x8877u), 0)"
        if token == "return 0;":
            # Only where a result code is returned; the nearest line at the left margin is the function's head.
            head = next((l for l in reversed(lines[:number]) if l and l[0] not in " {}/#)"), "")
            if not re.match(r"(static )?PELNIC_ERROR_CODE\b", head):
                return token
            site = mutants.add(where, number + 1, "success becomes a failure: " + line.strip())
            return f"return pnvCode<PELNIC_ERROR_CODE>({site}, 0, 0x8877u);"
        return token

    return TOKEN.sub(replace, text)


def prepare(scratch, modules):
    tree = scratch / "tree"
    shutil.rmtree(tree, ignore_errors=True)
    shutil.copytree(PROJECT, tree, ignore=shutil.ignore_patterns("build", ".git", "corpus"))
    mutants = Mutants()
    for source in sorted([*tree.glob("cmsverify/*.cpp"), *tree.glob("tool/*.cpp")]):
        if modules and source.stem not in modules:
            continue
        source.write_text(mutate(source.read_text(), str(source.relative_to(tree)), mutants))
    subprocess.run(["cmake", "-S", tree, "-B", scratch / "build", "-G", "Ninja", "--compile-no-warning-as-error",
                    "-DCMAKE_BUILD_TYPE=Debug", "-DCMSVERIFY_BUILD_TESTS=ON",
                    f"-DCMAKE_CXX_FLAGS=-O1 -w -include {HERE}/mutation.h"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", scratch / "build"], check=True, stdout=subprocess.DEVNULL)
    return mutants.found


def passes(scratch, mutant, patience, testFilter):
    environment = dict(os.environ, CMSVERIFY_MUTANT=str(mutant), CMSVERIFY_CASES=CASES)
    command = [scratch / "build/tests/cmsverify_tests", "--gtest_fail_fast", "--gtest_brief=1",
               f"--gtest_filter={testFilter}"]
    try:
        return subprocess.run(command, env=environment, timeout=patience, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL).returncode == 0
    except subprocess.TimeoutExpired:
        return False


def survives(scratch, mutant, patience):
    return passes(scratch, mutant, patience, QUICK) and passes(scratch, mutant, patience, THOROUGH)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("scratch", type=pathlib.Path)
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--modules", default="")
    parser.add_argument("--every", type=int, default=1, help="a sample: every Nth mutant")
    parser.add_argument("--patience", type=int, default=300, help="seconds for one run; a mutant that hangs is noticed")
    arguments = parser.parse_args()

    modules = [name for name in arguments.modules.split(",") if name]
    found = prepare(arguments.scratch.resolve(), modules)
    if not survives(arguments.scratch, -1, arguments.patience):
        sys.exit("the tests fail without any mutant")
    numbers = [number for number, mutant in enumerate(found) if mutant][::arguments.every]
    survivors = 0
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        runs = {pool.submit(survives, arguments.scratch, number, arguments.patience): number
                for number in numbers}
        for done in concurrent.futures.as_completed(runs):
            if done.result():
                survivors += 1
                where, line, what = found[runs[done]]
                print(f"{where}:{line}: {what}", flush=True)
    print(f"{len(numbers)} mutants, {survivors} survived")


if __name__ == "__main__":
    main()
