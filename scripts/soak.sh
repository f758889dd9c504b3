#!/usr/bin/env bash
# Soak and leaks: builds bench/soak.cpp and runs it in a Wine prefix of its own
# against the simulator registered and started as the service
# "VantoqSensorFusion": init/close cycles and other actions in one host
# process, with the host's and the simulator's handle count, private bytes and
# thread count sampled; prints the samples and a verdict (exit 0: no growth).
#   scripts/soak.sh [cycles=300] [actions=100000] [sample-every=10]
# 300 cycles take several minutes: every "init" restarts the service with
# net.exe and pauses, by design.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=$root/build/win
if [ ! -f "$build/build.ninja" ]; then
  scripts/install-deps.sh
  cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
ninja -C "$build" -j2 soak fusion-sim QXAttentionPluginNoAuth >/dev/null

bin=$build/bin
prefix=$build/wine/soak
export WINEPREFIX=$prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
scripts/wine-prefix.sh create "$prefix" >/dev/null
trap 'scripts/wine-prefix.sh stop "$prefix" >/dev/null 2>&1 || true' EXIT
sim() { wine "$bin/fusion-sim.exe" "$@" </dev/null; }

echo "date: $(date -u '+%Y-%m-%d %H:%M UTC'); nproc $(nproc); $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'); $(wine --version)"
sim install --quiet
sim start
sim ctl wait-ready 10000 >/dev/null
rc=0
(cd "$bin" && timeout 7200 wine soak.exe "${1:-300}" "${2:-100000}" "${3:-10}" </dev/null) || rc=$?
sim uninstall >/dev/null 2>&1 || true
exit $rc
