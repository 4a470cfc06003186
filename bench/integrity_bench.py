#!/usr/bin/env python3
"""The file-integrity baseline beside AIDE on the same tree.

Usage: integrity_bench.py HOSTWARDEN [TREE] [RUNS]

Measures the processor time (user + system) and wall time of four steps, RUNS times each (the
medians are printed): recording a new baseline of TREE (`hostwarden baseline update` on a fresh
database, the same work as the agent's first start-up scan) beside `aide --init`, and comparing the
unchanged tree with it (`hostwarden baseline check`, the work of every later start-up scan) beside
`aide --check`. AIDE is given SHA-256 only and the same attributes (type, permissions, inode, owner,
group, size, mtime, ctime). Also prints the size of each database per entry. Both find the tree
unchanged on the check (exit 0)."""
import os
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

hostwarden = os.path.abspath(sys.argv[1])
tree = sys.argv[2] if len(sys.argv) > 2 else "/usr/share"
runs = int(sys.argv[3]) if len(sys.argv) > 3 else 3
work = tempfile.mkdtemp(prefix="hw_integrity_bench_")
entries = 1 + sum(len(dirs) + len(files) for _, dirs, files in os.walk(tree))

config = os.path.join(work, "hostwarden.json")
baseline = os.path.join(work, "state", "baseline.db")
with open(config, "w") as out:
    out.write('{"log": {"level": "warning"}, "file_integrity": {"baseline": "%s", "max_hash_size": "64 M"},'
              ' "subscriptions": [{"tag": "tree", "watch": "%s", "recursive": true}]}' % (baseline, tree))
aide_conf = os.path.join(work, "aide.conf")
aide_db = os.path.join(work, "aide.db")
with open(aide_conf, "w") as out:
    out.write("database_in=file:%s\ndatabase_out=file:%s.new\ngzip_dbout=no\nreport_url=stdout\n"
              "Same = ftype+p+i+u+g+s+m+c+sha256\n%s Same\n" % (aide_db, aide_db, tree))


def measure(argv, expect=(0,)):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    done = subprocess.run(argv, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    wall = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if done.returncode not in expect:
        sys.exit("%s exited %d: %s" % (" ".join(argv), done.returncode, done.stderr.decode(errors="replace")[-2000:]))
    return (after.ru_utime - before.ru_utime) + (after.ru_stime - before.ru_stime), wall


def record():
    shutil.rmtree(os.path.dirname(baseline), ignore_errors=True)
    return measure([hostwarden, "--config", config, "baseline", "update"])


def aide_init():
    for name in (aide_db, aide_db + ".new"):
        if os.path.exists(name):
            os.remove(name)
    result = measure(["aide", "--init", "-c", aide_conf])
    os.rename(aide_db + ".new", aide_db)
    return result


steps = [("first scan", record, lambda: measure(["aide", "--check", "-c", aide_conf])),
         ("unchanged re-scan", lambda: measure([hostwarden, "--config", config, "baseline", "check"]),
          lambda: measure(["aide", "--check", "-c", aide_conf]))]
# Both databases exist before the re-scans; the page cache holds the tree for everyone alike.
record()
aide_init()
results = {}
for name, ours, _ in steps:
    theirs = aide_init if name == "first scan" else steps[1][2]
    samples = {"hostwarden": [], "aide": []}
    for _ in range(runs):
        samples["hostwarden"].append(ours())
        samples["aide"].append(theirs())
    results[name] = {who: (statistics.median(c for c, _ in s), statistics.median(w for _, w in s))
                     for who, s in samples.items()}

print("tree: %s, %d entries" % (tree, entries))
print("%-18s %14s %14s %14s %14s %8s" % ("step", "hostwarden CPU", "wall", "aide CPU", "wall", "ratio"))
for name in ("first scan", "unchanged re-scan"):
    ours, theirs = results[name]["hostwarden"], results[name]["aide"]
    print("%-18s %12.2f s %12.2f s %12.2f s %12.2f s %7.3f" % (name, ours[0], ours[1], theirs[0], theirs[1],
                                                                 ours[0] / theirs[0]))
db_bytes = sum(os.path.getsize(os.path.join(os.path.dirname(baseline), f)) for f in os.listdir(os.path.dirname(baseline)))
print("database: hostwarden %.1f MB (%.0f bytes an entry), aide %.1f MB (%.0f bytes an entry)" % (
    db_bytes / 1e6, db_bytes / entries, os.path.getsize(aide_db) / 1e6, os.path.getsize(aide_db) / entries))
shutil.rmtree(work)
