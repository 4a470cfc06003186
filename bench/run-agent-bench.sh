#!/usr/bin/env bash
# Measures the agent's main job (hostwarden run from an installation): processor share and
# resident memory while idle, while exporting events, while an unprivileged user starts 1,000
# programs a second, and through a burst of 50,000 events. Needs root; sets up the machine, builds
# and installs into ./install first. The kernel's audit backlog holds 8,192 records for the run
# (restored afterwards).
# Usage: bench/run-agent-bench.sh [EVENTS_PER_SECOND] [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" = 0 ] || { echo "run-agent-bench: needs root" >&2; exit 1; }
bash scripts/setup.sh
bash scripts/build.sh build normal
cmake --install build --prefix "$PWD/install" >/dev/null
backlog=$(auditctl -s | awk '/^backlog_limit/ {print $2}')
trap 'auditctl -b "$backlog" >/dev/null' EXIT
auditctl -b 8192 >/dev/null
python3 bench/agent_bench.py "$PWD/install" "${1:-250}" "${2:-10}"
