#!/usr/bin/env bash
# Prints the size of the tests against the code they test: non-blank lines of
# C and C++ (.cpp, .h, .c, and the RPC interface's .idl) in tests/ and fuzz/
# against the product (plugin/, attention/, fusion/, log/, impl/, include/)
# and the tools (tools/); the tests' data files (scenarios, case tables,
# expected outputs, scripts, CMakeLists) are listed beside, and bench/ is not
# a test.
set -euo pipefail
cd "$(dirname "$0")/.."
code() { find "$@" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' -o -name '*.idl' \) -print0 |
           xargs -0 -r cat | grep -cv '^[[:space:]]*$' || true; }
data() { find "$@" -type f ! \( -name '*.cpp' -o -name '*.h' -o -name '*.c' -o -name '*.idl' \) ! -path '*/corpus/*' -print0 |
           xargs -0 -r cat | grep -acv '^[[:space:]]*$' || true; }
product=$(code plugin attention fusion log impl include)
tools=$(code tools)
tests=$(code tests)
fuzz=$(code fuzz)
printf '%-28s %6s\n' "product code" "$product" "tools code" "$tools" "tests code" "$tests" \
  "fuzz code" "$fuzz" "tests and fuzz data files" "$(data tests fuzz)" "bench code (not counted)" "$(code bench)"
awk -v t=$((tests + fuzz)) -v p=$((product + tools)) \
  'BEGIN { printf "tests+fuzz code / product+tools code: %d / %d = %.1f%% (target: at most 40%%)\n", t, p, 100 * t / p }'
