#!/usr/bin/env python3
"""The agent's processor time exporting program starts, beside LAUREL on the same load.

Usage: exec_bench.py INSTALLATION [RATE] [SECONDS]

Root starts /bin/true with three arguments RATE times a second for SECONDS from a shell-like
parent (this script). Both exporters run at once on the same auditd: the installed `hostwarden
run` (its default configuration: every execve and connect, the /etc and installation watches;
ECS lines with names and the parent, to a file) and LAUREL as a live auditd plugin with user
and group translation and parent information on. Prints each one's processor time (user +
system, from /proc), the program starts each wrote, and the median time from a program start to
its line in hostwarden's output over 200 single starts after the load."""
import json
import os
import signal
import statistics
import subprocess
import sys
import tempfile
import time

home = sys.argv[1].rstrip("/")
rate = int(sys.argv[2]) if len(sys.argv) > 2 else 1000
seconds = float(sys.argv[3]) if len(sys.argv) > 3 else 20
tick = os.sysconf("SC_CLK_TCK")
work = tempfile.mkdtemp(prefix="hw_exec_bench_")
os.chmod(work, 0o755)
output = work + "/events.jsonl"
laurel_dir = work + "/laurel"
os.mkdir(laurel_dir)
marker = "hwbench%d" % os.getpid()

# LAUREL as auditd runs it, with user names and parent information.
laurel_config = work + "/laurel.toml"
with open(laurel_config, "w") as out:
    out.write('directory = "%s"\nuser = "root"\nstatusreport-period = 0\n'
              '[auditlog]\nfile = "audit.log"\nsize = 4000000000\ngenerations = 1\n'
              '[translate]\nuniversal = false\nuser-db = true\n'
              '[enrich]\npid = true\nexecve-env = []\ncontainer = false\nscript = false\n' % laurel_dir)
plugin = "/etc/audit/plugins.d/laurel.conf"
saved_plugin = open(plugin).read()


def restart_auditd():
    subprocess.run(["pkill", "-x", "auditd"], check=False)
    deadline = time.monotonic() + 10
    while subprocess.run(["pgrep", "-x", "auditd"], stdout=subprocess.DEVNULL).returncode == 0:
        if time.monotonic() > deadline:
            raise SystemExit("auditd does not stop")
        time.sleep(0.05)
    subprocess.run(["/usr/sbin/auditd"], check=True)


def pid_of(name):
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        found = subprocess.run(["pgrep", "-x", name], capture_output=True, text=True).stdout.split()
        if found:
            return int(found[0])
        time.sleep(0.05)
    raise SystemExit(name + " did not start")


def cpu_seconds(pid):
    fields = open("/proc/%d/stat" % pid).read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / tick


def count(path, text):
    try:
        with open(path, "rb") as lines:
            return sum(1 for line in lines if text in line)
    except FileNotFoundError:
        return 0


agent = None
try:
    with open(plugin, "w") as out:
        out.write("active = yes\ndirection = out\ntype = always\nformat = string\npath = /usr/sbin/laurel\n"
                  "args = --config %s\n" % laurel_config)
    restart_auditd()
    laurel = pid_of("laurel")

    config = json.load(open(home + "/etc/hostwarden.json"))
    config["output"] = {"file": output, "stdout": False, "rotate_size": "4000 M"}
    config["log"] = {"level": "information", "file": work + "/agent.log"}
    json.dump(config, open(work + "/hostwarden.json", "w"))
    agent = subprocess.Popen([home + "/bin/hostwarden", "run", "--config", work + "/hostwarden.json"],
                             env=dict(os.environ, HOSTWARDEN_HOME=home + "/"), stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 30
    while "installed in the kernel" not in open(work + "/agent.log", errors="replace").read() if os.path.exists(work + "/agent.log") else True:
        if time.monotonic() > deadline:
            raise SystemExit("the agent did not install its rules")
        time.sleep(0.1)
    time.sleep(2)  # the watched trees indexed

    ours, theirs = cpu_seconds(agent.pid), cpu_seconds(laurel)
    start, n = time.monotonic(), 0
    while time.monotonic() - start < seconds:
        time.sleep(max(0.0, start + n / rate - time.monotonic()))
        pid = os.posix_spawn("/bin/true", ["/bin/true", marker, "load", str(n)], {})
        os.waitpid(pid, 0)
        n += 1
    # Both have caught up once the last start is written by each.
    deadline = time.monotonic() + 60
    while (count(output, marker.encode()) < n or count(laurel_dir + "/audit.log", marker.encode()) < n) \
            and time.monotonic() < deadline:
        time.sleep(0.2)
    ours, theirs = cpu_seconds(agent.pid) - ours, cpu_seconds(laurel) - theirs
    print("%d program starts by root in %.0f s (%d a second)" % (n, seconds, rate))
    print("hostwarden run: %.2f s of processor time, %d of %d starts exported" % (ours, count(output, marker.encode()), n))
    print("laurel (user-db, pid): %.2f s of processor time, %d of %d starts exported" % (
        theirs, count(laurel_dir + "/audit.log", marker.encode()), n))
    print("hostwarden / laurel: %.0f %%" % (100 * ours / theirs))

    # Latency: a start, then its line in hostwarden's output.
    delays = []
    with open(output, "rb") as events:
        events.seek(0, os.SEEK_END)
        for i in range(200):
            probe = ("%sprobe%d" % (marker, i)).encode()
            begin = time.monotonic()
            pid = os.posix_spawn("/bin/true", ["/bin/true", probe.decode()], {})
            os.waitpid(pid, 0)
            seen, pending = False, b""
            while not seen and time.monotonic() - begin < 5:
                pending += events.read()
                seen = probe in pending
                if not seen:
                    time.sleep(0.0002)
            delays.append((time.monotonic() - begin) * 1000 if seen else float("inf"))
            time.sleep(0.02)
    print("program start to its line in the output: median %.1f ms, 90th percentile %.1f ms (200 starts)" % (
        statistics.median(delays), sorted(delays)[179]))
finally:
    if agent is not None:
        agent.send_signal(signal.SIGTERM)
        agent.wait(30)
    with open(plugin, "w") as out:
        out.write(saved_plugin)
    restart_auditd()
    subprocess.run(["rm", "-rf", work])
