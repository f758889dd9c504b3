#!/usr/bin/env bash
# The test command: installs what it needs, builds both trees, runs the native
# tests, then the Windows tests through Wine (one fresh Wine prefix per run).
set -uo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh || exit 1

status=0
echo "== native tests"
(cd build/native && ctest --output-on-failure) || status=1
echo "== Windows tests under Wine"
(cd build/win && ctest --output-on-failure) || status=1
exit $status
