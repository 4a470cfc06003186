#!/usr/bin/env bash
# Builds the parser fuzzer with clang's libFuzzer (ASan+UBSan) and runs it for SECONDS (default
# 60), seeded with the real captures. Usage: platform/sdk/fuzz/run.sh [SECONDS]
set -euo pipefail
cd "$(dirname "$0")/../../.."
secs=${1:-60}
out=build-fuzz; mkdir -p "$out/corpus"
cp tests/fixtures/*.log "$out/corpus/"
clang++ -std=c++17 -O1 -g -fsanitize=fuzzer,address,undefined -Iplatform/sdk/include \
  platform/sdk/fuzz/AuditParserFuzz.cpp platform/sdk/src/AuditParser.cpp -o "$out/audit_parser_fuzz"
"$out/audit_parser_fuzz" -max_total_time="$secs" -max_len=20000 "$out/corpus"
