#!/usr/bin/env bash
# Records the logs of real sessions: the plug-in, driven by qxhost under Wine,
# against fusion-sim's failure modes, one fresh Wine prefix per session. Each
# session's two logs land in OUT/<session>/ as the machine left them; the
# summary's tests read them (tests/native/data/sessions) and make their
# damaged copies (a cut line, NUL bytes, a cut .gz, a log deleted at its
# size limit) from them.
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
# name | simulator: "none", "broken" (cannot start) or install options |
# DLL variant | steps: sim:CTL:ARG... (fusion-sim ctl before the host runs)
# or qxhost commands. In "not-answering" the
# service's process dies once "init" is over.
sessions=(
  "working|--quiet|noauth|init $on close"
  "absent|none|noauth|init $on close"
  "cannot-start|broken|noauth|init $on close"
  "auth-refused|--quiet|shipped|init $on close"
  "not-answering|--quiet|noauth|init sleep:8000 $on get_attention"
  "hung|--quiet|noauth|sim:hold init"
  "unsupported|--quiet --status 0|noauth|init $on close"
  "start-refused|--quiet|noauth|sim:force:3:0x30000020 init $on get_attention"
  "ability-first|--quiet|noauth|ability init $on close"
)

record() {
  local name=$1 sim=$2 dll=$3 steps=$4
  local prefix=$run/prefix  # one after the other, from one pristine copy
  export WINEPREFIX=$prefix
  scripts/wine-prefix.sh create "$prefix" >/dev/null
  # The prefix goes with the session (about 1 GB each); its pristine copy stays.
  trap 'scripts/wine-prefix.sh stop "$WINEPREFIX" >/dev/null 2>&1 || true; rm -rf "$WINEPREFIX"' RETURN
  case $sim in
    none) ;;
    broken)
      wine "$bin/fusion-sim.exe" install --quiet </dev/null >/dev/null
      wine reg add 'HKLM\System\CurrentControlSet\Services\VantoqSensorFusion' /v ImagePath \
        /t REG_EXPAND_SZ /d 'C:\absent\fusion-sim.exe' /f </dev/null >/dev/null
      # The service manager reads its database when the prefix starts.
      wineserver -k; wineserver -w; wineserver -p </dev/null >/dev/null 2>&1 ;;
    *)
      # shellcheck disable=SC2086
      wine "$bin/fusion-sim.exe" install $sim </dev/null >/dev/null
      wine "$bin/fusion-sim.exe" start </dev/null >/dev/null
      wine "$bin/fusion-sim.exe" ctl wait-ready 10000 </dev/null >/dev/null ;;
  esac
  local commands=()
  for step in $steps; do
    case $step in
      sim:*) IFS=: read -r -a words <<<"${step#sim:}"
             wine "$bin/fusion-sim.exe" ctl "${words[@]}" </dev/null >/dev/null ;;
      sleep:*) commands+=("sleep ${step#sleep:}") ;;
      *)     commands+=("$step") ;;
    esac
  done
  local file=QXAttentionPlugin-noauth.dll
  [ "$dll" = shipped ] && file=QXAttentionPlugin.dll
  (cd "$bin" && timeout "$([ "$name" = hung ] && echo 20 || echo 120)" wine qxhost.exe "$file" "${commands[@]}" </dev/null >"$run/$name.out" 2>&1) &
  local host=$!
  if [ "$name" = not-answering ]; then
    # Once "init" is over, the service's process dies without a word.
    local log=$prefix/drive_c/ProgramData/Vantoq/Quillomatic/logs/QXAttentionPlugin.log.logdat
    for _ in $(seq 1 300); do
      [ -f "$log" ] && build/native/bin/logread "$log" 2>/dev/null | grep -q 'AttentionPlugin.cpp(236)' && break
      sleep 0.1
    done
    for p in /proc/[0-9]*; do
      { tr '\0' '\n' <"$p/environ" | grep -qx "WINEPREFIX=$prefix" &&
          tr '\0' ' ' <"$p/cmdline" | grep -q 'fusion-sim.*service' &&
          kill -9 "${p#/proc/}" && echo "record-sessions: killed the service (${p#/proc/})"; } 2>/dev/null || true
    done
  fi
  wait "$host" || echo "record-sessions: $name: qxhost exited $?" >&2
  mkdir -p "$out/$name"
  rm -f "$out/$name"/*
  local data=$prefix/drive_c/ProgramData/Vantoq
  cp "$data/Quillomatic/logs/QXAttentionPlugin.log.logdat" "$out/$name/" 2>/dev/null || true
  cp "$data/SensorFusion/Logs/SensorLibLog.log" "$out/$name/" 2>/dev/null || true
  echo "record-sessions: $name: $(cd "$out/$name" && echo *)"
}

for entry in "${sessions[@]}"; do
  IFS='|' read -r name sim dll steps <<<"$entry"
  if [ $# -gt 0 ] && ! printf '%s\n' "$@" | grep -qx "$name"; then continue; fi
  record "$name" "$sim" "$dll" "$steps"
done

