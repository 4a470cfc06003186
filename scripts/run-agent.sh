#!/usr/bin/env bash
# Sets the machine up, builds and installs hostwarden into ./install, and runs the agent until
# SIGINT or SIGTERM. Extra arguments go to hostwarden (for example: --log-level=debug).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
bash scripts/build.sh build normal -DHW_BUILD_TESTS=OFF -DHW_BUILD_BENCHMARKS=OFF
cmake --install build --prefix "$PWD/install" >/dev/null
exec "$PWD/install/bin/hostwarden" run "$@"
