#!/usr/bin/python3
"""A small mutation check: how many deliberate faults in the library's decision code do the tests
catch?

It makes simple mutants of the named source files (a comparison flipped, a logical operator
swapped, a negation dropped, a condition forced true, a boolean or small constant changed), picks
a fixed sample with a seeded random generator, and for each one rebuilds the build tree and runs
ctest. A mutant is killed when a test fails or times out, stillborn when it does not compile, and
survives otherwise. Every source file is restored, also on Ctrl-C.

  scripts/mutation_check.py --build build-mut --count 40 --seed 7 code/source/AndListenerEx.cpp ...

The same seed, count and files give the same mutants, so a run before and after a change to the
tests compares like with like (as long as the sources themselves did not change).
"""
import argparse
import random
import re
import subprocess
import sys
import time
from pathlib import Path

# (name, pattern, replacement); patterns want spaces around operators so that templates and
# stream operators are left alone.
OPERATORS = [
    ("== to !=", re.compile(r" == "), " != "),
    ("!= to ==", re.compile(r" != "), " == "),
    ("< to >=", re.compile(r" < "), " >= "),
    ("> to <=", re.compile(r" > "), " <= "),
    ("<= to >", re.compile(r" <= "), " > "),
    (">= to <", re.compile(r" >= "), " < "),
    ("&& to ||", re.compile(r" && "), " || "),
    ("|| to &&", re.compile(r" \|\| "), " && "),
    ("drop !", re.compile(r"(?<=[(\s])!(?=[A-Za-z_(])"), ""),
    ("condition true", re.compile(r"(?<=\bif \()(?=[^)])"), "true || "),
    ("true to false", re.compile(r"\btrue\b"), "false"),
    ("false to true", re.compile(r"\bfalse\b"), "true"),
    ("constant + 1", re.compile(r"(?<![\w.])([1-9][0-9]*)(?![\w.])"), None),
]

SKIP_LINE = re.compile(r'^\s*(//|#|\*|/\*)|\b(Log|LogEx|printf|snprintf)\s*\(|static_assert')


def candidates(path):
    lines = path.read_text().splitlines(keepends=True)
    found = []
    for number, line in enumerate(lines):
        if SKIP_LINE.search(line):
            continue
        code = line.split("//", 1)[0]
        # Leave string literals alone: mutate only outside quotes.
        quoted = [m.span() for m in re.finditer(r'"(?:\\.|[^"\\])*"', code)]
        for name, pattern, replacement in OPERATORS:
            for match in pattern.finditer(code):
                if any(start <= match.start() < end for start, end in quoted):
                    continue
                new = replacement if replacement is not None else str(int(match.group(1)) + 1)
                mutated = line[:match.start()] + new + line[match.end():]
                found.append((path, number, name, mutated))
    return found


def run(command, timeout):
    try:
        return subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              timeout=timeout).returncode
    except subprocess.TimeoutExpired:
        return "timeout"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True, help="a configured build tree")
    parser.add_argument("--count", type=int, default=40)
    parser.add_argument("--seed", type=int, default=7)
    parser.add_argument("--tests", default="", help="ctest -R regex (default: all)")
    parser.add_argument("--exclude", default="InstallTree|MonitorEndToEnd|Soak",
                        help="ctest -E regex")
    parser.add_argument("--test-timeout", type=int, default=60)
    parser.add_argument("files", nargs="+", type=Path)
    args = parser.parse_args()

    pool = [c for f in sorted(args.files) for c in candidates(f)]
    sample = random.Random(args.seed).sample(pool, min(args.count, len(pool)))
    sample.sort(key=lambda c: (str(c[0]), c[1]))
    originals = {f: f.read_text() for f in args.files}

    build = ["cmake", "--build", args.build, "-j2"]
    ctest = ["ctest", "--test-dir", args.build, "-j2", "--stop-on-failure",
             "--timeout", str(args.test_timeout), "-E", args.exclude]
    if args.tests:
        ctest += ["-R", args.tests]
    if run(build, 1800) != 0 or run(ctest, 1800) != 0:
        sys.exit("the unmutated tree does not build or pass its tests")

    tally = {"killed": 0, "survived": 0, "stillborn": 0}
    started = time.monotonic()
    try:
        for path, number, name, mutated in sample:
            lines = originals[path].splitlines(keepends=True)
            lines[number] = mutated
            path.write_text("".join(lines))
            if run(build, 900) != 0:
                verdict = "stillborn"
            else:
                verdict = "survived" if run(ctest, 1800) == 0 else "killed"
            tally[verdict] += 1
            print(f"{verdict:9} {path}:{number + 1} {name}: {mutated.strip()}", flush=True)
            path.write_text(originals[path])
    finally:
        for path, text in originals.items():
            path.write_text(text)
        run(build, 1800)
    live = tally["killed"] + tally["survived"]
    print(f"mutants {len(sample)} of {len(pool)}: killed {tally['killed']} of {live} that built, "
          f"survived {tally['survived']}, stillborn {tally['stillborn']} "
          f"({time.monotonic() - started:.0f} s)")


if __name__ == "__main__":
    main()
