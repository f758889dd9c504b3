#!/usr/bin/env bash
# Records the logs of real sessions: the plug-in, driven by qxhost under Wine,
# with fusion-sim as the service and without it, one fresh Wine prefix per
# session. Each session's two logs land in OUT/<session>/ as the machine left
# them; logread's native tests (tests/native/data/sessions) make their damaged
# copies (a cut line, NUL bytes, a cut .gz, a log deleted at its size limit)
# from them.
#   record-sessions.sh [OUT] [SESSION...]     (default: every session)
# QX_WIN_BIN: the Windows binaries (default build/win/bin).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
out=$(realpath -m "${1:-tests/native/data/sessions}")
shift || true
bin=$(realpath "${QX_WIN_BIN:-build/win/bin}")
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
run=$root/build/record
mkdir -p "$run"

on='set_attention_status={"F4010":{"status":2}}'
# name | simulator: "none" or install options | qxhost commands
sessions=(
  "working|--quiet|init $on close"
  "absent|none|init $on close"
)

record() {
  local name=$1 sim=$2 steps=$3
  local prefix=$run/prefix  # one after the other, from one pristine copy
  export WINEPREFIX=$prefix
  scripts/wine-prefix.sh create "$prefix" >/dev/null
  # The prefix goes with the session (about 1 GB each); its pristine copy stays.
  trap 'scripts/wine-prefix.sh stop "$WINEPREFIX" >/dev/null 2>&1 || true; rm -rf "$WINEPREFIX"' RETURN
  if [ "$sim" != none ]; then
    # shellcheck disable=SC2086
    wine "$bin/fusion-sim.exe" install $sim </dev/null >/dev/null
    wine "$bin/fusion-sim.exe" start </dev/null >/dev/null
    wine "$bin/fusion-sim.exe" ctl wait-ready 10000 </dev/null >/dev/null
  fi
  # shellcheck disable=SC2086
  (cd "$bin" && timeout 120 wine qxhost.exe QXAttentionPlugin-noauth.dll $steps </dev/null >"$run/$name.out" 2>&1) ||
    echo "record-sessions: $name: qxhost exited $?" >&2
  mkdir -p "$out/$name"
  rm -f "$out/$name"/*
  local data=$prefix/drive_c/ProgramData/Vantoq
  cp "$data/Quillomatic/logs/QXAttentionPlugin.log.logdat" "$out/$name/" 2>/dev/null || true
  cp "$data/SensorFusion/Logs/SensorLibLog.log" "$out/$name/" 2>/dev/null || true
  echo "record-sessions: $name: $(cd "$out/$name" && echo *)"
}

for entry in "${sessions[@]}"; do
  IFS='|' read -r name sim steps <<<"$entry"
  if [ $# -gt 0 ] && ! printf '%s\n' "$@" | grep -qx "$name"; then continue; fi
  record "$name" "$sim" "$steps"
done

