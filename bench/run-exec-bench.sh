#!/usr/bin/env bash
# The agent's processor time exporting 1,000 program starts a second, beside LAUREL (Debian's
# laurel as a live auditd plugin, user names and parent information on) on the same load. Needs
# root; sets up the machine, installs laurel, builds and installs into ./install first. auditd is
# restarted with LAUREL for the run and without it afterwards; the kernel's audit backlog holds
# 8,192 records for the run (restored afterwards).
# Usage: bench/run-exec-bench.sh [STARTS_PER_SECOND] [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" = 0 ] || { echo "run-exec-bench: needs root" >&2; exit 1; }
bash scripts/setup.sh >/dev/null
command -v laurel >/dev/null || DEBIAN_FRONTEND=noninteractive apt-get install -y -qq laurel >/dev/null
bash scripts/build.sh build normal >/dev/null
cmake --install build --prefix "$PWD/install" >/dev/null
backlog=$(auditctl -s | awk '/^backlog_limit/ {print $2}')
trap 'auditctl -b "$backlog" >/dev/null' EXIT
auditctl -b 8192 >/dev/null
python3 bench/exec_bench.py "$PWD/install" "${1:-1000}" "${2:-20}"
