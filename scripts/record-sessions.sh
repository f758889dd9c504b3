#!/usr/bin/env bash
# Records the logs of real sessions: the plug-in, driven by qxhost under Wine,
# against fusion-sim's failure modes, one fresh Wine prefix per session. Each
# session's two logs land in OUT/<session>/ as the machine left them; the
# summary's tests read them (tests/native/data/sessions).
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
# name | simulator: "none", "stopped", "broken" (cannot start) or install options |
# DLL variant | steps: sim:CTL:ARG... (fusion-sim ctl before the host runs),
# cut (log limit 3000 bytes), or qxhost commands. In "not-answering" the
# service's process dies once "init" is over.
sessions=(
  "working|--quiet|noauth|init $on close"
  "absent|none|noauth|init $on close"
  "stopped|stopped|noauth|init $on get_attention"
  "cannot-start|broken|noauth|init $on close"
  "auth-refused|--quiet|shipped|init $on close"
  "not-answering|--quiet|noauth|init sleep:8000 $on get_attention"
  "hung|--quiet|noauth|sim:hold init"
  "unsupported|--quiet --status 0|noauth|init $on close"
  "start-refused|--quiet|noauth|sim:force:3:0x30000020 init $on get_attention"
  "ability-first|--quiet|noauth|ability init $on close"
  "cut|--quiet|noauth|cut init $on get_attention"
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
    stopped) wine "$bin/fusion-sim.exe" install --quiet </dev/null >/dev/null ;;
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
      cut)   mkdir -p "$prefix/drive_c/ProgramData/Vantoq/Quillomatic/config"
             printf '[config]\r\ng_vantoq_global_max_size=3000\r\n' \
               >"$prefix/drive_c/ProgramData/Vantoq/Quillomatic/config/config.ini" ;;
      sleep:*) commands+=("sleep ${step#sleep:}") ;;
      *)     commands+=("$step") ;;
    esac
  done
  local file=QXAttentionPlugin-noauth.dll
  [ "$dll" = shipped ] && file=QXAttentionPlugin.dll
  if [ "$name" = cut ]; then  # enough actions to pass the limit after "init"
    for _ in $(seq 1 150); do commands+=(get_attention); done
  fi
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

# Damaged copies of recorded logs, as machines leave them: a sensor log cut
# inside its last exception line (the copy taken while it was written), NUL
# bytes where a power loss cut a line, a line that is no record, and a .gz
# that lost its last bytes.
[ -d "$out/absent" ] && [ -d "$out/working" ] || exit 0
python3 - "$out" <<'PY'
import gzip, os, shutil, sys
out = sys.argv[1]
def files(name):
    return {f: open(os.path.join(out, name, f), "rb").read() for f in os.listdir(os.path.join(out, name))}
def write(name, content):
    os.makedirs(os.path.join(out, name), exist_ok=True)
    for f, data in content.items():
        open(os.path.join(out, name, f), "wb").write(data)
sensor = "SensorLibLog.log"
logs = files("absent")
text = logs[sensor]
write("damaged-cut", {**logs, sensor: text[:text.rindex(b"= 1722") + 4]})
lines = text.split(b"\r\n")
nul = b"\r\n".join(lines[:3]) + b"\r\n" + lines[3][:20] + b"\0" * 4096 + b"\r\n".join([b""] + lines[4:])
write("damaged-nul", {**logs, sensor: nul})
write("damaged-foreign", {**logs, sensor: b"\r\n".join(lines[:2] + [b"\x01\x02 copied over"] + lines[2:])})
plugin = "QXAttentionPlugin.log.logdat"
logs = files("working")
packed = gzip.compress(logs[plugin], mtime=0)
write("damaged-gz", {plugin + ".gz": packed[:len(packed) * 2 // 3], sensor: logs[sensor]})
print("record-sessions: damaged-cut damaged-nul damaged-foreign damaged-gz")
PY
