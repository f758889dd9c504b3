#!/usr/bin/env bash
# Prints the size of the tests against the code they test, in non-blank lines
# and their characters (bytes). Tests: all test content under tests/ and fuzz/
# that a maintainer reads and keeps up (code, scenario and case files, inputs,
# expected outputs, scripts), not CMakeLists.txt and not the fuzz corpus.
# Against: the C and C++ of the product (plugin/, attention/, fusion/, log/,
# impl/, include/, the RPC interface's IDL counted as code) and of the tools
# (tools/). bench/ is not a test.
set -euo pipefail
cd "$(dirname "$0")/.."
code() { find "$@" -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.c' -o -name '*.idl' \) -print0; }
content() { find "$@" -type f ! -name CMakeLists.txt ! -path '*/corpus/*' -print0; }
# "LINES CHARACTERS" of the files named on stdin (NUL-separated).
size() {
  xargs -0 -r env LC_ALL=C awk 'NF { l++; c += length($0) } END { print l + 0, c + 0 }' |
    awk '{ l += $1; c += $2 } END { print l + 0, c + 0 }'
}
row() { read -r l c; printf '%-34s %6d lines %9d characters\n' "$1" "$l" "$c"; echo "$l $c" >&3; }
exec 3>/tmp/test-ratio.$$
trap 'rm -f /tmp/test-ratio.$$' EXIT
code plugin attention fusion log impl include | size | row "product code"
code tools | size | row "tools code"
for d in tests/* fuzz; do
  [ -d "$d" ] && content "$d" | size | row "$d"
done
content tests fuzz | size | row "all test content"
code bench | size | row "bench code (not counted)"
exec 3>&-
# Rows: product, tools, the folders, all test content, bench.
awk 'NR <= 2 { pl += $1; pc += $2 } { l[NR] = $1; c[NR] = $2 }
     END { tl = l[NR - 1]; tc = c[NR - 1]
           printf "all test content / product+tools code: %.1f%% of the characters", 100 * tc / pc
           printf " (target: at most 60%%), %.1f%% of the lines\n", 100 * tl / pl
           printf "average non-blank test line: %.1f characters (at most 55)\n", tc / tl }' /tmp/test-ratio.$$
