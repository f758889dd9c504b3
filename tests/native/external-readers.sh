#!/usr/bin/env bash
# logread's output read back by the tools support engineers use: jq on its
# JSON Lines, lnav (headless) on the two logs with the formats of share/lnav.
# Compared with data/external-readers.expected.
# Usage: external-readers.sh LOGREAD SOURCE_DIR
set -euo pipefail
logread=$1
src=$2
data=$src/tests/native/data
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
cp "$data/session-plugin.txt" QXAttentionPlugin.log
cp "$data/session-sensor.log" SensorLibLog.log
cp -r "$data/sessions" fleet
# One machine's logs in the folders the logger keeps them in.
w=fleet/working/ProgramData/Vantoq
mkdir -p $w/Quillomatic/logs $w/SensorFusion/Logs
mv fleet/working/QXAttentionPlugin.log.logdat $w/Quillomatic/logs
mv fleet/working/SensorLibLog.log $w/SensorFusion/Logs
# The records' year follows from the files' modification time.
touch -d '2026-11-20 12:00' QXAttentionPlugin.log SensorLibLog.log

{
  echo "== jq: every record, the untimed ones"
  "$logread" --json QXAttentionPlugin.log SensorLibLog.log > records.jsonl
  jq -s 'length' records.jsonl
  jq -c 'select(.level == null and .time == null) | [.file, .message]' records.jsonl

  echo "== jq: a folder of machines, the fleet query of docs/logread.md, each session's causes"
  "$logread" --summary --json fleet 2>/dev/null > fleet.jsonl || echo "exit $?"
  jq -s -c 'group_by(.verdict.category) | map({category: .[0].verdict.category, machines: length})' \
    fleet.jsonl
  jq -c '[.machine, (.sessions[] | [.state, .code, (.causes | map(.key)), (.failures | map(.code))])]' \
    fleet.jsonl

  echo "== lnav: formats"
  export HOME=$work/home
  mkdir -p "$HOME"
  lnav -i "$src/share/lnav/qx_attention_log.json" >/dev/null
  lnav -i "$src/share/lnav/qx_sensorlib_log.json" >/dev/null
  lnav -n -c ";SELECT count(*) AS records FROM qx_attention_log" \
       -c ':write-csv-to -' QXAttentionPlugin.log
  # A warning, and a record of two lines.
  lnav -n -c ";SELECT log_level, thread, source, line, log_body FROM qx_attention_log
              WHERE log_level <> 'info' OR log_body LIKE '%cmd%'" \
       -c ':write-csv-to -' QXAttentionPlugin.log
  lnav -n -c ";SELECT strftime('%H:%M:%f', log_time) AS time, log_level, log_body FROM qx_sensorlib_log WHERE log_level = 'error'" \
       -c ':write-csv-to -' SensorLibLog.log
} > actual.txt

diff -u "$data/external-readers.expected" actual.txt || { echo "external readers: output differs (- expected, + actual)"; exit 1; }
echo "external readers: all output as expected"
