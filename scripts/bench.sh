#!/usr/bin/env bash
# Builds and runs the benchmarks in a Wine prefix of their own, with the
# sensor fusion service simulator registered and started as the Windows service
# "VantoqSensorFusion" (as the demo does), and prints their figures:
#   - action_bench: each action through the plug-in's exports, the attention
#     event -> host callback path and "init", each beside its floor;
#   - log_bench: Logger::Write with 1, 2 and 4 processes on one file;
#   - fusion-bench (when built): the fusion client's wrappers.
# The soak is separate (scripts/soak.sh): it takes several minutes by design.
#   scripts/bench.sh [--quick]     --quick: fewer rounds, for a smoke run
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=$root/build/win
quick=0
[ "${1:-}" = "--quick" ] && quick=1

if [ ! -f "$build/build.ninja" ]; then
  scripts/install-deps.sh
  cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
targets="action_bench log_bench fusion-sim QXAttentionPluginNoAuth"
ninja -C "$build" -t targets all 2>/dev/null | grep -q '^fusion-bench:' && targets="$targets fusion-bench"
ninja -C "$build" -j2 $targets >/dev/null

bin=$build/bin
prefix=$build/wine/bench-all
export WINEPREFIX=$prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
scripts/wine-prefix.sh create "$prefix" >/dev/null
trap 'scripts/wine-prefix.sh stop "$prefix" >/dev/null 2>&1 || true' EXIT
sim() { wine "$bin/fusion-sim.exe" "$@" </dev/null; }

echo "== machine"
echo "date:    $(date -u '+%Y-%m-%d %H:%M UTC')"
echo "nproc:   $(nproc)"
echo "cpu:     $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
echo "wine:    $(wine --version)"
echo "load:    $(cut -d' ' -f1-3 /proc/loadavg) (other work on the machine shows here; figures are medians)"

sim install --quiet
sim start
sim ctl wait-ready 10000 >/dev/null

echo
echo "== action_bench (plug-in actions, event path, init)"
if [ $quick = 1 ]; then args="50 4 40 3"; else args="200 10 300 9"; fi
(cd "$bin" && timeout 1800 wine action_bench.exe $args </dev/null)

echo
echo "== log_bench (Logger::Write, 1, 2 and 4 processes)"
if [ $quick = 1 ]; then args="500 3"; else args="2000 7"; fi
(cd "$bin" && timeout 1800 wine log_bench.exe $args </dev/null)

if [ -f "$bin/fusion-bench.exe" ]; then
  echo
  echo "== fusion-bench (fusion client wrappers; runs its own console simulator)"
  sim stop >/dev/null
  if [ $quick = 1 ]; then args="300 40"; else args="2000 200"; fi
  (cd "$bin" && timeout 1800 wine fusion-bench.exe $args </dev/null)
fi
sim uninstall >/dev/null 2>&1 || true
