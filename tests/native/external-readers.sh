#!/usr/bin/env bash
# logread's output read back by the tools support engineers use: jq on its
# JSON Lines (records and summary), and lnav, headless, on the two logs with
# the formats of share/lnav (installed with `lnav -i` into a scratch HOME).
# The output is compared with data/external-readers.expected.
# Usage: external-readers.sh LOGREAD SOURCE_DIR
set -euo pipefail
logread=$1
src=$2
data=$src/tests/native/data
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# The two sample logs under the names they have on a machine, dated: the
# records' year follows from the modification time.
cp "$data/session-plugin.txt" QXAttentionPlugin.log
cp "$data/session-sensor.log" SensorLibLog.log
touch -d '2026-11-20 12:00' QXAttentionPlugin.log SensorLibLog.log

{
  echo "== jq: every record, the untimed ones"
  "$logread" --json QXAttentionPlugin.log SensorLibLog.log > records.jsonl
  jq -s 'length' records.jsonl
  jq -c 'select(.level == null and .time == null) | [.file, .message]' records.jsonl

  echo "== jq: summary, and the fleet query of docs/logread.md over two machines"
  mkdir -p logs/a logs/b
  # The exit status tells the verdict: 4 attention off for a cause shown.
  "$logread" --summary --json QXAttentionPlugin.log SensorLibLog.log > logs/a/summary.json || echo "exit $?"
  "$logread" --summary --json "$data/causes-plugin.txt" "$data/causes-sensor.log" > logs/b/summary.json || echo "exit $?"
  jq -s -c 'group_by(.verdict.category) | map({category: .[0].verdict.category, machines: length})' \
    logs/*/summary.json
  # A fleet in one command: a folder of machines' folders, a JSON line each.
  "$logread" --summary --json "$data/sessions" 2>/dev/null > fleet.jsonl || echo "exit $?"
  jq -s -c 'group_by(.verdict.category) | map({category: .[0].verdict.category, machines: length})' \
    fleet.jsonl
  # Each session's chain of causes (keys), its failures' codes, its sensor lines.
  jq -c '.sessions[] | [.state, .code, (.causes | map(.key)), (.failures | map(.code)), .sensor_lines]' \
    logs/b/summary.json

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

if diff -u "$data/external-readers.expected" actual.txt; then
  echo "external readers: all output as expected"
else
  echo "external readers: output differs (- expected, + actual)"
  exit 1
fi
