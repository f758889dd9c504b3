#!/usr/bin/env bash
# Profiling aid for the action benchmark: counts the wineserver requests that
# each action makes through the plug-in's exports, beside its floor (the same
# remote calls, records and registry write done bare). Runs action_bench
# --trace in a Wine prefix of its own whose server traces every request
# (wineserver -d2), then prints requests per call by request name.
#   scripts/trace-actions.sh [calls=20]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
build=$root/build/win
ninja -C "$build" -j2 action_bench fusion-sim QXAttentionPluginNoAuth >/dev/null
bin=$build/bin
prefix=$build/wine/trace
trace=$build/wine/trace-requests.txt
export WINEPREFIX=$prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
scripts/wine-prefix.sh create "$prefix" >/dev/null
wineserver -k; wineserver -w
trap 'wineserver -k 2>/dev/null || true; wineserver -w 2>/dev/null || true' EXIT
wineserver -f -p -d2 2>"$trace" </dev/null &
sleep 1
sim() { wine "$bin/fusion-sim.exe" "$@" </dev/null >/dev/null; }
sim install --quiet
sim start
sim ctl wait-ready 10000
(cd "$bin" && timeout 600 wine action_bench.exe --trace "${1:-20}" </dev/null)
sim uninstall || true
python3 - "$trace" "${1:-20}" <<'PY'
import re, sys, collections
path, calls = sys.argv[1], int(sys.argv[2])
section, counts = None, collections.OrderedDict()
req = re.compile(r'^([0-9a-f]{4,8}): ([a-z_0-9]+)\(')
for line in open(path, errors='replace'):
    m = req.match(line)
    if not m or ') = ' in line:
        continue
    mark = re.search(r'name=L"QXMARK ([^"]*)"', line)
    if mark:
        section = None if mark.group(1) == 'end' else mark.group(1)
        if section:
            counts.setdefault(section, collections.Counter())
        continue
    if section:
        counts[section][m.group(2)] += 1
print("wineserver requests per call (all processes), %d calls each" % calls)
for name, c in counts.items():
    total = sum(c.values()) / calls
    top = ", ".join("%s %.1f" % (k, v / calls) for k, v in c.most_common(8))
    print("%-48s %6.1f  %s" % (name, total, top))
PY
