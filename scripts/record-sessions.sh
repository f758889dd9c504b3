#!/usr/bin/env bash
# Records the logs of real sessions for logread's native tests, which make their
# damaged copies from them: qxhost drives the plug-in under Wine through "init",
# attention on and "close", with fusion-sim as the service (working) and without
# it (absent), each in a fresh prefix; OUT/<session>/ gets the two logs as the
# machine left them.
#   record-sessions.sh [OUT] [SESSION...]   QX_WIN_BIN: default build/win/bin
set -euo pipefail
cd "$(dirname "$0")/.."
out=$(realpath -m "${1:-tests/native/data/sessions}")
shift || true
bin=$(realpath "${QX_WIN_BIN:-build/win/bin}") run=$PWD/build/record
export WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml=" WINEPREFIX=$run/prefix
mkdir -p "$run"
[ $# -gt 0 ] || set -- working absent
for name; do
  case $name in working | absent) ;; *) echo "record-sessions: no session $name (working, absent)" >&2; exit 2 ;; esac
  (
    # The prefix (about 1 GB) goes with the session; its pristine copy stays.
    trap 'scripts/wine-prefix.sh stop "$WINEPREFIX" >/dev/null 2>&1 || true; rm -rf "$WINEPREFIX"' EXIT
    scripts/wine-prefix.sh create "$WINEPREFIX" >/dev/null
    if [ "$name" = working ]; then
      # shellcheck disable=SC2086
      for sim in "install --quiet" start "ctl wait-ready 10000"; do
        wine "$bin/fusion-sim.exe" $sim </dev/null >/dev/null
      done
    fi
    (cd "$bin" && timeout 120 wine qxhost.exe QXAttentionPlugin-noauth.dll init \
      'set_attention_status={"F4010":{"status":2}}' close </dev/null >"$run/$name.out" 2>&1) ||
      echo "record-sessions: $name: qxhost exited $?" >&2
    mkdir -p "$out/$name" && rm -f "$out/$name"/*
    data=$WINEPREFIX/drive_c/ProgramData/Vantoq
    cp "$data/Quillomatic/logs/QXAttentionPlugin.log.logdat" "$data/SensorFusion/Logs/SensorLibLog.log" \
      "$out/$name/" 2>/dev/null || true
    echo "record-sessions: $name: $(cd "$out/$name" && echo *)"
  )
done
