#!/usr/bin/env python3
"""Which branches of library and checker does no input of the corpora reach?

Builds the replays of the corpora with clang's coverage in SCRATCH, runs them, and prints each side of a condition that
no input took, unless one of these is the reason: no target calls the function; the condition is about a null pointer or
a code that a call returned, which the modules' own tests and the fault gates make so; or unreached.txt lists it, with a
line for each side. Ends with status 1 when it prints one, or when a line of unreached.txt is reached. Debian: clang and
llvm.

    fuzz/unreached.py SCRATCH
"""
import collections
import json
import os
import pathlib
import re
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
PROJECT = HERE.parent
REPLAYS = (("fuzz_replay", "-*/strict"), ("fuzz_replay_strict", "*/strict"))
FLAGS = "-fprofile-instr-generate -fcoverage-mapping"
SOURCES = [path for name in ("cmsverify", "tool") for path in sorted((PROJECT / name).glob("*.[ch]*"))]
# The fuzzers have callbacks of their own.
LEFT_OUT = re.compile(r"pelnic_callback_|pelnic_huge_pages")
ARGUMENT = re.compile(r"[=!]= nullptr|^ctx$")
CODE = re.compile(r"\b(?:rc|code|result) [=!]= 0$|\(.*\) [=!]= 0$")
COMPARISON = re.compile(r"compare|cmp\(|verify_cert|MayAccept")  # 0 is an answer and no code


def build(scratch):
    subprocess.run(["cmake", "-S", PROJECT, "-B", scratch, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                    "-DCMAKE_C_COMPILER=clang", "-DCMAKE_CXX_COMPILER=clang++", f"-DCMAKE_C_FLAGS={FLAGS}",
                    f"-DCMAKE_CXX_FLAGS={FLAGS}", "-DCMSVERIFY_BUILD_TESTS=ON"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", scratch, "--target", *(name for name, _ in REPLAYS)], check=True,
                   stdout=subprocess.DEVNULL)


def measure(scratch):
    profiles = []
    for name, chosen in REPLAYS:
        profiles.append(scratch / f"{name}.profraw")
        subprocess.run([scratch / "fuzz" / name, "--gtest_brief=1", f"--gtest_filter={chosen}"], check=True,
                       stdout=subprocess.DEVNULL, env=dict(os.environ, LLVM_PROFILE_FILE=str(profiles[-1])))
    merged = scratch / "profile"
    subprocess.run(["llvm-profdata", "merge", "-o", merged, *profiles], check=True)
    programs = [scratch / "fuzz" / name for name, _ in REPLAYS]
    told = subprocess.run(["llvm-cov", "export", programs[0], "-object", programs[1], f"-instr-profile={merged}",
                           *SOURCES], check=True, capture_output=True, text=True).stdout
    return json.loads(told)["data"][0]["functions"]


def sides(functions):
    """(file, line, column, condition, side) -> (times taken, whether its function was called), over all copies."""
    lines = {path.name: path.read_text().split("\n") for path in SOURCES}
    calls = collections.Counter()
    taken = collections.Counter()
    owner = {}
    for function in functions:
        home = (pathlib.Path(function["filenames"][0]).name, function["regions"][0][0])
        if home[0] not in lines:
            continue
        calls[home] += function["count"]
        for first, begin, last, end, *counts, file in (branch[:7] for branch in function.get("branches", [])):
            name = pathlib.Path(function["filenames"][file]).name
            if name not in lines:
                continue
            line = lines[name][first - 1]
            condition = line[begin - 1:end - 1] if first == last else line[begin - 1:].strip()
            for side, count in zip(("true", "false"), counts):
                key = (name, first, begin, condition, side)
                taken[key] += count
                owner[key] = home
    return {key: (taken[key], calls[owner[key]] != 0) for key in taken}


def main():
    scratch = pathlib.Path(sys.argv[1]).resolve()
    build(scratch)
    told = sides(measure(scratch))
    lines = (HERE / "unreached.txt").read_text().splitlines()
    listed = collections.Counter(line for line in lines if line and line[0] not in "# ")
    reasons = collections.Counter()
    unknown = []
    for (name, line, _, condition, side), (count, called) in sorted(told.items()):
        if count != 0 or LEFT_OUT.search(name):
            continue
        what = f"{name}: {condition} is never {side}"
        if not called:
            reasons["in functions that no target calls"] += 1
        elif ARGUMENT.search(condition):
            reasons["about null pointers"] += 1
        elif CODE.search(condition) and not COMPARISON.search(condition):
            reasons["about codes of calls"] += 1
        elif listed[what] > 0:
            reasons["listed in unreached.txt"] += 1
            listed[what] -= 1
        else:
            unknown.append(f"{line}: {what}")
    for line in unknown:
        print(line)
    for line in sorted(listed.elements()):
        print(f"unreached.txt: reached, or not there: {line}")
    whole = sum(1 for key in told if not LEFT_OUT.search(key[0]))
    print(f"{whole} sides of conditions; never taken: {len(unknown)} without a reason, " +
          ", ".join(f"{count} {reason}" for reason, count in sorted(reasons.items())))
    sys.exit(1 if unknown or listed.total() else 0)


if __name__ == "__main__":
    main()
