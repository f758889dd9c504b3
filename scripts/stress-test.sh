#!/usr/bin/env bash
# The Windows suite RUNS times in a row (default 3) beside stress-ng --cpu 2:
# the tests' waits must hold under load. Needs build/win (scripts/build.sh).
#   scripts/stress-test.sh [RUNS] [ctest arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."
runs=${1:-3}
[ $# -gt 0 ] && shift
command -v stress-ng >/dev/null || { echo "stress-test: stress-ng is missing (scripts/install-deps.sh)" >&2; exit 2; }
stress-ng --cpu 2 --timeout 0 --quiet &
trap "kill $! 2>/dev/null; wait $! 2>/dev/null || true" EXIT
for i in $(seq "$runs"); do
  echo "== run $i of $runs beside stress-ng --cpu 2"
  start=$(date +%s)
  (cd build/win && ctest -j2 --output-on-failure "$@") || { echo "stress-test: run $i FAILED"; exit 1; }
  echo "== run $i passed in $(($(date +%s) - start)) s"
done
echo "stress-test: $runs runs in a row passed beside stress-ng --cpu 2"
