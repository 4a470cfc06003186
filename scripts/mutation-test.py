#!/usr/bin/env python3
"""Mutation testing: applies each fault of a list, one at a time, to a scratch copy of the
project, runs the unit suite (ctest -L unit) there, and reports the faults no test caught.

Usage: scripts/mutation-test.py [--list FILE] [--only ID ...] [--keep] [--check] [--matrix FILE]

--matrix runs the whole unit suite for every fault and writes which tests caught it (one line per
fault: id, then the catching tests), so a test that catches nothing no other test catches shows up.

The list (default scripts/mutations.txt) holds blocks like

    == id | what the fault is
    @ path/to/file.cpp
    <<<
    the exact original text (it must occur exactly once)
    ===
    what it becomes
    >>>

A fault that does not compile is reported as such and left out of the score. Slow (a build per
fault): run it by hand, not in CI. Exit status 1 when any fault survives.
"""
import argparse
import os
import re
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def parse(path):
    mutations = []
    text = open(path).read()
    pattern = re.compile(r"^== (\S+) \| ([^\n]*)\n@ (\S+)\n<<<\n(.*?)\n===\n(.*?)\n?>>>$", re.M | re.S)
    for match in pattern.finditer(text):
        ident, what, file, before, after = match.groups()
        mutations.append({"id": ident, "what": what, "file": file, "before": before, "after": after})
    declared = len(re.findall(r"^== ", text, re.M))
    if declared != len(mutations):
        sys.exit("mutation-test: %d blocks declared but %d readable in %s" % (declared, len(mutations), path))
    return mutations


def run(args, cwd, quiet=True):
    return subprocess.run(args, cwd=cwd, stdout=subprocess.DEVNULL if quiet else None,
                          stderr=subprocess.DEVNULL if quiet else None).returncode


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--list", default=os.path.join(ROOT, "scripts", "mutations.txt"))
    parser.add_argument("--only", nargs="*", default=[])
    parser.add_argument("--keep", action="store_true", help="keep the scratch copy")
    parser.add_argument("--check", action="store_true", help="only check that every fault applies once")
    parser.add_argument("--matrix", help="run every test for every fault and write who caught it here")
    options = parser.parse_args()
    mutations = [m for m in parse(options.list) if not options.only or m["id"] in options.only]
    bad = 0
    for m in mutations:
        count = open(os.path.join(ROOT, m["file"])).read().count(m["before"])
        if count != 1:
            print("%s: the original text occurs %d times in %s" % (m["id"], count, m["file"]))
            bad += 1
    if options.check or bad:
        # A fault that no longer applies would end a long run half way: refuse before building.
        print("%d faults, %d do not apply" % (len(mutations), bad))
        return 1 if bad else 0

    scratch = "/tmp/hw-mutation-%d" % os.getpid()
    source = scratch + "/src"
    build = scratch + "/build"
    # Whatever a test killed by a fault leaves in its temporary directory goes with the scratch copy.
    os.makedirs(scratch + "/tmp")
    os.environ["TMPDIR"] = scratch + "/tmp"
    files = subprocess.run(["git", "ls-files"], cwd=ROOT, capture_output=True, text=True, check=True).stdout.split()
    for name in files:
        os.makedirs(os.path.dirname(os.path.join(source, name)), exist_ok=True)
        shutil.copy2(os.path.join(ROOT, name), os.path.join(source, name))
    print("mutation-test: %d faults; building the scratch copy in %s" % (len(mutations), scratch), flush=True)
    if run(["bash", "scripts/build.sh", build, "normal", "-DHW_BUILD_BENCHMARKS=OFF"], source, quiet=False) != 0:
        sys.exit("mutation-test: the unchanged copy does not build")
    if run(["ctest", "--test-dir", build, "-L", "unit", "-j2"], source) != 0:
        sys.exit("mutation-test: the unchanged copy fails its unit suite")

    survived, stillborn, killed = [], [], 0
    matrix = open(options.matrix, "w") if options.matrix else None
    stop = [] if matrix else ["--stop-on-failure"]
    for m in mutations:
        path = os.path.join(source, m["file"])
        original = open(path).read()
        start = time.monotonic()
        open(path, "w").write(original.replace(m["before"], m["after"]))
        if run(["cmake", "--build", build, "-j2"], source) != 0:
            outcome = "does not compile"
            stillborn.append(m)
        elif run(["ctest", "--test-dir", build, "-L", "unit", "-j2", "--timeout", "120"] + stop, source) != 0:
            outcome = "caught"
            killed += 1
            if matrix:
                failed = os.path.join(build, "Testing", "Temporary", "LastTestsFailed.log")
                names = [line.strip().split(":", 1)[1] for line in open(failed) if ":" in line]
                matrix.write("%s %s\n" % (m["id"], " ".join(names)))
                matrix.flush()
        else:
            outcome = "SURVIVED"
            survived.append(m)
        open(path, "w").write(original)
        os.utime(path)  # newer than the mutated build, so the next build takes it back
        print("%-40s %-16s %5.0f s  %s" % (m["id"], outcome, time.monotonic() - start, m["what"]), flush=True)
    run(["cmake", "--build", build, "-j2"], source)

    scored = killed + len(survived)
    print("\nmutation score: %d of %d faults caught (%.0f %%); %d did not compile" % (
        killed, scored, 100.0 * killed / scored if scored else 100.0, len(stillborn)))
    for m in survived:
        print("  survived: %s (%s) in %s" % (m["id"], m["what"], m["file"]))
    if not options.keep:
        shutil.rmtree(scratch, ignore_errors=True)
    return 1 if survived else 0


if __name__ == "__main__":
    sys.exit(main())
