#!/usr/bin/env bash
# The file-integrity baseline beside AIDE (Debian's aide, SHA-256 only, the same attributes) on
# the same tree: the first scan and the re-scan of an unchanged tree, and the database sizes.
# Installs aide if needed (only its program is used; its own cron job is not touched).
# Usage: bench/run-integrity-bench.sh [TREE] [RUNS]   (TREE defaults to /usr/share)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh >/dev/null
if ! command -v aide >/dev/null; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq aide >/dev/null
fi
bash scripts/build.sh build normal >/dev/null
python3 bench/integrity_bench.py build/agent/hostwarden "${1:-/usr/share}" "${2:-3}"
