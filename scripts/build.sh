#!/usr/bin/env bash
# Configures and builds one variant: build.sh BUILD_DIR [normal|address|thread] [extra cmake args]
set -euo pipefail
dir=${1:?BUILD_DIR}; variant=${2:-normal}; shift $(( $# >= 2 ? 2 : 1 ))
case "$variant" in
  normal) sanitize= ;; address|thread) sanitize=$variant ;;
  *) echo "build.sh: variant must be normal, address or thread" >&2; exit 2 ;;
esac
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHW_SANITIZE="$sanitize" "$@" >/dev/null
cmake --build "$dir" -j"$(nproc)"
