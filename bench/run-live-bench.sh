#!/usr/bin/env bash
# Measures the audit task against the real kernel: latency (of audit events and of file
# notifications), processor share under execve load,
# and the highest log line rate it keeps up with. Needs root; installs and starts auditd if needed.
# Usage: bench/run-live-bench.sh [latency|filewatch|cpu|rate|all]
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" = 0 ] || { echo "run-live-bench: needs root" >&2; exit 1; }
bash scripts/setup.sh
bash scripts/build.sh build normal
cmake --install build --prefix "$PWD/install" >/dev/null
HOSTWARDEN_HOME="$PWD/install" ./build/bench/audit_live_bench "${1:-all}"
