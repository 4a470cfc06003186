#!/usr/bin/env bash
# Builds the Debian package from a normal build directory and proves it: lintian finds no error
# (warnings are printed), systemd accepts the unit, the package installs with its dependencies,
# the installed hostwarden answers --help and runs its main job briefly (recording the baseline
# of its watched trees, which baseline check can then read), and a purge leaves no file
# of ours and no audit rule of ours. Needs root.
# Usage: scripts/package-test.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build=$(cd "${1:?build directory}" && pwd)
[ "$(id -u)" = 0 ] || { echo "package-test: needs root" >&2; exit 1; }
export DEBIAN_FRONTEND=noninteractive
for tool in lintian dpkg-shlibdeps; do
  command -v "$tool" >/dev/null || apt-get install -y -qq lintian dpkg-dev >/dev/null
done

(cd "$build" && cpack -G DEB >/dev/null)
deb=$(ls "$build"/hostwarden_*_amd64.deb)
echo "package-test: built $deb"
if ! report=$(lintian --fail-on error --info "$deb" 2>&1); then
  echo "$report" >&2
  echo "package-test: lintian reports errors" >&2
  exit 1
fi
echo "$report" | grep -v '^running with root' || true

apt-get install -y -qq "$deb" >/dev/null
trap 'dpkg --purge hostwarden >/dev/null 2>&1 || true' EXIT
systemd-analyze verify /lib/systemd/system/hostwarden.service
systemd-analyze security --offline=true /lib/systemd/system/hostwarden.service | tail -1
hostwarden --help >/dev/null
err=$(mktemp)
hostwarden run >/dev/null 2>"$err" &
agent=$!
for _ in $(seq 1 100); do
  grep -q "Every subscription is installed in the kernel." "$err" && break
  kill -0 "$agent" 2>/dev/null || break
  sleep 0.1
done
grep -q "Every subscription is installed in the kernel." "$err" || { cat "$err" >&2; echo "package-test: the installed agent did not start" >&2; exit 1; }
/bin/true  # an execve for the default subscription
kill -TERM "$agent"
wait "$agent" || { cat "$err" >&2; echo "package-test: the installed agent did not stop cleanly" >&2; exit 1; }
rm -f "$err"
[ -s /var/log/hostwarden/events.jsonl ] || { echo "package-test: no events in /var/log/hostwarden/events.jsonl" >&2; exit 1; }
[ -s /var/lib/hostwarden/baseline.db ] || { echo "package-test: no baseline in /var/lib/hostwarden" >&2; exit 1; }
status=0
hostwarden baseline check >/dev/null || status=$?
[ "$status" -le 1 ] || { echo "package-test: hostwarden baseline check cannot compare (status $status)" >&2; exit 1; }

files=$(dpkg -L hostwarden)
dpkg --purge hostwarden >/dev/null
trap - EXIT
left=0
for f in $files; do
  if { [ -e "$f" ] || [ -L "$f" ]; } && [ ! -d "$f" ]; then echo "package-test: left behind: $f" >&2; left=1; fi
done
for d in /usr/lib/hostwarden /etc/hostwarden /var/log/hostwarden /var/lib/hostwarden /usr/share/doc/hostwarden; do
  [ ! -e "$d" ] || { echo "package-test: left behind: $d" >&2; left=1; }
done
if auditctl -l | grep -q '_task\*\*\*'; then echo "package-test: audit rules left behind" >&2; auditctl -l >&2; left=1; fi
[ "$left" = 0 ] && echo "package-test: installed, ran, purged; nothing left"
exit "$left"
