#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang (ASan+UBSan, every library instrumented) in
# build-fuzz and runs one, seeded with the real captures.
#   scripts/fuzz.sh linepath [RUNS]   the audit task's whole line path (default 10,000,000 runs)
#   scripts/fuzz.sh parser [RUNS]     SDK::AuditParser alone
set -euo pipefail
cd "$(dirname "$0")/.."
which=${1:-linepath}; runs=${2:-10000000}
case "$which" in
  linepath) target=line_path_fuzz ;; parser) target=audit_parser_fuzz ;;
  *) echo "fuzz.sh: linepath or parser" >&2; exit 2 ;;
esac
bash scripts/setup.sh >/dev/null
command -v clang++ >/dev/null || { apt-get install -y -qq clang >/dev/null; }
CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHW_BUILD_FUZZERS=ON \
  -DHW_BUILD_TESTS=OFF -DHW_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build build-fuzz --target "$target" -j"$(nproc)"
mkdir -p build-fuzz/corpus-$which
cp tests/fixtures/*.log build-fuzz/corpus-$which/
exec build-fuzz/bin/$target -runs="$runs" -max_len=20000 -print_final_stats=1 build-fuzz/corpus-$which
