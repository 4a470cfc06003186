#!/usr/bin/env python3
"""The agent's main job measured: processor share and resident memory of the installed
`hostwarden run` while idle, while exporting EVENTS events a second, while 1,000 programs a second
are started by an unprivileged user (so their EXECVE records arrive), and through a burst of
50,000 events in one second.

Usage: agent_bench.py INSTALLATION [EVENTS] [SECONDS]

Runs the agent with the installation's own configuration plus subscriptions of the getpgid calls
this process makes and of the programs a generator (running as nobody) starts, so the load is
exported through the whole path (kernel, auditd's log, the audit task, the export task, the JSON
line and the output file)."""
import json
import os
import signal
import subprocess
import sys
import tempfile
import threading
import time

home = sys.argv[1].rstrip("/")
rate = int(sys.argv[2]) if len(sys.argv) > 2 else 250
seconds = float(sys.argv[3]) if len(sys.argv) > 3 else 10
tick = os.sysconf("SC_CLK_TCK")
work = tempfile.mkdtemp(prefix="hw_agent_bench_")
os.chmod(work, 0o755)
output = work + "/events.jsonl"

# Starts /bin/true at a rate for a time, as the user nobody, once told to go on its standard input.
generator_code = r'''
import os, sys, time
sys.stdin.readline()
rate, seconds = float(sys.argv[1]), float(sys.argv[2])
start, n = time.monotonic(), 0
while time.monotonic() - start < seconds:
    time.sleep(max(0.0, start + n / rate - time.monotonic()))
    pid = os.posix_spawn("/bin/true", ["/bin/true"], {})
    os.waitpid(pid, 0)
    n += 1
print(n, flush=True)
'''
generator = subprocess.Popen(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", sys.executable, "-c",
                              generator_code, "1000", str(seconds)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                             text=True)

config = json.load(open(home + "/etc/hostwarden.json"))
config["output"] = {"file": output, "stdout": False, "rotate_size": "4000 M"}  # one file for the whole run
config["log"] = {"level": "warning", "file": work + "/agent.log"}
config["subscriptions"] += [
    {"tag": "bench", "syscall": "exit,always -F arch=b64 -S getpgid -F pid=%d" % os.getpid()},
    {"tag": "bench-exec", "syscall": "exit,always -F arch=b64 -S execve -F ppid=%d" % generator.pid}]
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


def exported(tag):
    try:
        return sum(1 for line in open(output, "rb") if b'"tag":"%s"' % tag.encode() in line)
    except FileNotFoundError:
        return 0


def measure(label, load=None):
    """Samples the agent for `seconds` while load(elapsed) runs in this process (if given)."""
    start_cpu, start = cpu_seconds(agent.pid), time.monotonic()
    rss = []
    while time.monotonic() - start < seconds:
        if load is None or not load(time.monotonic() - start):
            time.sleep(0.1)
        if len(rss) < (time.monotonic() - start) * 10:
            rss.append(rss_kb(agent.pid))
    wall = time.monotonic() - start
    share = 100 * (cpu_seconds(agent.pid) - start_cpu) / wall
    print("%-34s processor %5.1f %% of one core, resident memory %6.1f MB (max %6.1f MB)" % (
        label, share, sum(rss) / len(rss) / 1024, max(rss) / 1024))


def wait_exported(tag, count, limit=60):
    deadline = time.monotonic() + limit
    while exported(tag) < count and time.monotonic() < deadline:
        time.sleep(0.1)
    return exported(tag)


env = dict(os.environ, HOSTWARDEN_HOME=home + "/")
agent = subprocess.Popen([home + "/bin/hostwarden", "run", "--config", config_file], env=env,
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
try:
    time.sleep(3)  # start-up: rules installed, /etc and the installation indexed
    print("agent at rest after start: resident memory %.1f MB" % (rss_kb(agent.pid) / 1024))
    measure("idle:")

    sent = [0]

    def getpgid_load(elapsed):
        time.sleep(max(0.0, sent[0] / rate - elapsed))
        os.getpgid(0)
        sent[0] += 1
        return True

    measure("exporting %d events/s:" % rate, getpgid_load)
    print("  exported %d of %d events" % (wait_exported("bench", sent[0]), sent[0]))

    generator.stdin.write("go\n")
    generator.stdin.flush()
    measure("1,000 execve/s by user nobody:")
    started = int(generator.stdout.readline())
    print("  exported %d of %d program starts" % (wait_exported("bench-exec", started), started))

    before, burst = exported("bench"), 50000
    rss_before = rss_kb(agent.pid)
    samples = []
    sampling = threading.Event()

    def sample():
        while not sampling.is_set():
            samples.append(rss_kb(agent.pid))
            time.sleep(0.02)

    sampler = threading.Thread(target=sample)
    sampler.start()
    start = time.monotonic()
    for _ in range(burst):
        os.getpgid(0)
    took = time.monotonic() - start
    delivered = wait_exported("bench", before + burst) - before
    sampling.set()
    sampler.join()
    time.sleep(10)
    print("burst of %d events in %.2f s: %d exported; resident memory %.1f MB before, %.1f MB at most, %.1f MB 10 s after" % (
        burst, took, delivered, rss_before / 1024, max(samples) / 1024, rss_kb(agent.pid) / 1024))
    measure("idle again:")
    lost = sum(1 for line in open(work + "/agent.log", errors="replace") if "rotated with more than" in line)
    print("rotations whose unread rest was longer than one poll reads: %d" % lost)
finally:
    agent.send_signal(signal.SIGTERM)
    print("agent exit status %d" % agent.wait(30))
    generator.kill()
    subprocess.run(["rm", "-rf", work])
