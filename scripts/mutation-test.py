#!/usr/bin/env python3
"""Mutation testing with generated mutants: applies standard mutation operators at random sites of
the product's sources, one mutant at a time, to a scratch copy of the project, runs the unit suite
(ctest -L unit, no kernel tests) there, and reports per source directory how many were caught.

Usage: scripts/mutation-test.py [--count N] [--seed S] [--from I] [--to J] [--only ID ...]
                                [--list] [--keep] [--survivors FILE]

Operators (each site is one place in one line of code, outside comments and string literals):
  compare   a comparison flipped: == and !=, < and >=, > and <=
  negate    the condition of an if negated
  delete    a statement (a call or an assignment) deleted
  constant  an integer constant changed by one
  return    a returned value changed: true and false, 0 and 1, -1 and 0

Sites are drawn from native_module/*/src and platform/*/src (not the generated system-call
tables), N of them (default 400) by a seeded random choice, so a run can be repeated. A mutant
that does not compile is reported as such and left out of the score; one whose unit suite runs
past three minutes (a test it made hang) counts as caught, and what the suite started is killed.
Each mutant has an id (DIR-FILE-LINE-OPERATOR) that --only takes, to run it again. --from and --to run a slice of the
sample (in its drawn order, so any slice is itself a random sample): a long run can be split.
--list prints the sample and stops.
Survivors are written to FILE (default scripts/mutation-survivors.txt): the triage of each lives in
scripts/mutation-triage.md. Slow (a build per mutant): run it by hand, not in CI. Exit status 1
when a directory catches fewer than 80 % of its mutants.
"""
import argparse
import collections
import glob
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TARGET = 0.8
SKIPPED_FILES = {"SyscallTables.cpp"}

COMPARE = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}
RETURNS = {"true": "false", "false": "true", "0": "1", "1": "0", "-1": "0"}
DECLARATION = re.compile(r"^\s*(const |static |constexpr |auto |unsigned |struct |class |using |typedef |return\b|"
                         r"case |default:|break|continue|goto |[A-Za-z_][\w:<>,*& ]*[\s*&]+[A-Za-z_]\w*\s*(=|;|\(|\{|\[))")


def masked(line):
    """The line with the insides of string and character literals, and any comment, blanked out."""
    out, quote, escape = [], None, False
    i = 0
    while i < len(line):
        c = line[i]
        if quote:
            out.append(c if c == quote and not escape else " ")
            escape = c == "\\" and not escape
            if c == quote and not escape and out[-1] == quote:
                quote = None
        elif c in "\"'":
            quote = c
            out.append(c)
        elif line.startswith("//", i):
            out.append(" " * (len(line) - i))
            break
        else:
            out.append(c)
        i += 1
    return "".join(out)


def sites(path):
    """Every mutant of one file: (line number, operator, original line, mutated line)."""
    found = []
    in_comment = False
    for number, line in enumerate(open(path, encoding="utf-8", errors="surrogateescape").read().split("\n"), 1):
        stripped = line.strip()
        if in_comment:
            in_comment = "*/" not in stripped
            continue
        if stripped.startswith("/*"):
            in_comment = "*/" not in stripped
            continue
        # The check points' numbers only label trace lines.
        if not stripped or stripped.startswith(("#", "//", "*")) or "CPU_CHECK" in stripped:
            continue
        code = masked(line)
        for match in re.finditer(r"(?<=\s)(==|!=|<=|>=|<|>)(?=\s)", code):
            op = match.group(1)
            if op in ("<", ">") and re.search(r"template|static_cast|std::|<\s*\w+\s*>", code):
                continue
            found.append((number, "compare", line, line[:match.start()] + COMPARE[op] + line[match.end():]))
        match = re.match(r"^(\s*(?:\} else )?if \()(.*)(\) \{)\s*$", code)
        if match and "(" not in match.group(2)[:1]:
            cond = line[match.end(1):match.start(3)]
            found.append((number, "negate", line, line[:match.end(1)] + "!(" + cond + ")" + line[match.start(3):]))
        if (stripped.endswith(";") and not DECLARATION.match(code) and "{" not in code and "}" not in code
                and re.match(r"^\s*[A-Za-z_][\w:.\->\[\]()]*\s*(\(|=[^=]|\+=|-=|\|=|&=|\+\+|--)", code)):
            found.append((number, "delete", line, re.match(r"^\s*", line).group(0) + ";"))
        for match in re.finditer(r"(?<![\w.])(\d+)(?![\w.])", code):
            if code[max(0, match.start() - 2):match.start()] in ("0x", "0X") or "[" in code[:match.start()][-1:]:
                continue
            value = int(match.group(1), 8 if match.group(1).startswith("0") and len(match.group(1)) > 1 else 10)
            text = match.group(1)
            if text.startswith("0") and len(text) > 1:
                new = "0" + format(value + 1, "o")
            else:
                new = str(value + 1)
            found.append((number, "constant", line, line[:match.start()] + new + line[match.end():]))
        match = re.match(r"^(\s*return )(-1|0|1|true|false)(;.*)$", line)
        if match:
            found.append((number, "return", line, match.group(1) + RETURNS[match.group(2)] + match.group(3)))
    return found


