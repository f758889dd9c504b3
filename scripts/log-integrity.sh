#!/usr/bin/env bash
# The ctest entry log_contention at full size: WRITERS processes x RECORDS records
# into one log whose limit (MAX_SIZE bytes) makes the size check delete it again
# and again; then every record of what is left checked. A Wine prefix of its own.
#   scripts/log-integrity.sh [BUILD_DIR] [WRITERS] [RECORDS] [MAX_SIZE]
set -euo pipefail
build=${1:-build/win}
build=$(cd "$build" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
prefix=$build/wine/log-integrity
"$here/wine-prefix.sh" create "$prefix" >/dev/null
trap '"$here/wine-prefix.sh" stop "$prefix"' EXIT
export WINEPREFIX=$prefix WINEDEBUG=-all
export QX_LOG_WRITERS=${2:-4} QX_LOG_RECORDS=${3:-10000} QX_LOG_MAX_SIZE=${4:-65536}
start=$(date +%s)
timeout 1200 wine "$build/bin/logger_test.exe" --gtest_filter=LogContention.* | tee "$prefix.out"
echo "wall time: $(($(date +%s) - start)) s"
grep -q '^\[  PASSED  \] [1-9]' "$prefix.out" || { echo "log-integrity: no test ran" >&2; exit 1; }
