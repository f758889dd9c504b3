#!/usr/bin/env bash
# Figures of the native log reader (build/native/bin/logread): a 1 MiB
# ".logdat" file (the logger's size limit), and 100 MiB of logs (two plug-in
# ".logdat" files and a sensor library log whose records interleave in time)
# read merged, filtered and as JSON Lines. The logs are generated into a
# scratch folder; every figure is the median of the runs, output to /dev/null.
#   scripts/bench-logread.sh [MIB]     MIB: size of the large run (default 100)
#   LOGREAD=/path/to/logread scripts/bench-logread.sh    another build, such as
#                                      an older one to compare with
set -euo pipefail
cd "$(dirname "$0")/.."
total_mib=${1:-100}
if [ -z "${LOGREAD:-}" ]; then
  if [ ! -f build/native/build.ninja ]; then
    scripts/install-deps.sh
    cmake -S . -B build/native -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  fi
  ninja -C build/native logread >/dev/null
fi
logread=$(realpath "${LOGREAD:-build/native/bin/logread}")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

echo "== machine"
echo "date:    $(date -u '+%Y-%m-%d %H:%M UTC')"
echo "nproc:   $(nproc)"
echo "cpu:     $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
echo "load:    $(cut -d' ' -f1-3 /proc/loadavg)"
echo "build:   $logread"

# Logs of the writers' own forms: the plug-in's records (an occasional WAR, a
# resp: record with the JSON's line feed), the sensor library's CRLF lines.
python3 - "$work" "$total_mib" <<'PY'
import os, struct, sys
work, total = sys.argv[1], int(sys.argv[2]) << 20
flip = bytes(255 - b for b in range(256))
messages = [
    "AttentionInfo.cpp(57) set_attention_ctrl 2",
    "AttentionFuntion(258) attention_start begin w:0 e:1",
    "AttentionFuntion(267) tof_start end0",
    "AttentionPlugin.cpp(281) status value: 2",
    'AttentionPlugin.cpp(341) resp: {"cmd":"get_attention","delay":30,"status":2}\n',
    "AttentionFuntion(182) Set delay: 30 \uff0cresp:0",
]

def stamp(ms):
    s, ms = divmod(ms, 1000); m, s = divmod(s, 60); h, m = divmod(m, 60); d, h = divmod(h, 24)
    return 11, 14 + d, h, m, s, ms

def plugin(path, size, start, thread):
    out, ms, i = bytearray(), start, 0
    while len(out) < size:
        mo, d, h, m, s, x = stamp(ms)
        level = "WAR" if i % 50 == 0 else "INF"
        text = "%02d-%02d %02d:%02d:%02d:%03d : [%s][%05d] %s\n" % (mo, d, h, m, s, x, level, thread,
                                                                     messages[i % len(messages)])
        data = text.encode()
        out += struct.pack("<I", len(data)) + data.translate(flip)
        ms += 7; i += 1
    open(path, "wb").write(out)

def sensor(path, size, start):
    out, ms, i = bytearray(), start, 0
    out += b"Version:0.0.0.3\r\n"
    while len(out) < size:
        mo, d, h, m, s, x = stamp(ms)
        body = "SensorDataCallback,id 6\r\n" if i % 3 else "Runtime reported exception 0x6ba = 1722"
        out += ("[%02d-%02d-%02d-%02d-%02d:%d]%s\r\n" % (mo, d, h, m, s, x, body)).encode()
        ms += 5; i += 1
    open(path, "wb").write(out)

plugin(os.path.join(work, "one.logdat"), 1 << 20, 0, 4242)
plugin(os.path.join(work, "a.logdat"), total * 2 // 5, 0, 4242)
plugin(os.path.join(work, "b.logdat"), total * 2 // 5, 3, 5120)
sensor(os.path.join(work, "SensorLibLog.log"), total // 5, 1)
PY

# Medians of N runs of a command: wall time and CPU time (user + system) in
# seconds, "WALL CPU". The CPU time shows what the tool costs when other work
# shares the machine and stretches the wall time.
median() {
  local n=$1; shift
  local TIMEFORMAT='%R %U %S' runs
  runs=$(for _ in $(seq "$n"); do
    { time "$@" >/dev/null; } 2>&1 | awk '{printf "%s %.3f\n", $1, $2 + $3}'
  done)
  middle() { sort -n | awk '{v[NR]=$1} END {printf "%.3f", v[int((NR+1)/2)]}'; }
  echo "$(echo "$runs" | cut -d' ' -f1 | middle) $(echo "$runs" | cut -d' ' -f2 | middle)"
}
rate() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.1f", a / b}'; }
mib() { awk -v a="$1" -v t="$2" 'BEGIN {printf "%.1f", a / 1048576 / t}'; }

cd "$work"
one=$(du -b one.logdat | cut -f1)
big=$(cat a.logdat b.logdat SensorLibLog.log | wc -c)
records=$("$logread" a.logdat b.logdat SensorLibLog.log | wc -l)
kept=$("$logread" --since "11-14 00:00" --json a.logdat b.logdat SensorLibLog.log | wc -l)

echo
echo "== 1 MiB .logdat ($one bytes), median of 9 runs: wall s, CPU s"
show() { printf '%-34s %s s wall, %s s CPU\n' "$1" "${2% *}" "${2#* }"; }
show "decode (byte-exact output):" "$(median 9 "$logread" one.logdat)"
show "--level WAR (one line each):" "$(median 9 "$logread" --level WAR one.logdat)"
show "--json:" "$(median 9 "$logread" --json one.logdat)"
show "--summary:" "$(median 9 "$logread" --summary one.logdat)"

echo
echo "== $(mib "$big" 1) MiB: 2 plug-in .logdat + sensor library log, $records records, median of 3 runs"
big_run() {
  local label=$1; shift
  local r; r=$(median 3 "$@")
  printf '%-48s %s s wall (%s MiB/s), %s s CPU (%s MiB/s)\n' "$label" "${r% *}" "$(mib "$big" "${r% *}")" \
         "${r#* }" "$(mib "$big" "${r#* }")"
}
big_run "merged, one line each:" "$logread" a.logdat b.logdat SensorLibLog.log
big_run "merged, --since, --json:" \
        "$logread" --since "11-14 00:00" --json a.logdat b.logdat SensorLibLog.log
echo "  (the filter keeps $kept of $records records: the JSON writer's worst case)"
big_run "merged, --level WAR,untagged, --json:" "$logread" --level WAR,untagged --json a.logdat b.logdat SensorLibLog.log
big_run "merged, --summary:" "$logread" --summary a.logdat b.logdat SensorLibLog.log

# The peak resident memory of a run (MiB): the merge and the summaries.
# The summary's exit status tells its verdict, so it is not checked here.
peak() {
  python3 -c '
import resource, subprocess, sys
subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss // 1024)' "$@"
}
echo "merged, one line each: peak resident memory $(peak "$logread" a.logdat b.logdat SensorLibLog.log) MiB"
echo "--summary: peak resident memory $(peak "$logread" --summary a.logdat b.logdat SensorLibLog.log) MiB"
echo "--summary --json: peak resident memory $(peak "$logread" --summary --json a.logdat b.logdat SensorLibLog.log) MiB"
