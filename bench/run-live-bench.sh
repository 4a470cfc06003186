#!/usr/bin/env bash
# Measures the audit task against the real kernel: latency (of audit events and of file
# notifications), processor share under execve load, and the log line rates it keeps up with
# while auditd rotates its log. Needs root; installs and starts auditd if needed. For the run,
# auditd rotates its log every megabyte (max_log_file = 1) and the kernel's backlog holds 8,192
# records; both are restored afterwards.
# Usage: bench/run-live-bench.sh [latency|filewatch|cpu|rate|all] | rotation [RUNS]
set -euo pipefail
cd "$(dirname "$0")/.."
[ "$(id -u)" = 0 ] || { echo "run-live-bench: needs root" >&2; exit 1; }
bash scripts/setup.sh
bash scripts/build.sh build normal
cmake --install build --prefix "$PWD/install" >/dev/null

conf=/etc/audit/auditd.conf
saved=$(mktemp)
cp "$conf" "$saved"
backlog=$(auditctl -s | awk '/^backlog_limit/ {print $2}')
restore() {
  cp "$saved" "$conf" && rm -f "$saved"
  kill -HUP "$(pgrep -x auditd)" 2>/dev/null || true
  auditctl -b "$backlog" >/dev/null
}
trap restore EXIT
sed -i -E 's/^(max_log_file *=).*/\1 1/; s/^(max_log_file_action *=).*/\1 ROTATE/' "$conf"
kill -HUP "$(pgrep -x auditd)"
auditctl -b 8192 >/dev/null
HOSTWARDEN_HOME="$PWD/install" ./build/bench/audit_live_bench "${1:-all}" "${@:2}"
