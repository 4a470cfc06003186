#!/usr/bin/env python3
"""The agent's main job measured: processor share and resident memory of the installed
`hostwarden run` while idle and while exporting EVENTS events a second.

Usage: agent_bench.py INSTALLATION [EVENTS] [SECONDS]

Runs the agent with the installation's own configuration plus one subscription of getpgid calls
made by a generator in this process, so the load is exported through the whole path (kernel,
auditd's log, the audit task, the export task, the JSON line and the output file)."""
import json
import os
import signal
import subprocess
import sys
import tempfile
import time

home = sys.argv[1].rstrip("/")
rate = int(sys.argv[2]) if len(sys.argv) > 2 else 250
seconds = float(sys.argv[3]) if len(sys.argv) > 3 else 10
tick = os.sysconf("SC_CLK_TCK")
work = tempfile.mkdtemp(prefix="hw_agent_bench_")

config = json.load(open(home + "/etc/hostwarden.json"))
config["output"] = {"file": work + "/events.jsonl", "stdout": False}
config["log"] = {"level": "warning", "file": ""}
config["subscriptions"].append(
    {"tag": "bench", "syscall": "exit,always -F arch=b64 -S getpgid -F pid=%d" % os.getpid()})
config_file = work + "/hostwarden.json"
json.dump(config, open(config_file, "w"))


def cpu_seconds(pid):
    fields = open("/proc/%d/stat" % pid).read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / tick


def rss_kb(pid):
    for line in open("/proc/%d/status" % pid):
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    return 0


def bench_lines():
    try:
        return sum(1 for line in open(work + "/events.jsonl") if '"tag":"bench"' in line)
    except FileNotFoundError:
        return 0


def measure(label, load):
    start_cpu, start = cpu_seconds(agent.pid), time.monotonic()
    rss = []
    n = 0
    while time.monotonic() - start < seconds:
        if load:
            deadline = start + n / rate
            time.sleep(max(0.0, deadline - time.monotonic()))
            os.getpgid(0)
            n += 1
        else:
            time.sleep(0.1)
        if len(rss) < (time.monotonic() - start) * 10:
            rss.append(rss_kb(agent.pid))
    wall = time.monotonic() - start
    share = 100 * (cpu_seconds(agent.pid) - start_cpu) / wall
    print("%-26s processor %5.1f %% of one core, resident memory %6.1f MB (max %6.1f MB)%s" % (
        label, share, sum(rss) / len(rss) / 1024, max(rss) / 1024,
        "" if not load else ", %d events sent" % n))
    return n


env = dict(os.environ, HOSTWARDEN_HOME=home + "/")
agent = subprocess.Popen([home + "/bin/hostwarden", "run", "--config", config_file], env=env,
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
try:
    time.sleep(3)  # start-up: rules installed, /etc and the installation indexed
    print("agent at rest after start: resident memory %.1f MB" % (rss_kb(agent.pid) / 1024))
    measure("idle:", False)
    sent = measure("exporting %d events/s:" % rate, True)
    deadline = time.monotonic() + 10
    while bench_lines() < sent and time.monotonic() < deadline:
        time.sleep(0.1)
    print("exported %d of %d events to %s" % (bench_lines(), sent, work + "/events.jsonl"))
    measure("idle again:", False)
finally:
    agent.send_signal(signal.SIGTERM)
    print("agent exit status %d" % agent.wait(30))
    subprocess.run(["rm", "-rf", work])
