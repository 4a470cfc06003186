#!/bin/bash
# The share of tests in the project's code: non-blank lines of the test programs and their tables
# (C++ and table files under any tests/ directory; captured fixtures and golden outputs are data)
# against the non-blank lines of all other C++ (the product, the tools, the benchmarks and the
# fuzzing harnesses; the generated system-call tables left out).
set -euo pipefail
cd "$(dirname "$0")/.."
count() { xargs -r grep -cv '^[[:space:]]*$' | awk -F: '{ n += $NF } END { print n + 0 }'; }
tests=$(git ls-files | grep -E '(^|/)tests/' | grep -E '\.(cpp|h)$|/tables/.*\.txt$' | grep -vE '/(fixtures|golden)/' | count)
code=$(git ls-files | grep -E '\.(cpp|h)$' | grep -vE '(^|/)tests/' | grep -v 'SyscallTables\.cpp$' | count)
printf 'tests %d lines, other code %d lines: tests are %d %% of all, %d %% of the rest\n' \
    "$tests" "$code" $((100 * tests / (tests + code))) $((100 * tests / code))
