#!/usr/bin/env bash
# Measures the agent's main job (hostwarden run from an installation): processor share and
# resident memory while idle and while exporting 250 events a second. Needs root; sets up the
# machine, builds and installs into ./install first.
# Usage: bench/run-agent-bench.sh [EVENTS_PER_SECOND] [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" = 0 ] || { echo "run-agent-bench: needs root" >&2; exit 1; }
bash scripts/setup.sh
bash scripts/build.sh build normal
cmake --install build --prefix "$PWD/install" >/dev/null
python3 bench/agent_bench.py "$PWD/install" "${1:-250}" "${2:-10}"