def all_sites():
    mutants = []
    for directory in sorted(glob.glob(os.path.join(ROOT, "native_module/*/src")) + glob.glob(os.path.join(ROOT, "platform/*/src"))):
        for path in sorted(glob.glob(os.path.join(directory, "*.cpp"))):
            if os.path.basename(path) in SKIPPED_FILES:
                continue
            relative = os.path.relpath(path, ROOT)
            counts = collections.Counter()
            for number, operator, before, after in sites(path):
                counts[(number, operator)] += 1
                ident = "%s-%s-%d-%s%s" % (os.path.relpath(directory, ROOT).replace("/", ".").replace(".src", ""),
                                           os.path.basename(path)[:-4], number, operator,
                                           "" if counts[(number, operator)] == 1 else counts[(number, operator)])
                mutants.append({"id": ident, "file": relative, "dir": os.path.relpath(directory, ROOT),
                                "line": number, "operator": operator, "before": before, "after": after})
    return mutants


def run(args, cwd, timeout=None):
    """The exit status of args; 124 when it outlasts timeout, and then everything it started is
    killed (a test a mutant made hang would otherwise run on, its test time-out being minutes)."""
    process = subprocess.Popen(args, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               start_new_session=True)
    try:
        return process.wait(timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        process.wait()
        return 124


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--count", type=int, default=400)
    parser.add_argument("--seed", type=int, default=24)
    parser.add_argument("--only", nargs="*", default=[])
    parser.add_argument("--from", dest="first", type=int, default=0, help="first of the sample to run")
    parser.add_argument("--to", dest="last", type=int, default=None, help="one past the last to run")
    parser.add_argument("--list", action="store_true", help="print the sample and stop")
    parser.add_argument("--keep", action="store_true", help="keep the scratch copy")
    parser.add_argument("--survivors", default=os.path.join(ROOT, "scripts", "mutation-survivors.txt"))
    options = parser.parse_args()
    everything = all_sites()
    if options.only:
        mutants = [m for m in everything if m["id"] in options.only]
    else:
        drawn = random.Random(options.seed).sample(everything, min(options.count, len(everything)))
        mutants = drawn[options.first:options.last]
    if options.list:
        for m in mutants:
            print("%s\n  - %s\n  + %s" % (m["id"], m["before"].strip(), m["after"].strip()))
        print("%d mutants of %d sites" % (len(mutants), len(everything)))
        return 0

    scratch = "/tmp/hw-mutation-%d" % os.getpid()
    source, build = scratch + "/src", scratch + "/build"
    # Whatever a test killed by a mutant leaves in its temporary directory goes with the scratch copy.
    os.makedirs(scratch + "/tmp")
    os.environ["TMPDIR"] = scratch + "/tmp"
    files = subprocess.run(["git", "ls-files"], cwd=ROOT, capture_output=True, text=True, check=True).stdout.split()
    for name in files:
        os.makedirs(os.path.dirname(os.path.join(source, name)), exist_ok=True)
        shutil.copy2(os.path.join(ROOT, name), os.path.join(source, name))
    print("mutation-test: %d mutants; building the scratch copy in %s" % (len(mutants), scratch), flush=True)
    if run(["bash", "scripts/build.sh", build, "normal", "-DHW_BUILD_BENCHMARKS=OFF"], source) != 0:
        sys.exit("mutation-test: the unchanged copy does not build")
    if run(["ctest", "--test-dir", build, "-L", "unit", "-j2"], source) != 0:
        sys.exit("mutation-test: the unchanged copy fails its unit suite")

    results = collections.defaultdict(collections.Counter)
    survived = []
    for m in mutants:
        path = os.path.join(source, m["file"])
        original = open(path, encoding="utf-8", errors="surrogateescape").read()
        lines = original.split("\n")
        if lines[m["line"] - 1] != m["before"]:
            sys.exit("mutation-test: %s no longer applies" % m["id"])
        lines[m["line"] - 1] = m["after"]
        start = time.monotonic()
        open(path, "w", encoding="utf-8", errors="surrogateescape").write("\n".join(lines))
        if run(["cmake", "--build", build, "-j2"], source) != 0:
            outcome = "stillborn"
        elif run(["ctest", "--test-dir", build, "-L", "unit", "-j2", "--stop-on-failure"], source, timeout=180) != 0:
            outcome = "caught"
        else:
            outcome = "SURVIVED"
            survived.append(m)
        results[m["dir"]][outcome] += 1
        open(path, "w", encoding="utf-8", errors="surrogateescape").write(original)
        os.utime(path)  # newer than the mutated build, so the next build takes it back
        print("%-60s %-9s %4.0f s  %s" % (m["id"], outcome, time.monotonic() - start, m["after"].strip()[:60]),
              flush=True)
    run(["cmake", "--build", build, "-j2"], source)

    failing = False
    print("\n%-32s %7s %7s %9s %7s" % ("directory", "caught", "scored", "stillborn", "score"))
    for directory in sorted(results):
        r = results[directory]
        scored = r["caught"] + r["SURVIVED"]
        score = r["caught"] / scored if scored else 1.0
        failing = failing or score < TARGET
        print("%-32s %7d %7d %9d %6.0f %%" % (directory, r["caught"], scored, r["stillborn"], 100 * score))
    total = sum(r["caught"] for r in results.values())
    scored = total + len(survived)
    print("%-32s %7d %7d %9s %6.0f %%" % ("all", total, scored, "", 100.0 * total / scored if scored else 100))
    with open(options.survivors, "w") as out:
        for m in survived:
            out.write("%s\n  - %s\n  + %s\n" % (m["id"], m["before"].strip(), m["after"].strip()))
    print("survivors: %s" % options.survivors)
    if not options.keep:
        shutil.rmtree(scratch, ignore_errors=True)
    return 1 if failing else 0


if __name__ == "__main__":
    sys.exit(main())
