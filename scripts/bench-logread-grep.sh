#!/usr/bin/env bash
# logread's filters against grep on the same plain log of the plug-in: -g
# (a word, an alternation, a counted repetition) and --level, each beside the
# grep command that selects the same lines, in one run on one machine. Every
# figure is the median of 3 runs, wall seconds, output to a file (grep stops
# at the first match when its output is /dev/null); the last column is
# logread's time over grep's.
#   scripts/bench-logread-grep.sh [MIB]    MIB: size of the log (default 100)
#   LOGREAD=/path/to/logread scripts/bench-logread-grep.sh
set -euo pipefail
cd "$(dirname "$0")/.."
mib=${1:-100}
[ -n "${LOGREAD:-}" ] || ninja -C build/native logread >/dev/null
logread=$(realpath "${LOGREAD:-build/native/bin/logread}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "date: $(date -u '+%Y-%m-%d %H:%M UTC'), nproc $(nproc), load $(cut -d' ' -f1-3 /proc/loadavg)"
echo "grep: $(grep --version | head -1), logread: $logread"
python3 - "$work/QXAttentionPlugin.log" "$mib" <<'PY'
import sys
path, size = sys.argv[1], int(sys.argv[2]) << 20
messages = ["AttentionInfo.cpp(57) set_attention_ctrl 2",
            "AttentionFuntion(258) attention_start begin w:0 e:1",
            "FusionClient.cpp(88) InitFusion exception 1722 (RPC_S_SERVER_UNAVAILABLE)",
            "AttentionPlugin.cpp(281) status value: 2",
            "AttentionFuntion(301) net.exe start VantoqSensorFusion failed: 2",
            "AttentionFuntion(182) Set delay: 30 resp:0"]
out, ms, i = [], 0, 0
written = 0
with open(path, "w") as f:
    while written < size:
        s, x = divmod(ms, 1000); m, s = divmod(s, 60); h, m = divmod(m, 60)
        level = "WAR" if i % 50 == 0 else "ERR" if i % 97 == 0 else "INF"
        line = "11-14 %02d:%02d:%02d:%03d : [%s][04242] %s\n" % (h % 24, m, s, x, level, messages[i % 6])
        f.write(line); written += len(line); ms += 7; i += 1
PY
cd "$work"
median() {
  local TIMEFORMAT=%R
  for _ in 1 2 3; do { time "$@" >out.txt; } 2>&1; done | sort -n | sed -n 2p
}
row() {  # LABEL, then the logread arguments, "--", the grep arguments
  local label=$1; shift
  local args=() g
  while [ "$1" != -- ]; do args+=("$1"); shift; done; shift
  local ours theirs
  [ "$("$logread" "${args[@]}" QXAttentionPlugin.log | wc -l)" = "$(grep "$@" QXAttentionPlugin.log | wc -l)" ] ||
    { echo "$label: logread and grep select different lines" >&2; exit 1; }
  ours=$(median "$logread" "${args[@]}" QXAttentionPlugin.log)
  theirs=$(median grep "$@" QXAttentionPlugin.log)
  printf '%-32s logread %6.3f s  grep %6.3f s  %5.1fx\n' "$label" "$ours" "$theirs" \
    "$(awk -v a="$ours" -v b="$theirs" 'BEGIN {print a / b}')"
}
echo "== $(du -m QXAttentionPlugin.log | cut -f1) MiB plain log, $(wc -l <QXAttentionPlugin.log) records"
row "-g exception" -g exception -- -E exception
row "-g \"exception|failed|1722\"" -g "exception|failed|1722" -- -E "exception|failed|1722"
row "-g \"delay: \\d{1,3} \"" -g "delay: \\d{1,3} " -- -P "delay: \\d{1,3} "
row "--level WAR" --level WAR -- -F "[WAR]"
row "--level ERR,WAR" --level ERR,WAR -- -e "[ERR]" -F -e "[WAR]"

# One record of 1 MiB: a{1,1000}b takes time in proportion to the line.
printf '11-14 09:00:00:000 : [INF][00001] X.cpp(1) ' >long.log
head -c 1048576 /dev/zero | tr '\0' a >>long.log
echo b >>long.log
TIMEFORMAT=%R
echo "== one record of 1 MiB, -g \"a{1,1000}b\": logread $( { time "$logread" -g "a{1,1000}b" long.log >out.txt; } 2>&1) s, grep -E $( { time grep -E "a{1,1000}b" long.log >out.txt; } 2>&1) s"
