#!/usr/bin/env python3
"""Holds the figures of SECURITY.md against what was run.

Reads the logs of the long forms, prints a table of what they tried beside what SECURITY.md states, and ends with status
1 when a figure is missing, larger than what was run, or older than the code it is about.

    tests/sweeps/figures.py LOG...
"""
import pathlib
import re
import subprocess
import sys

PROJECT = pathlib.Path(__file__).resolve().parent.parent.parent
SOURCES = ("cmsverify", "tool")  # the figures are about library and checker
NUMBER = r"([\d,.]+(?: million)?)"
# What it is, how SECURITY.md states it, and how the logs tell it; the numbers of all their lines are added up.
FIGURES = (
    ("packages judged by OpenSSL as well", NUMBER + r" packages, 0 differences", r"\[   DIFF   \] +(\d+) packages$"),
    ("damaged inputs", NUMBER + r" mutants \(short", r"\[   SWEPT  \] mutants tried: (\d+)"),
    ("failing callbacks", NUMBER + r" faults \(short", r"\[   SWEPT  \] faults injected: (\d+)"),
    ("allocations of libcrypto", NUMBER + r" allocations \(short",
     r"\[   SWEPT  \] allocations of libcrypto that failed: (\d+)"),
    ("allocations of the checkers", NUMBER + r" allocations of both checkers",
     r"\[   SWEPT  \] allocations of the checker that failed.*: (\d+)"),
    ("packages before four judges", NUMBER + r" packages before four judges",
     r"\[   SWEPT  \] packages that four judged.*: (\d+)"),
    ("decoded beside a model", NUMBER + r" decodings, 0 differences", r"\[   SWEPT  \] decoded: (\d+)"),
    ("PKIs beside a model", NUMBER + r" random PKIs", r"\[   SWEPT  \] PKIs: (\d+)"),
    ("inputs fuzzed", NUMBER + r" inputs", r"^(\d+) executions$"),
    ("mistakes in the code", NUMBER + r" mistakes tried", r"^\d+ mutants, (\d+) tried"),
)


def value(text):
    number = float(text.removesuffix(" million").replace(",", ""))
    return int(number * 1_000_000 if text.endswith("million") else number)


def tree_hashes():
    words = ["git", "-C", str(PROJECT), "rev-parse"] + [f"HEAD:{name}" for name in SOURCES]
    hashes = subprocess.run(words, check=True, capture_output=True, text=True).stdout.split()
    return " ".join(one[:10] for one in hashes)


def main():
    security = " ".join((PROJECT / "SECURITY.md").read_text().split())
    logs = "\n".join(pathlib.Path(name).read_text(errors="replace") for name in sys.argv[1:])
    status = 0
    row = "{:<38} {:>12} {:>12}  {}"
    print(row.format("", "run", "stated", ""))
    for what, stated, told in FIGURES:
        run = sum(int(number) for number in re.findall(told, logs, re.M))
        match = re.search(stated, security)
        claim = value(match[1]) if match else None
        word = "NOT STATED" if claim is None else "MORE THAN WAS RUN" if claim > run else ""
        status = 1 if word else status
        print(row.format(what, run, "-" if claim is None else claim, word).rstrip())
    current = tree_hashes()
    if current not in security:
        print(f"The figures are older than the code. Renew them, and state in SECURITY.md: {current}")
        status = 1
    sys.exit(status)


if __name__ == "__main__":
    main()
