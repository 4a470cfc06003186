#!/usr/bin/env bash
# Sets the machine up and runs every test: the normal build, then the ASan+UBSan and the TSan
# builds of the same suite. Real-kernel tests run when we are root with auditd running.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
status=0
for variant in normal address thread; do
  dir=build-test-$variant
  echo "== $variant build"
  bash scripts/build.sh "$dir" "$variant" -DHW_BUILD_BENCHMARKS=OFF
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
  export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
  echo "== $variant tests"
  ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" || status=1
done
# The Debian package, from the normal build: lintian, systemd's checks, install, run, purge.
if [ "$(id -u)" = 0 ]; then
  echo "== package"
  bash scripts/package-test.sh build-test-normal || status=1
fi
# Nothing of ours may stay in the kernel after the suite.
if command -v auditctl >/dev/null && auditctl -l 2>/dev/null | grep -q '\*\*\*'; then
  echo "run-tests: audit rules with module keys were left behind:" >&2
  auditctl -l | grep '\*\*\*' >&2
  status=1
fi
exit $status
