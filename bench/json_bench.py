#!/usr/bin/env python3
"""The main job's line-to-JSON path beside LAUREL on the same real lines.

Usage: json_bench.py HOSTWARDEN [RUNS]

Writes the project's real captures, replicated to about 100,000 lines with their serial numbers
shifted (as bench/BenchData.cpp does), then measures the processor time (user + system) of
`hostwarden decode FILE > /dev/null` and of LAUREL reading the same lines with its enrichment off,
RUNS times each, alternating, and prints the medians. Every line hostwarden wrote must be valid
UTF-8 and parse as JSON."""
import json
import os
import re
import resource
import statistics
import subprocess
import sys
import tempfile

hostwarden = sys.argv[1]
runs = int(sys.argv[2]) if len(sys.argv) > 2 else 5
root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
work = tempfile.mkdtemp(prefix="hw_json_bench_")

original = []
for name in ("kernel-6.18-raw.log", "kernel-6.18-raw-own.log", "kernel-6.18-enriched.log"):
    original += open(os.path.join(root, "tests/fixtures", name), encoding="utf-8", errors="surrogateescape").read().splitlines()
stamp = re.compile(r"(msg=audit\([0-9.]+:)([0-9]+)(\))")
lines, copy = [], 0
while len(lines) < 100000:
    lines += [stamp.sub(lambda m: m.group(1) + str(int(m.group(2)) + copy * 1000000) + m.group(3), line, count=1)
              for line in original]
    copy += 1
log = os.path.join(work, "audit.log")
with open(log, "w", encoding="utf-8", errors="surrogateescape") as out:
    out.write("\n".join(lines) + "\n")

laurel_dir = os.path.join(work, "laurel")
os.mkdir(laurel_dir)
laurel_config = os.path.join(work, "laurel.toml")
with open(laurel_config, "w") as out:
    out.write('directory = "%s"\nuser = "root"\nstatusreport-period = 0\n'
              '[auditlog]\nfile = "audit.log"\nsize = 4000000000\ngenerations = 1\n'
              '[translate]\nuniversal = false\nuser-db = true\n'
              '[enrich]\npid = true\nexecve-env = []\ncontainer = false\nscript = false\n' % laurel_dir)


def cpu_of(command, stdin=None, stdout=subprocess.DEVNULL):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run(command, stdin=stdin, stdout=stdout, stderr=subprocess.DEVNULL, check=False)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime)


ours, theirs = [], []
for _ in range(runs):
    ours.append(cpu_of([hostwarden, "decode", log, "--log-level=error"]))
    with open(log, "rb") as source:
        theirs.append(cpu_of(["laurel", "-c", laurel_config], stdin=source))
    for name in os.listdir(laurel_dir):
        os.unlink(os.path.join(laurel_dir, name))

decoded = os.path.join(work, "decoded.jsonl")
with open(decoded, "w") as out:
    subprocess.run([hostwarden, "decode", log, "--log-level=error"], stdout=out, check=True)
events = 0
with open(decoded, "rb") as out:
    for raw in out:
        json.loads(raw.decode("utf-8"))  # strict: raises on a byte that is not UTF-8
        events += 1
with open(log, "rb") as source:
    subprocess.run(["laurel", "-c", laurel_config], stdin=source, stderr=subprocess.DEVNULL, check=False)
laurel_events = sum(1 for _ in open(os.path.join(laurel_dir, "audit.log"), "rb"))

print("%d lines of real captures, replicated" % len(lines))
print("hostwarden decode: %.2f s of processor time (median of %d; %s), %d JSON events, all valid UTF-8 JSON" % (
    statistics.median(ours), runs, ", ".join("%.2f" % t for t in ours), events))
print("laurel 0.5, user names and parent information on: %.2f s of processor time (median of %d; %s), %d JSON events" % (
    statistics.median(theirs), runs, ", ".join("%.2f" % t for t in theirs), laurel_events))
print("hostwarden / laurel: %.0f %%" % (100 * statistics.median(ours) / statistics.median(theirs)))
subprocess.run(["rm", "-rf", work])
