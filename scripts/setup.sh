#!/usr/bin/env bash
# Prepares a Debian 12 machine for building and testing hostwarden: the packages it builds
# against, and a running auditd (the real-kernel tests need one).
set -euo pipefail
packages=(cmake g++ make pkg-config libgtest-dev libgmock-dev libbenchmark-dev
          auditd libaudit-dev libauparse-dev libpoco-dev libssl-dev libsqlite3-dev python3 rapidjson-dev runc busybox-static lintian dpkg-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
if [ "$(id -u)" = 0 ] && ! pgrep -x auditd >/dev/null; then
  echo "setup: starting auditd"
  /usr/sbin/auditd || echo "setup: auditd did not start; real-kernel tests will be skipped" >&2
fi
