#!/usr/bin/env bash
# The main job's line-to-JSON path (what `hostwarden run` and `hostwarden decode` do per event)
# beside LAUREL, an independent auditd-to-JSON tool, on the same 100,000 real lines. Installs
# laurel if needed; its package enables it as an auditd plugin, which this script turns off again:
# here it is only a yardstick.
# Usage: bench/run-json-bench.sh [RUNS]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh >/dev/null
if ! command -v laurel >/dev/null; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq laurel >/dev/null
fi
sed -i 's/^active = yes/active = no/' /etc/audit/plugins.d/laurel.conf 2>/dev/null || true
bash scripts/build.sh build normal >/dev/null
python3 bench/json_bench.py build/agent/hostwarden "${1:-5}"
