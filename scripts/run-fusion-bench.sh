#!/usr/bin/env bash
# Runs the fusion client benchmark (bin/fusion-bench.exe against bin/fusion-sim.exe)
# in a Wine prefix of its own under the build dir, then ends that prefix's server.
#   scripts/run-fusion-bench.sh [BUILD_DIR] [calls] [events]
set -euo pipefail
build=${1:-build/win}
build=$(cd "$build" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
prefix=$build/wine/bench
"$here/wine-prefix.sh" create "$prefix" >/dev/null
trap '"$here/wine-prefix.sh" stop "$prefix"' EXIT
WINEPREFIX=$prefix WINEDEBUG=-all timeout 600 wine "$build/bin/fusion-bench.exe" "${2:-2000}" "${3:-200}"
